#pragma once

#include <filesystem>
#include <vector>

namespace Shared::System {

/// The users' profile folders: every subfolder of `profilesDirectory`, in directory order, but for "Public", "Default",
/// "All Users" and "Default User" (exact spelling). A subfolder that is a link counts: administrators move profiles.
/// Throws std::filesystem::filesystem_error when the directory cannot be listed.
[[nodiscard]] std::vector<std::filesystem::path> ListUserProfiles(const std::filesystem::path& profilesDirectory);

}  // namespace Shared::System
