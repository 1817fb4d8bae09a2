#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileSystem {

enum class FileKind : std::uint8_t {
    NotFound,
    Regular,
    Directory,
    OutsideFolder,  ///< of ConfinedFolder only: reached through a link, or a file with a hard link elsewhere
    NotStoredHere,  ///< of ConfinedFolder only: a file whose content is offline or in the cloud
    Other
};

struct FileStatus {
    FileKind kind = FileKind::NotFound;
    /// In bytes; 0 for what is not a regular file.
    std::uint64_t size = 0;
};

/// What exists at a path of any length, links followed. Throws std::filesystem::filesystem_error, which names the
/// operation, on any failure but "not found".
[[nodiscard]] FileStatus QueryStatus(const std::filesystem::path& path, const char* operation);

/// What one look at an open file or folder gives.
struct FileFacts {
    /// Regular, Directory, or Other for what is not on a disk; of the latter nothing else is known.
    FileKind kind = FileKind::Other;
    /// Whether it is a symbolic link, a junction or a mount point; also true when that cannot be told.
    bool isLink = false;
    /// Whether reading it would fetch its content from elsewhere: offline storage or a cloud.
    bool isStoredElsewhere = false;
    /// In bytes; 0 for a folder.
    std::uint64_t size = 0;
    /// The number of hard links, 1 for a file with one name.
    std::uint32_t links = 0;
};

/// The facts of an open file or folder, or the code of the query that failed. FAT and exFAT fail the query for the
/// reparse tag, so it is asked for only where the attributes have the reparse bit.
[[nodiscard]] Util::Win32Result<FileFacts> FactsOf(HANDLE file) noexcept;

/// A file or folder that is held open, with the path at which it was opened.
struct OpenedFile {
    std::filesystem::path path;
    Util::FileHandle handle;
    FileFacts facts;
};

/// Whether the Win32 code says that nothing exists at the path.
[[nodiscard]] bool IsNotFound(DWORD code) noexcept;

/// Whether an entry is a symbolic link, a junction or a mount point. Deduplicated, compressed and cloud files are
/// reparse points as well, but ordinary files.
[[nodiscard]] bool IsLink(DWORD attributes, DWORD reparseTag) noexcept;

/// Whether reading a file with these attributes would fetch its content from elsewhere: offline storage or a cloud.
[[nodiscard]] bool IsStoredElsewhere(DWORD attributes) noexcept;

/// Succeeds for a file on a disk that is no link and has no further hard links, so that what is written to it, or read
/// from it, is that file alone. Otherwise ERROR_CANT_RESOLVE_FILENAME (link), ERROR_DIRECTORY, ERROR_TOO_MANY_LINKS
/// (hard links), ERROR_BAD_FILE_TYPE (not on a disk), or the code of the query that failed.
[[nodiscard]] Util::Win32Result<void> CheckPlainFile(HANDLE file) noexcept;

/// The size of an open file in bytes; 0 when the query fails.
[[nodiscard]] std::uint64_t SizeOf(HANDLE file) noexcept;

/// Whether two paths lead to one file, decided by their final paths: not every file system has file ids. False when
/// one of them cannot be opened.
[[nodiscard]] bool IsSameFile(const std::filesystem::path& left, const std::filesystem::path& right);

/// The path of an open file with all links resolved, as a `\\?\` path. `volumeNameForm` is VOLUME_NAME_DOS or
/// VOLUME_NAME_GUID.
[[nodiscard]] Util::Win32Result<std::wstring> FinalPath(HANDLE file, DWORD volumeNameForm = VOLUME_NAME_DOS);

/// Whether two names are one to the file system: equal without regard to case.
[[nodiscard]] bool IsSameName(std::wstring_view left, std::wstring_view right) noexcept;

/// Throws std::filesystem::filesystem_error of the operation, the path and the system's text for the Win32 code.
[[noreturn]] void ThrowFileSystemError(const char* operation, const std::filesystem::path& path, DWORD code);

/// As above, of an operation on two paths.
[[noreturn]] void ThrowFileSystemError(const std::string& operation, const std::filesystem::path& from,
                                       const std::filesystem::path& to, DWORD code);

}  // namespace Shared::FileSystem
