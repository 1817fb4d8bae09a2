#include "shared.registry-functions.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "shared.util-functions.h"

namespace Shared::Registry {

namespace {

std::string FullName(HKEY parent, std::wstring_view path) {
    return fmt::format("{}\\{}", Util::ToUtf8Lossy(SuperkeyName(parent)), Util::ToUtf8Lossy(path));
}

// A registry call for a text value.
RegistryQuery TextQuery(HKEY root, const wchar_t* subkey, const wchar_t* name, DWORD restriction) {
    return
        [=](void* buffer, DWORD* size) { return RegGetValueW(root, subkey, name, restriction, nullptr, buffer, size); };
}

std::vector<std::byte> ReadText(HKEY root, std::wstring_view subkey, std::wstring_view name, DWORD restriction,
                                std::wstring_view failure, const std::source_location& location) {
    if (root == nullptr) {
        throw Exception::InvalidArgumentException("key cannot be null", location);
    }
    const std::wstring path(subkey);
    const std::wstring value(name);
    auto data = ReadGrowing(TextQuery(root, path.c_str(), value.c_str(), restriction));
    if (!data) {
        ThrowRegError(data.error(), failure, root, subkey, name, location);
    }
    return *std::move(data);
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
    const RegistryQuery query = TextQuery(key, nullptr, nullptr, RRF_RT_REG_SZ);
    if (DWORD size = 0; query(nullptr, &size) != ERROR_SUCCESS || size == 0) {
        return L"(value not set)";
    }
    const auto data = ReadGrowing(query);
    if (!data) {
        ThrowRegError(data.error(), L"Cannot read default string from registry", key, L"", L"(default)");
    }
    std::wstring text(data->size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data->data(), text.size() * sizeof(wchar_t));
    // The call adds a terminator where the value lacks one, but not every system counts an added one.
    if (text.ends_with(L'\0')) {
        text.pop_back();
    }
    return text;
}

std::wstring RegGetString(HKEY root, std::wstring_view subkey, std::wstring_view name) {
    return FirstText(ReadText(root, subkey, name, RRF_RT_REG_SZ, L"Cannot read string from registry",
                              std::source_location::current()));
}

std::vector<std::wstring> RegGetMultiString(HKEY root, std::wstring_view subkey, std::wstring_view name) {
    return Texts(ReadText(root, subkey, name, RRF_RT_REG_MULTI_SZ, L"Cannot read MULTI_SZ from registry",
                          std::source_location::current()));
}

Util::Win32Result<std::vector<std::byte>> ReadGrowing(const RegistryQuery& query) {
    constexpr int maxAttempts = 16;
    DWORD size = 0;
    LSTATUS status = query(nullptr, &size);
    for (int attempt = 0; attempt < maxAttempts && (status == ERROR_SUCCESS || status == ERROR_MORE_DATA); ++attempt) {
        // The spare bytes are for an odd byte and the terminators that the call adds to a text without them. They also
        // keep the buffer from being empty, which would turn the call into another query for the size.
        std::vector<std::byte> data(std::size_t{size} + 8);
        const DWORD asked = size;
        size = static_cast<DWORD>(data.size());
        status = query(data.data(), &size);
        if (status == ERROR_SUCCESS) {
            data.resize(std::min<std::size_t>(size, data.size()));
            return data;
        }
        size = std::max(size, asked * 2);
    }
    return std::unexpected(static_cast<DWORD>(status));
}

std::wstring FirstText(std::span<const std::byte> data) {
    std::wstring text;
    for (wchar_t unit = 0; data.size() >= sizeof unit; data = data.subspan(sizeof unit)) {
        std::memcpy(&unit, data.data(), sizeof unit);
        if (unit == 0) {
            break;
        }
        text += unit;
    }
    return text;
}

std::vector<std::wstring> Texts(std::span<const std::byte> data) {
    std::vector<std::wstring> texts;
    while (data.size() >= sizeof(wchar_t)) {
        const std::wstring& text = texts.emplace_back(FirstText(data));
        data = data.subspan(std::min(data.size(), (text.size() + 1) * sizeof(wchar_t)));
    }
    return texts;
}

std::uint32_t Number(std::span<const std::byte> data) noexcept {
    std::uint32_t number = 0;
    std::memcpy(&number, data.data(), std::min(sizeof number, data.size()));
    return number;
}

void ThrowRegError(std::uint32_t code, std::wstring_view message, HKEY key, std::wstring_view subkey,
                   std::wstring_view name, const std::source_location& location) {
    throw RegistryException(
        fmt::format("{}; key: {:#X}; subkey: {}; value name: {}", Util::ToUtf8Lossy(message),
                    reinterpret_cast<std::uintptr_t>(key), Util::ToUtf8Lossy(subkey), Util::ToUtf8Lossy(name)),
        code, location);
}

}  // namespace Shared::Registry
