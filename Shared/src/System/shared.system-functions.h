#pragma once

#include <filesystem>

namespace Shared::System {

/// The ProgramData folder. Throws ComException "SHGetKnownFolderPath() failed".
[[nodiscard]] std::filesystem::path GetProgramDataPath();

/// The Windows directory, without a trailing backslash (unless it is a drive's root). Throws Win32Exception
/// "GetWindowsDirectoryW() failed".
[[nodiscard]] std::filesystem::path GetWindowsPath();

/// The folder that holds all user profiles. Throws RuntimeException "TryGetUserProfilesDirectory() failed.".
[[nodiscard]] std::filesystem::path GetUserProfilesDirectory();

}  // namespace Shared::System
