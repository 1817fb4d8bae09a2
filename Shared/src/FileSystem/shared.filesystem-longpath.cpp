#include "shared.filesystem-longpath.h"

#include <windows.h>

#include "shared.exception.h"

namespace Shared::FileSystem {

namespace {

constexpr std::wstring_view prefix = LR"(\\?\)";
constexpr std::wstring_view devicePrefix = LR"(\\.\)";

std::wstring FullPath(const std::wstring& path) {
    std::wstring full(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
        if (length == 0) {
            throw Exception::Win32Exception("GetFullPathNameW() failed", GetLastError());
        }
        const bool fits = length < full.size();
        full.resize(length);
        if (fits) {
            return full;
        }
    }
}

}  // namespace

std::filesystem::path LongForm(const std::filesystem::path& path) {
    const std::wstring& text = path.native();
    if (text.starts_with(prefix) || text.starts_with(devicePrefix)) {
        return path;
    }
    // GetFullPathNameW would drop trailing dots and blanks, which are legal in names that other programs made, and
    // turn device names into devices: an absolute path is only freed of its "." and "..".
    const std::wstring full = path.is_absolute() ? path.lexically_normal().make_preferred().native() : FullPath(text);
    if (full.starts_with(LR"(\\)")) {
        return std::wstring(LR"(\\?\UNC)") + full.substr(1);
    }
    return std::wstring(prefix) + full;
}

std::wstring NameBelow(std::wstring folder, std::wstring_view name) {
    if (!folder.ends_with(L'\\')) {
        folder += L'\\';
    }
    return folder.append(name);
}

}  // namespace Shared::FileSystem
