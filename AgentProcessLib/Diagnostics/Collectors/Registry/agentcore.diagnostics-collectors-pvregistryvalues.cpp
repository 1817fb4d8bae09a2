#include "agentcore.diagnostics-collectors-pvregistryvalues.h"

#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <exception>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.registry-functions.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

namespace {

using Shared::Registry::RegKey;
using Shared::Util::ToUtf8Lossy;

std::wstring BelowPortavo(std::wstring_view name) {
    return std::wstring(portavoKey) + std::wstring(name);
}

RegKey OpenToRead(std::wstring path) {
    return {HKEY_LOCAL_MACHINE, std::move(path), KEY_READ};
}

template <std::invocable Body>
void WriteSection(std::string_view failure, Body&& body) noexcept {
    try {
        try {
            std::forward<Body>(body)();
        } catch (const std::exception& error) {
            Shared::Exception::LogWarning(failure, error.what());
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): the log failed as well; the next section is still written
    }
}

// A value of a key. Writes the text for a value that does not exist, with its key or alone; throws when the value
// cannot be read.
std::optional<RegKey::Value> FindValue(std::ostream& report, std::wstring keyPath, const std::wstring& name,
                                       std::string_view absent) {
    try {
        auto value = OpenToRead(std::move(keyPath)).GetRawValue(name);
        if (value) {
            return *std::move(value);
        }
        if (value.error() != ERROR_FILE_NOT_FOUND) {
            throw Shared::Exception::Win32Exception(fmt::format("Cannot read the value {}", ToUtf8Lossy(name)),
                                                    static_cast<std::uint32_t>(value.error()));
        }
    } catch (const Shared::Exception::NotFoundException&) {  // NOLINT(bugprone-empty-catch): as without the value
    }
    report << absent;
    return std::nullopt;
}

bool KeyExists(const std::wstring& path) {
    try {
        static_cast<void>(OpenToRead(path));
        return true;
    } catch (const Shared::Exception::NotFoundException&) {
        return false;
    }
}

// The stored bytes as characters, without half a character at the end.
std::wstring Characters(const std::vector<std::byte>& data) {
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    if (!text.empty()) {
        std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
    }
    return text;
}

}  // namespace

std::string ValueText(const RegKey::Value& value) {
    switch (value.type) {
        case REG_SZ: {
            const std::wstring text = Characters(value.data);
            return ToUtf8Lossy(std::wstring_view(text).substr(0, text.find(L'\0')));
        }
        case REG_DWORD:
            if (!value.data.empty()) {
                std::uint32_t number = 0;
                std::memcpy(&number, value.data.data(), std::min(sizeof number, value.data.size()));
                return fmt::to_string(number);
            }
            break;
        case REG_MULTI_SZ: {
            std::wstring text = Characters(value.data);
            text.resize(text.find_last_not_of(L'\0') + 1);
            std::string joined;
            for (std::size_t start = 0; start < text.size();) {
                const std::size_t end = std::min(text.find(L'\0', start), text.size());
                joined += start == 0 ? "" : ", ";
                joined += ToUtf8Lossy(std::wstring_view(text).substr(start, end - start));
                start = end + 1;
            }
            return joined;
        }
        default:
            break;
    }
    return fmt::format("(type {}, {} bytes)", value.type, value.data.size());
}

void WriteCredentialProviderFilters(std::ostream& report) noexcept {
    WriteSection("Failed writing out Credential Provider Filters: {}", [&] {
        report << "Credential Provider Filters:\n";
        const std::wstring path(credentialProviderFiltersKey);
        if (!KeyExists(path)) {
            return;
        }
        const auto key = RegKey::Open(HKEY_LOCAL_MACHINE, path, KEY_READ);
        if (!key) {
            throw Shared::Exception::RuntimeException(fmt::format("Failed opening {}", ToUtf8Lossy(path)));
        }
        for (const RegKey& filter : key->Subkeys()) {
            const std::wstring name = filter.name.substr(path.size() + 1);
            report << fmt::format("{}\\{} | {} | {}\n", ToUtf8Lossy(path), ToUtf8Lossy(name),
                                  ToUtf8Lossy(filter.DefaultValue()), filter.LastWrittenTo());
        }
    });
}

void WriteLatestCP(std::ostream& report) noexcept {
    WriteSection("Failed writing out Latest CP: {}", [&] {
        report << "\nSSO cache:";
        const auto size = OpenToRead(std::wstring(portavoKey)).GetValueSize(L"LatestCP");
        if (!size && size.error() != ERROR_FILE_NOT_FOUND) {
            throw Shared::Exception::Win32Exception("Cannot read the size of the value LatestCP",
                                                    static_cast<std::uint32_t>(size.error()));
        }
        report << (size.value_or(0) != 0 ? "\nSSO cache is not empty.\n" : "\nSSO cache is empty.\n");
    });
}

void WritePreferredIP(std::ostream& report) noexcept {
    WriteSection("Failed writing out Preferred IP: {}", [&] {
        const auto value =
            FindValue(report, BelowPortavo(L"\\VqPVS"), L"PreferredIP", "\nPreferredIP is not present\n");
        if (!value) {
            return;
        }
        report << "\nPreferredIP:";
        if (value->data.size() != 4) {
            report << fmt::format("Failed writing out the PreferredIP value as it was unexpected size: {}.",
                                  value->data.size());
            return;
        }
        const auto part = [&value](std::size_t index) { return std::to_integer<unsigned>(value->data[index]); };
        report << fmt::format("{}.{}.{}.{}", part(0), part(1), part(2), part(3));
    });
}

void WritePrelogon(std::ostream& report) noexcept {
    WriteSection("Failed writing out PreLogon: {}", [&] {
        const auto value =
            FindValue(report, BelowPortavo(L"\\VqSetup"), L"Prelogon", "\nPrelogon value is not present\n");
        if (value) {
            report << "\nPrelogon:" << ValueText(*value);
        }
    });
}

void WriteCPGuid(std::ostream& report) noexcept {
    WriteSection("Failed writing out CP GUID: {}", [&] {
        try {
            const std::wstring guid = Shared::Registry::RegGetString(HKEY_LOCAL_MACHINE, portavoKey, L"wrap-cp-guid");
            report << "\nWrap CP Guid:\n" << ToUtf8Lossy(guid);
        } catch (const Shared::Registry::RegistryException& error) {
            if (error.Code() != ERROR_FILE_NOT_FOUND) {
                throw;
            }
            report << "\nwrap-cp-guid value is not present.\n";
        }
    });
}

void WriteSettings(std::ostream& report) noexcept {
    WriteSection("Failed writing out registry settings: {}", [&] {
        report << "\nSettings:\n";
        const std::wstring path = BelowPortavo(L"\\Settings");
        if (!KeyExists(path)) {
            return;
        }
        for (const RegKey::Value& value : OpenToRead(path).GetAllValues()) {
            report << fmt::format("{}={}\n", ToUtf8Lossy(value.name), ValueText(value));
        }
    });
}

CollectorStatus CollectPVRegistryValues(const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            try {
                (void)OpenToRead(std::wstring(portavoKey));
            } catch (const std::exception&) {
                return Unsuccessful(fmt::format("Not dumping the Portavo key {} as it does not exist.",
                                                ToUtf8Lossy(std::wstring_view(portavoKey))));
            }
            Shared::FileSystem::GeneratedFile file(L"regval.txt");
            std::ostringstream report;
            // A stream reports no failure unless it is asked to.
            report.exceptions(std::ios::badbit | std::ios::failbit);
            WriteCredentialProviderFilters(report);
            WriteLatestCP(report);
            WritePreferredIP(report);
            WritePrelogon(report);
            WriteCPGuid(report);
            WriteSettings(report);
            file.WriteText(report.view());
            return destination.Add(file);
        },
        [](std::string_view error) { return LogErrorAndReturn(fmt::format("PVRegistryValues failed: {}", error)); });
}

}  // namespace AgentCore::Diagnostics::Collectors::Registry
