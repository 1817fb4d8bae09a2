#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Shared::FileSystem {

/// Whether a path is the same wherever the current directory is: one with a drive and a root, or a network, `\\?\` or
/// `\\.\` path. (The standard library here takes network paths for relative.)
[[nodiscard]] bool IsAbsolute(const std::filesystem::path& path);

/// The path as GetFullPathNameW makes it absolute: `.` and `..` resolved, slashes turned, trailing dots and blanks of
/// the last name dropped, device names ("NUL") as `\\.\` paths. A `\\?\` path comes back unchanged. Throws
/// Win32Exception.
[[nodiscard]] std::filesystem::path FullPath(const std::filesystem::path& path);

/// The absolute form of a path with the long-path prefix (`\\?\C:\...` or `\\?\UNC\server\share\...`), which lifts
/// the limit of 260 characters and takes names as they are. A `\\?\` or `\\.\` path comes back unchanged. Throws
/// Win32Exception when the path cannot be made absolute.
[[nodiscard]] std::filesystem::path LongForm(const std::filesystem::path& path);

/// The path as the native interface takes it: LongForm with the prefix `\??\`.
[[nodiscard]] std::wstring NativeForm(const std::filesystem::path& path);

/// The name below the folder, joined as text: the path class takes a name that holds a colon for an absolute path.
[[nodiscard]] std::wstring NameBelow(std::wstring folder, std::wstring_view name);

}  // namespace Shared::FileSystem
