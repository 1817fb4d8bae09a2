#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>

namespace Shared::FileSystem {

enum class FileKind : std::uint8_t {
    NotFound,
    Regular,
    Directory,
    Foreign,  ///< of ConfinedFolder only: reached through a link, or a file that other places hold as well
    Other
};

struct FileStatus {
    FileKind kind = FileKind::NotFound;
    /// In bytes; 0 for what is not a regular file.
    std::uint64_t size = 0;
};

/// What a path of any length leads to, links followed. Throws std::filesystem::filesystem_error, which names the
/// operation, on any failure but "not found".
[[nodiscard]] FileStatus QueryStatus(const std::filesystem::path& path, const char* operation);

/// Whether the Win32 code says that there is nothing under the name.
[[nodiscard]] bool IsNotFound(DWORD code) noexcept;

/// Whether an entry stands for another place in the name space: a symbolic link, a junction, a mounted volume.
/// Deduplicated, compressed and cloud-backed files are reparse points as well, and are ordinary files.
[[nodiscard]] bool IsLink(DWORD attributes, DWORD reparseTag) noexcept;

/// Why an open file may be another one than its name says, so that writing to it or passing it on as ours must not be:
/// ERROR_CANT_RESOLVE_FILENAME of a link, ERROR_DIRECTORY, ERROR_TOO_MANY_LINKS of a file with further names,
/// ERROR_BAD_FILE_TYPE of what is on no disk, or why it cannot be told. ERROR_SUCCESS of a plain file. Judged by the
/// handle, so that no name can be swapped meanwhile.
[[nodiscard]] DWORD ObjectionTo(HANDLE file) noexcept;

/// Whether to write under the name would write elsewhere as well: it is a link, or one of several names of a file.
/// False when nothing has the name, or nobody can tell.
[[nodiscard]] bool LeadsElsewhere(const std::filesystem::path& path);

/// Throws std::filesystem::filesystem_error of the operation, the path and the system's text for the Win32 code.
[[noreturn]] void ThrowFileSystemError(const char* operation, const std::filesystem::path& path, DWORD code);

}  // namespace Shared::FileSystem
