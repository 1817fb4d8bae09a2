#include "shared.registry-regkey.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.registry-functions.h"
#include "shared.util-functions.h"
#include "shared.util-win32result.h"

namespace Shared::Registry {

namespace {

constexpr DWORD subkeyNameCapacity = 2048;
constexpr DWORD valueNameCapacity = 1024;
constexpr std::wstring_view multiStringSeparator = L"\x7C20";

// How often a value may outgrow its buffer between two calls before reading it is given up.
constexpr int maxAttempts = 16;

// For operations that must not throw, whatever the logger does.
template <class... Args>
void Warn(const Exception::LogFormat& format, const Args&... arguments) noexcept {
    try {
        Exception::LogWarning(format, arguments...);
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is nowhere left to report to
    }
}

// The 16-bit units from a byte offset, which may be odd, up to a zero unit or to the last unit that lies within the
// data.
std::wstring TextAt(const std::vector<std::byte>& data, std::size_t offset) {
    std::wstring text;
    for (wchar_t unit = 0; offset + sizeof unit <= data.size(); offset += sizeof unit) {
        std::memcpy(&unit, data.data() + offset, sizeof unit);
        if (unit == 0) {
            break;
        }
        text += unit;
    }
    return text;
}

std::wstring JoinedMultiString(const std::vector<std::byte>& data) {
    std::wstring joined;
    for (std::size_t offset = 0; offset < data.size();) {
        const std::wstring text = TextAt(data, offset);
        if (offset != 0) {
            joined += multiStringSeparator;
        }
        joined += text;
        offset += text.size() + 1;
    }
    return joined;
}

// Reads a value that may grow between two calls; the first one has a buffer of that many bytes.
std::expected<RegKey::Value, long> ReadValue(HKEY key, const std::wstring& name, std::size_t capacity) {
    RegKey::Value value;
    value.name = name;
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        // Never an empty buffer, which would turn the call into another query for the size.
        value.data.resize(std::max<std::size_t>(capacity, 1));
        auto bytes = static_cast<DWORD>(value.data.size());
        DWORD type = REG_NONE;
        const LSTATUS status =
            RegQueryValueExW(key, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(value.data.data()), &bytes);
        if (status == ERROR_SUCCESS) {
            value.data.resize(bytes);
            value.type = type;
            return value;
        }
        if (status != ERROR_MORE_DATA) {
            return std::unexpected(status);
        }
        capacity = std::max<std::size_t>(capacity * 2, bytes);
    }
    return std::unexpected(ERROR_MORE_DATA);
}

// Appends the values of a key in the registry's order. A value that cannot be read is left out.
Util::Win32Result<void> AppendValues(const RegKey& key, std::vector<RegKey::Value>& values) {
    std::wstring buffer(valueNameCapacity, L'\0');
    for (DWORD index = 0;; ++index) {
        DWORD length = valueNameCapacity;
        DWORD type = REG_NONE;
        const LSTATUS status =
            RegEnumValueW(key.handle, index, buffer.data(), &length, nullptr, &type, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) {
            return {};
        }
        if (status != ERROR_SUCCESS) {
            return std::unexpected(static_cast<DWORD>(status));
        }
        if (auto value = key.GetRawValue(std::wstring(buffer.data(), length))) {
            values.push_back(*std::move(value));
        }
    }
}

void WarnIncomplete(const std::wstring& key, std::string_view details) {
    Exception::LogWarning(
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
            return fmt::format(L"[String] {} = {}", name, TextAt(data, 0));
        case REG_DWORD: {
            std::uint32_t number = 0;
            std::memcpy(&number, data.data(), std::min(sizeof number, data.size()));
            return fmt::format(L"[DWord] {} = {}", name, number);
        }
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
    handle = OpenKey(root, name, access);
}

RegKey::RegKey(RegKey&& other) noexcept
    : handle(std::exchange(other.handle, nullptr)),
      access(other.access),
      name(std::move(other.name)),
      root(other.root) {}

RegKey& RegKey::operator=(RegKey&& other) noexcept {
    RegKey taken(std::move(other));
    std::swap(handle, taken.handle);
    std::swap(access, taken.access);
    std::swap(name, taken.name);
    std::swap(root, taken.root);
    return *this;
}

RegKey::~RegKey() {
    if (handle != nullptr) {
        const DWORD lastError = GetLastError();
        RegCloseKey(handle);
        SetLastError(lastError);
    }
}

std::expected<RegKey, std::string> RegKey::Open(HKEY rootKey, const std::wstring& path,
                                                std::uint32_t accessMask) noexcept {
    try {
        try {
            return RegKey(rootKey, path, accessMask);
        } catch (const std::exception& error) {
            Exception::LogWarning("Failed opening {}: {}", Util::ToUtf8Lossy(path), error.what());
            return std::unexpected(std::string(error.what()));
        }
    } catch (...) {
        return std::unexpected(std::string("out of memory"));
    }
}

std::vector<RegKey> RegKey::Subkeys() const {
    if (handle == nullptr) {
        throw Exception::RuntimeException("No key set to query the subkeys.");
    }
    std::vector<RegKey> subkeys;
    std::wstring buffer(subkeyNameCapacity, L'\0');
    for (DWORD index = 0;; ++index) {
        DWORD length = subkeyNameCapacity;
        const LSTATUS status = RegEnumKeyExW(handle, index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
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
    if (handle == nullptr) {
        throw Exception::RuntimeException("No key set to query the last write time.");
    }
    FILETIME written{};
    const LSTATUS status = RegQueryInfoKeyW(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
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
    if (handle == nullptr) {
        throw Exception::RuntimeException("No key set to query the default value.");
    }
    return RegGetDefault(handle);
}

std::expected<unsigned long, long> RegKey::GetValueSize(const std::wstring& valueName) const noexcept {
    if (handle == nullptr) {
        Warn("Cannot query the default value of an null registry key.");
        return std::unexpected(ERROR_BAD_ARGUMENTS);
    }
    // The calls would stop at a NUL inside the name and answer for another value than the one named.
    if (valueName.contains(L'\0')) {
        return std::unexpected(ERROR_INVALID_NAME);
    }
    DWORD size = 0;
    const LSTATUS status = RegQueryValueExW(handle, valueName.c_str(), nullptr, nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS) {
        return std::unexpected(status);
    }
    return size;
}

std::expected<RegKey::Value, long> RegKey::GetRawValue(const std::wstring& valueName) const noexcept {
    if (handle == nullptr) {
        Warn("Cannot query the raw value of an null registry key.");
        return std::unexpected(ERROR_BAD_ARGUMENTS);
    }
    const auto size = GetValueSize(valueName);
    if (!size) {
        return std::unexpected(size.error());
    }
    try {
        return ReadValue(handle, valueName, *size);
    } catch (const std::exception&) {
        return std::unexpected(ERROR_NOT_ENOUGH_MEMORY);
    }
}

std::vector<RegKey::Value> RegKey::GetAllValues() const noexcept {
    std::vector<Value> values;
    if (handle == nullptr) {
        Warn("Cannot query all values of an null registry key.");
        return values;
    }
    try {
        try {
            if (const auto ended = AppendValues(*this, values); !ended) {
                WarnIncomplete(name, Exception::Win32Message(ended.error()));
            }
        } catch (const std::exception& error) {
            WarnIncomplete(name, error.what());
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory even for the warning
    }
    return values;
}

}  // namespace Shared::Registry
