#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Shared::FileSystem {

/// The absolute form of a path behind the long-path prefix ("\\?\C:\..." or "\\?\UNC\server\share\..."), which lifts
/// the limit of 260 characters and takes names verbatim. A path that already has the prefix comes back unchanged.
/// Throws Win32Exception when the path cannot be made absolute.
[[nodiscard]] std::filesystem::path LongForm(const std::filesystem::path& path);

/// The name below the folder, joined as text: to the path class a name that holds a colon would be a path of its own.
[[nodiscard]] std::wstring NameBelow(std::wstring folder, std::wstring_view name);

}  // namespace Shared::FileSystem
