#pragma once

#include <filesystem>
#include <string_view>

#include "shared.filezip-ziparchivewrapper.h"

namespace AgentCLI::Core::Commands::Agent {

/// The absolute path that "--path" means, as GetFullPathNameW makes it. Throws RuntimeException when it is the path of
/// a device ("NUL"), and Win32Exception when it cannot be made absolute.
[[nodiscard]] std::filesystem::path DestinationPath(std::string_view given);

/// Closes the archive, moves its file to the absolute path and opens it there. An existing file is removed first, so
/// that the archive has the rights that the folder passes on. When another process holds the archive there, it stays
/// closed, and the log says so. A copy during which the console is closed is given up, and the archive stays where it
/// was built, closed.
///
/// Throws std::filesystem::filesystem_error: "copy_file" with both paths, when the file stays where it was built;
/// "remove" when that file cannot be removed after the copy. Throws what ZipArchiveWrapper::Open throws.
void MoveArchive(Shared::FileZip::ZipArchiveWrapper& zip, const std::filesystem::path& destination);

}  // namespace AgentCLI::Core::Commands::Agent
