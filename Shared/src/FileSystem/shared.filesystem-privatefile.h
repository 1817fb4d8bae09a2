#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

// Files and folders that this program creates get a protected access list: full access for SYSTEM, the Administrators,
// the running user and the owner, none for other accounts.
namespace Shared::FileSystem {

/// Creates a file; ERROR_FILE_EXISTS when anything exists at the path, a link included.
[[nodiscard]] Util::Win32Result<Util::FileHandle> CreatePrivateFile(const std::filesystem::path& path, DWORD access,
                                                                    DWORD sharing);

/// Creates a folder, whose contents inherit the access list; ERROR_ALREADY_EXISTS when anything exists at the path.
[[nodiscard]] Util::Win32Result<void> CreatePrivateFolder(const std::filesystem::path& path);

/// What the entries of the access list pass on to the files that are created in a folder.
enum class Inheritance : std::uint8_t { None, Contents };

/// A security descriptor with that access list, released with the returned memory.
[[nodiscard]] Util::Win32Result<Util::LocalMemory> PrivateDescriptor(Inheritance inheritance = Inheritance::None);

struct NamedFile {
    std::filesystem::path path;
    Util::FileHandle handle;
};

/// Create a file, or a folder, at a path at which nothing exists: `start` followed by a process id, a time and a
/// number.
[[nodiscard]] Util::Win32Result<NamedFile> CreateUniqueFile(const std::filesystem::path& start, DWORD access,
                                                            DWORD sharing);
[[nodiscard]] Util::Win32Result<std::filesystem::path> CreateUniqueFolder(const std::filesystem::path& start);

}  // namespace Shared::FileSystem
