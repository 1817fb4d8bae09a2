#include "shared.registry-functions.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "shared.util-functions.h"
#include "shared.util-win32result.h"

namespace Shared::Registry {

namespace {

std::string FullName(HKEY parent, std::wstring_view path) {
    return fmt::format("{}\\{}", Util::ToUtf8Lossy(SuperkeyName(parent)), Util::ToUtf8Lossy(path));
}

// How often a value may outgrow its buffer between two calls before reading it is given up.
constexpr int maxAttempts = 16;

Util::Win32Result<std::size_t> TextSize(HKEY root, const wchar_t* subkey, const wchar_t* name, DWORD restriction) {
    DWORD size = 0;
    const LSTATUS status = RegGetValueW(root, subkey, name, restriction, nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS) {
        return std::unexpected(static_cast<DWORD>(status));
    }
    return size;
}

// All characters of a text value, terminators included.
Util::Win32Result<std::wstring> ReadText(HKEY root, const wchar_t* subkey, const wchar_t* name, DWORD restriction,
                                         std::size_t size) {
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        // Never an empty buffer, which would turn the call into another query for the size. The spare characters are
        // for an odd byte and for the terminators that the call adds to a value without them.
        std::wstring buffer((size / sizeof(wchar_t)) + 3, L'\0');
        auto bytes = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
        const LSTATUS status = RegGetValueW(root, subkey, name, restriction, nullptr, buffer.data(), &bytes);
        if (status == ERROR_SUCCESS) {
            buffer.resize(std::min(buffer.size(), bytes / sizeof(wchar_t)));
            return buffer;
        }
        if (status != ERROR_MORE_DATA) {
            return std::unexpected(static_cast<DWORD>(status));
        }
        size = std::max<std::size_t>(size * 2, bytes);
    }
    return std::unexpected<DWORD>(ERROR_MORE_DATA);
}

std::wstring ReadValue(HKEY root, std::wstring_view subkey, std::wstring_view name, DWORD restriction,
                       std::wstring_view failure, const std::source_location& location) {
    if (root == nullptr) {
        throw Exception::InvalidArgumentException("key cannot be null", location);
    }
    const std::wstring path(subkey);
    const std::wstring value(name);
    const auto size = TextSize(root, path.c_str(), value.c_str(), restriction);
    if (!size) {
        ThrowRegError(size.error(), failure, root, subkey, name, location);
    }
    auto text = ReadText(root, path.c_str(), value.c_str(), restriction, *size);
    if (!text) {
        ThrowRegError(text.error(), failure, root, subkey, name, location);
    }
    return *std::move(text);
}

}  // namespace

HKEY OpenKey(HKEY parent, const std::wstring& path, std::uint32_t access) {
    if (parent == nullptr) {
        throw Exception::RuntimeException("Parent key cannot be null");
    }
    HKEY key = nullptr;
    // The call would stop at a NUL inside the path and open another key than the one named.
    const LSTATUS status =
        path.contains(L'\0') ? LSTATUS{ERROR_INVALID_NAME} : RegOpenKeyExW(parent, path.c_str(), 0, access, &key);
    if (status == ERROR_FILE_NOT_FOUND) {
        throw Exception::NotFoundException(
            fmt::format("Cannot open non-existent registry key {}.", FullName(parent, path)));
    }
    if (status != ERROR_SUCCESS) {
        throw Exception::Win32Exception(fmt::format("Failed to open key {}", FullName(parent, path)),
                                        static_cast<std::uint32_t>(status));
    }
    return key;
}

std::wstring_view SuperkeyName(HKEY key) noexcept {
    const std::pair<HKEY, std::wstring_view> names[] = {
        {HKEY_CLASSES_ROOT, L"HKEY_CLASSES_ROOT"},     {HKEY_CURRENT_USER, L"HKEY_CURRENT_USER"},
        {HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE"},   {HKEY_USERS, L"HKEY_USERS"},
        {HKEY_CURRENT_CONFIG, L"HKEY_CURRENT_CONFIG"},
    };
    for (const auto& [root, name] : names) {
        if (key == root) {
            return name;
        }
    }
    return L"(unknown superkey)";
}

std::wstring RegGetDefault(HKEY key) {
    if (key == nullptr) {
        throw Exception::InvalidArgumentException("key cannot be null");
    }
    const auto size = TextSize(key, nullptr, nullptr, RRF_RT_REG_SZ);
    if (!size || *size == 0) {
        return L"(value not set)";
    }
    auto text = ReadText(key, nullptr, nullptr, RRF_RT_REG_SZ, *size);
    if (!text) {
        ThrowRegError(text.error(), L"Cannot read default string from registry", key, L"", L"(default)");
    }
    // The call adds a terminator where the value lacks one, but not every system counts an added one.
    if (text->ends_with(L'\0')) {
        text->pop_back();
    }
    return *std::move(text);
}

std::wstring RegGetString(HKEY root, std::wstring_view subkey, std::wstring_view name) {
    std::wstring text = ReadValue(root, subkey, name, RRF_RT_REG_SZ, L"Cannot read string from registry",
                                  std::source_location::current());
    text.resize(std::min(text.find(L'\0'), text.size()));
    return text;
}

std::vector<std::wstring> RegGetMultiString(HKEY root, std::wstring_view subkey, std::wstring_view name) {
    const std::wstring text = ReadValue(root, subkey, name, RRF_RT_REG_MULTI_SZ, L"Cannot read MULTI_SZ from registry",
                                        std::source_location::current());
    std::vector<std::wstring> strings;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find(L'\0', start), text.size());
        strings.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return strings;
}

void ThrowRegError(std::uint32_t code, std::wstring_view message, HKEY key, std::wstring_view subkey,
                   std::wstring_view name, const std::source_location& location) {
    throw RegistryException(
        fmt::format("{}; key: {:#X}; subkey: {}; value name: {}", Util::ToUtf8Lossy(message),
                    reinterpret_cast<std::uintptr_t>(key), Util::ToUtf8Lossy(subkey), Util::ToUtf8Lossy(name)),
        code, location);
}

}  // namespace Shared::Registry
