#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

// What this program creates is for its administrator: files and folders get a protected access list that gives full
// access to SYSTEM, the Administrators, the running user and the owner, and none to other accounts.
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

/// Creates a file whose name no other file has: `start` followed by a process id, a time and a number.
[[nodiscard]] Util::Win32Result<NamedFile> CreateUniqueFile(const std::filesystem::path& start, DWORD access,
                                                            DWORD sharing);

}  // namespace Shared::FileSystem
