#pragma once

#include <filesystem>
#include <functional>

namespace Shared::System {

/// The ProgramData folder. Throws ComException "SHGetKnownFolderPath() failed".
[[nodiscard]] std::filesystem::path GetProgramDataPath();

/// The Windows directory, without a trailing backslash (unless it is a drive's root). Throws Win32Exception
/// "GetWindowsDirectoryW() failed".
[[nodiscard]] std::filesystem::path GetWindowsPath();

/// The folder that holds all user profiles. Throws RuntimeException "TryGetUserProfilesDirectory() failed.".
[[nodiscard]] std::filesystem::path GetUserProfilesDirectory();

/// Visits the users' profile folders: every subfolder of `profilesDirectory`, in directory order, but for "Public",
/// "Default", "All Users" and "Default User" (exact spelling). A subfolder that is a link counts: administrators move
/// profiles. Throws std::filesystem::filesystem_error when the directory cannot be listed, or not to the end; the
/// folders before that have been visited then.
void ForEachUserProfile(const std::filesystem::path& profilesDirectory,
                        const std::function<void(const std::filesystem::path&)>& visit);

}  // namespace Shared::System
