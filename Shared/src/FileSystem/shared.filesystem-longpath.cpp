#include "shared.filesystem-longpath.h"

#include <windows.h>

#include "shared.exception-text.h"
#include "shared.exception.h"

namespace Shared::FileSystem {

namespace {

constexpr std::wstring_view longPrefix = LR"(\\?\)";
constexpr std::wstring_view devicePrefix = LR"(\\.\)";
constexpr std::wstring_view networkPrefix = LR"(\\)";

std::wstring Normal(const std::filesystem::path& path) {
    return path.lexically_normal().make_preferred().native();
}

}  // namespace

bool IsAbsolute(const std::filesystem::path& path) {
    const std::wstring text = std::filesystem::path(path).make_preferred().native();
    return path.is_absolute() || text.starts_with(networkPrefix);
}

std::filesystem::path FullPath(const std::filesystem::path& path) {
    if (path.native().starts_with(longPrefix)) {
        return path;
    }
    std::wstring full = Exception::TextOfAnyLength(
        [&path](wchar_t* buffer, DWORD size) { return GetFullPathNameW(path.c_str(), size, buffer, nullptr); });
    if (full.empty()) {
        throw Exception::Win32Exception("GetFullPathNameW() failed", GetLastError());
    }
    return full;
}

std::filesystem::path LongForm(const std::filesystem::path& path) {
    const std::wstring text = std::filesystem::path(path).make_preferred().native();
    if (text.starts_with(longPrefix) || text.starts_with(devicePrefix)) {
        return text;
    }
    // GetFullPathNameW would drop trailing dots and blanks, which are legal in names that other programs made, and
    // turn device names into devices: in an absolute path only "." and ".." are resolved.
    if (text.starts_with(networkPrefix)) {
        return std::wstring(LR"(\\?\UNC\)") + Normal(text.substr(networkPrefix.size()));
    }
    if (path.is_absolute()) {
        return std::wstring(longPrefix) + Normal(path);
    }
    return LongForm(FullPath(path));
}

std::wstring NativeForm(const std::filesystem::path& path) {
    std::wstring native = LongForm(path).native();
    return native.replace(0, longPrefix.size(), LR"(\??\)");
}

std::wstring NameBelow(std::wstring folder, std::wstring_view name) {
    if (!folder.ends_with(L'\\')) {
        folder += L'\\';
    }
    return folder.append(name);
}

}  // namespace Shared::FileSystem
