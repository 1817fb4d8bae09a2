#include "agentcore.diagnostics-collectors-pvregistryvalues.h"

#include <windows.h>

#include <fmt/format.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <expected>
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

using namespace Shared::Registry;
using Shared::Util::ToUtf8Lossy;

std::wstring BelowPortavo(std::wstring_view name) {
    return std::wstring(portavoKey) + std::wstring(name);
}

std::optional<RegKey> FindKey(std::wstring path) {
    return RegKey::Find(HKEY_LOCAL_MACHINE, std::move(path), KEY_READ);
}

// What a query of a value returns, or nothing when the value or its key does not exist. Throws when it fails.
template <class T>
std::optional<T> Find(std::wstring keyPath, const std::wstring& name,
                      std::expected<T, long> (RegKey::*query)(const std::wstring&) const noexcept) {
    const auto key = FindKey(std::move(keyPath));
    auto found = key ? ((*key).*query)(name) : std::unexpected(ERROR_FILE_NOT_FOUND);
    if (found) {
        return *std::move(found);
    }
    if (found.error() != ERROR_FILE_NOT_FOUND) {
        throw Shared::Exception::Win32Exception(fmt::format("Cannot read the value {}", ToUtf8Lossy(name)),
                                                static_cast<std::uint32_t>(found.error()));
    }
    return std::nullopt;
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

}  // namespace

std::string ValueText(const RegKey::Value& value) {
    switch (value.type) {
        case REG_SZ:
            return ToUtf8Lossy(FirstText(value.data));
        case REG_DWORD:
            if (!value.data.empty()) {
                return fmt::to_string(Number(value.data));
            }
            break;
        case REG_MULTI_SZ: {
            auto texts = Texts(value.data);
            while (!texts.empty() && texts.back().empty()) {
                texts.pop_back();
            }
            std::string joined;
            for (const std::wstring& text : texts) {
                joined += ", " + ToUtf8Lossy(text);
            }
            return joined.erase(0, 2);
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
        const auto key = RegKey::Open(HKEY_LOCAL_MACHINE, path, KEY_READ);
        if (!key) {
            return;
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
        const auto size = Find(BelowPortavo(L""), L"LatestCP", &RegKey::GetValueSize);
        report << (size.value_or(0) != 0 ? "\nSSO cache is not empty.\n" : "\nSSO cache is empty.\n");
    });
}

void WritePreferredIP(std::ostream& report) noexcept {
    WriteSection("Failed writing out Preferred IP: {}", [&] {
        const auto value = Find(BelowPortavo(L"\\VqPVS"), L"PreferredIP", &RegKey::GetRawValue);
        if (!value) {
            report << "\nPreferredIP is not present\n";
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
        const auto value = Find(BelowPortavo(L"\\VqSetup"), L"Prelogon", &RegKey::GetRawValue);
        report << (value ? "\nPrelogon:" + ValueText(*value) : "\nPrelogon value is not present\n");
    });
}

void WriteCPGuid(std::ostream& report) noexcept {
    WriteSection("Failed writing out CP GUID: {}", [&] {
        if (Find(BelowPortavo(L""), L"wrap-cp-guid", &RegKey::GetValueSize)) {
            const std::wstring guid = RegGetString(HKEY_LOCAL_MACHINE, portavoKey, L"wrap-cp-guid");
            report << "\nWrap CP Guid:\n" << ToUtf8Lossy(guid);
        } else {
            report << "\nwrap-cp-guid value is not present.\n";
        }
    });
}

void WriteSettings(std::ostream& report) noexcept {
    WriteSection("Failed writing out registry settings: {}", [&] {
        report << "\nSettings:\n";
        const auto key = FindKey(BelowPortavo(L"\\Settings"));
        for (const RegKey::Value& value : key ? key->GetAllValues() : std::vector<RegKey::Value>()) {
            report << fmt::format("{}={}\n", ToUtf8Lossy(value.name), ValueText(value));
        }
    });
}

CollectorStatus CollectPVRegistryValues(const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            try {
                (void)RegKey(HKEY_LOCAL_MACHINE, std::wstring(portavoKey), KEY_READ);
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
