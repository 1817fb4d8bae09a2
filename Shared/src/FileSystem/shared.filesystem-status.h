#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileSystem {

enum class FileKind : std::uint8_t { NotFound, Regular, Directory, Other };

/// What one look at an open file or folder gives.
struct FileFacts {
    /// Other for what is not on a disk, of which nothing else is known.
    FileKind kind = FileKind::Other;
    bool isReparsePoint = false;
    /// Whether it is a symbolic link, a junction or a mount point; also true when that cannot be told.
    bool isLink = false;
    /// Whether reading it would fetch its content from elsewhere: offline storage or a cloud.
    bool isStoredElsewhere = false;
    /// In bytes; 0 for a folder.
    std::uint64_t size = 0;
    /// The number of hard links, 1 for a file with one name.
    std::uint32_t links = 0;
    /// When it was last written, in 100 ns since 1601 in UTC.
    std::uint64_t lastWrite = 0;
};

/// The facts of an open file or folder, or the code of the query that failed. FAT and exFAT fail the query for the
/// reparse tag, so it is asked for only where the attributes have the reparse bit.
[[nodiscard]] Util::Win32Result<FileFacts> FactsOf(HANDLE file) noexcept;

/// As FactsOf; fails with ERROR_CANT_RESOLVE_FILENAME for a link, and with ERROR_TOO_MANY_LINKS for a file with further
/// hard links: what is written to it, or read from it, would be another file's.
[[nodiscard]] Util::Win32Result<FileFacts> FactsOfOnlyName(HANDLE file) noexcept;

/// The facts of what exists at a path of any length, links followed; the kind is NotFound when nothing does. Throws
/// std::filesystem::filesystem_error of the operation on any other failure.
[[nodiscard]] FileFacts QueryStatus(const std::filesystem::path& path, const char* operation);

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

/// Succeeds for a file on a disk; fails as FactsOfOnlyName does, with ERROR_DIRECTORY for a folder, and with
/// ERROR_BAD_FILE_TYPE for what is not on a disk.
[[nodiscard]] Util::Win32Result<void> CheckPlainFile(HANDLE file) noexcept;

/// Whether two paths lead to one file, decided by their final paths: not every file system has file ids. False when
/// one of them cannot be opened or has no final path.
[[nodiscard]] bool IsSameFile(const std::filesystem::path& left, const std::filesystem::path& right);

/// The path of an open file with all links resolved, as a `\\?\` path.
[[nodiscard]] Util::Win32Result<std::wstring> FinalPath(HANDLE file);

/// Whether two names are one to the file system: equal without regard to case.
[[nodiscard]] bool IsSameName(std::wstring_view left, std::wstring_view right) noexcept;

/// Throws std::filesystem::filesystem_error of the operation, the path and the system's text for the Win32 code.
[[noreturn]] void ThrowFileSystemError(const char* operation, const std::filesystem::path& path, DWORD code);

/// As above, of an operation on two paths.
[[noreturn]] void ThrowFileSystemError(const std::string& operation, const std::filesystem::path& from,
                                       const std::filesystem::path& to, DWORD code);

}  // namespace Shared::FileSystem
