#include "shared.registry-regkey.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <exception>
#include <span>
#include <string_view>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.registry-functions.h"
#include "shared.util-functions.h"

namespace Shared::Registry {

namespace {

constexpr DWORD subkeyNameCapacity = 2048;
constexpr DWORD valueNameCapacity = 1024;
constexpr std::wstring_view multiStringSeparator = L"\x7C20";

// For operations that must not throw, whatever the logger does.
template <class... Args>
void Warn(const Exception::LogFormat& format, const Args&... arguments) noexcept {
    try {
        Exception::LogWarning(format, arguments...);
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is nowhere left to report to
    }
}

std::wstring JoinedMultiString(std::span<const std::byte> data) {
    std::wstring joined;
    for (std::size_t offset = 0; offset < data.size();) {
        const std::wstring text = FirstText(data.subspan(offset));
        if (offset != 0) {
            joined += multiStringSeparator;
        }
        joined += text;
        offset += text.size() + 1;
    }
    return joined;
}

// Appends the values of a key in the registry's order. A value that cannot be read is left out. Returns the code that
// has ended the enumeration.
LSTATUS AppendValues(const RegKey& key, std::vector<RegKey::Value>& values) {
    std::wstring buffer(valueNameCapacity, L'\0');
    for (DWORD index = 0;; ++index) {
        DWORD length = valueNameCapacity;
        DWORD type = REG_NONE;
        const LSTATUS status =
            RegEnumValueW(key.handle.Get(), index, buffer.data(), &length, nullptr, &type, nullptr, nullptr);
        if (status != ERROR_SUCCESS) {
            return status;
        }
        if (auto value = key.GetRawValue(std::wstring(buffer.data(), length))) {
            values.push_back(*std::move(value));
        }
    }
}

void WarnIncomplete(const std::wstring& key, std::string_view details) {
    Warn(
        "Failed extracting all key values for {}. Will return what has been found, which may be incomplete. Error "
        "details: {}",
        Util::ToUtf8Lossy(key), details);
}

}  // namespace

std::wstring RegKey::Value::ToWide() const {
    if (data.empty()) {
        return {};
    }
    switch (type) {
        case REG_SZ:
            return fmt::format(L"[String] {} = {}", name, FirstText(data));
        case REG_DWORD:
            return fmt::format(L"[DWord] {} = {}", name, Number(data));
        case REG_MULTI_SZ:
            return fmt::format(L"[Multistring] {} = {}", name, JoinedMultiString(data));
        default:
            Exception::LogWarning("Ignored value name {} as it was of value type {}.", Util::ToUtf8Lossy(name), type);
            return fmt::format(L"Value {} of type {} ignored", name, type);
    }
}

RegKey::RegKey(HKEY rootKey, std::wstring path, std::uint32_t accessMask)
    : access(accessMask), name(std::move(path)), root(rootKey) {
    if (root == nullptr) {
        throw Exception::InvalidArgumentException("key cannot be null");
    }
    handle.Reset(OpenKey(root, name, access));
}

std::expected<RegKey, std::string> RegKey::Open(HKEY rootKey, const std::wstring& path,
                                                std::uint32_t accessMask) noexcept {
    try {
        return RegKey(rootKey, path, accessMask);
    } catch (const std::exception& error) {
        Warn("Failed opening {}: {}", Util::ToUtf8Lossy(path), error.what());
        return std::unexpected(error.what());
    }
}

std::optional<RegKey> RegKey::Find(HKEY rootKey, std::wstring path, std::uint32_t accessMask) {
    try {
        return RegKey(rootKey, std::move(path), accessMask);
    } catch (const Exception::NotFoundException&) {
        return std::nullopt;
    }
}

std::vector<RegKey> RegKey::Subkeys() const {
    if (!handle) {
        throw Exception::RuntimeException("No key set to query the subkeys.");
    }
    std::vector<RegKey> subkeys;
    std::wstring buffer(subkeyNameCapacity, L'\0');
    for (DWORD index = 0;; ++index) {
        DWORD length = subkeyNameCapacity;
        const LSTATUS status =
            RegEnumKeyExW(handle.Get(), index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) {
            return subkeys;
        }
        if (status != ERROR_SUCCESS) {
            throw Exception::Win32Exception("RegEnumKeyExW() failed", static_cast<std::uint32_t>(status));
        }
        subkeys.emplace_back(root, fmt::format(L"{}\\{}", name, std::wstring_view(buffer.data(), length)), access);
    }
}

std::string RegKey::LastWrittenTo() const {
    if (!handle) {
        throw Exception::RuntimeException("No key set to query the last write time.");
    }
    FILETIME written{};
    const LSTATUS status = RegQueryInfoKeyW(handle.Get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                            nullptr, nullptr, nullptr, &written);
    if (status != ERROR_SUCCESS) {
        throw Exception::Win32Exception("RegQueryInfoKeyW() failed.", static_cast<std::uint32_t>(status));
    }
    SYSTEMTIME utc{};
    if (FileTimeToSystemTime(&written, &utc) == FALSE) {
        throw Exception::Win32Exception("FileTimeToSystemTime() failed.", GetLastError());
    }
    return fmt::format("{:02}:{:02}:{:02} {}-{:02}-{:02}", utc.wHour, utc.wMinute, utc.wSecond, utc.wYear, utc.wMonth,
                       utc.wDay);
}

std::wstring RegKey::DefaultValue() const {
    if (!handle) {
        throw Exception::RuntimeException("No key set to query the default value.");
    }
    return RegGetDefault(handle.Get());
}

std::expected<unsigned long, long> RegKey::GetValueSize(const std::wstring& valueName) const noexcept {
    if (!handle) {
        Warn("Cannot query the default value of an null registry key.");
        return std::unexpected(ERROR_BAD_ARGUMENTS);
    }
    // The calls would stop at a NUL inside the name and answer for another value than the one named.
    if (valueName.contains(L'\0')) {
        return std::unexpected(ERROR_INVALID_NAME);
    }
    DWORD size = 0;
    const LSTATUS status = RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS) {
        return std::unexpected(status);
    }
    return size;
}

std::expected<RegKey::Value, long> RegKey::GetRawValue(const std::wstring& valueName) const noexcept {
    if (!handle) {
        Warn("Cannot query the raw value of an null registry key.");
        return std::unexpected(ERROR_BAD_ARGUMENTS);
    }
    if (const auto size = GetValueSize(valueName); !size) {
        return std::unexpected(size.error());
    }
    try {
        DWORD type = REG_NONE;
        auto data = ReadGrowing([&](void* buffer, DWORD* size) {
            return RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, &type, static_cast<BYTE*>(buffer), size);
        });
        if (!data) {
            return std::unexpected(static_cast<long>(data.error()));
        }
        return Value{.data = *std::move(data), .type = type, .name = valueName};
    } catch (const std::exception&) {
        return std::unexpected(ERROR_NOT_ENOUGH_MEMORY);
    }
}

std::vector<RegKey::Value> RegKey::GetAllValues() const noexcept {
    std::vector<Value> values;
    if (!handle) {
        Warn("Cannot query all values of an null registry key.");
        return values;
    }
    try {
        if (const LSTATUS ended = AppendValues(*this, values); ended != ERROR_NO_MORE_ITEMS) {
            WarnIncomplete(name, Exception::Win32Message(static_cast<std::uint32_t>(ended)));
        }
    } catch (const std::exception& error) {
        WarnIncomplete(name, error.what());
    }
    return values;
}

}  // namespace Shared::Registry
