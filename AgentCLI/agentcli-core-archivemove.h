#pragma once

#include <filesystem>
#include <string_view>

#include "shared.filezip-ziparchivewrapper.h"

namespace AgentCLI::Core::Commands::Agent {

/// The absolute path that "--path" means, as GetFullPathNameW makes it. Throws RuntimeException when it is the path of
/// a device ("NUL"), and Win32Exception when it cannot be made absolute.
[[nodiscard]] std::filesystem::path DestinationPath(std::string_view given);

/// Copies the archive to the absolute path, where it is open from then on, and removes the file that it was built in.
/// An existing file is removed first, so that the archive has the rights that the folder passes on; a folder is not.
/// While the console is being closed, the copy is given up, and the archive stays where it was built.
///
/// Throws std::filesystem::filesystem_error: "copy_file" with both paths, when the file stays where it was built;
/// "remove" when that file cannot be removed after the copy.
void MoveArchive(Shared::FileZip::ZipArchiveWrapper& zip, const std::filesystem::path& destination);

}  // namespace AgentCLI::Core::Commands::Agent
