#pragma once

#include <windows.h>

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

#include "shared.filesystem-scan.h"
#include "shared.filesystem-status.h"
#include "shared.util-handle.h"

namespace Shared::FileSystem {

/// What exists under a name in a confined folder. While the object exists, no process can rename, delete or replace
/// the file or folder that it holds open: a read at `path` reads the very file that was checked. Other processes may go
/// on writing it.
struct ConfinedFile {
    FileStatus status;
    /// The path below the resolved folder, for Regular and Directory.
    std::filesystem::path path;
    Util::FileHandle handle;
};

/// Why something that exists cannot be opened, and what it is.
struct RefusedOpen {
    FileKind kind;
    DWORD code;
};

/// A folder to which unprivileged users can write, such as a user's profile or ProgramData: nothing that is opened in
/// it lies outside of it. The folder itself may be reached through links.
class ConfinedFolder {
public:
    /// A missing folder is an empty one. Throws std::filesystem::filesystem_error of the operation "exists" when the
    /// folder cannot be resolved.
    explicit ConfinedFolder(const std::filesystem::path& folder);

    /// What exists under a name, without opening its content: NotFound, Regular, Directory, Other, or OutsideFolder for
    /// what is reached through a link. Throws as Open does.
    [[nodiscard]] FileKind KindOf(std::wstring_view name) const;

    /// Opens the file or folder of that name: components below the folder, joined by single backslashes. The kind is
    /// OutsideFolder for what is reached through a link, or has a hard link outside of the folder or at an unknown
    /// place. Waits for files that other processes hold as long as SharedWait allows. Throws
    /// std::filesystem::filesystem_error of the operation "exists" when it cannot be told what exists.
    [[nodiscard]] std::expected<ConfinedFile, RefusedOpen> Open(std::wstring_view name) const;

    /// The path relative to the folder as it was given to the constructor: the name that Open takes.
    [[nodiscard]] std::wstring NameOf(const std::filesystem::path& path) const;

    /// Lists a folder below this one through a checked handle; `path` begins with the folder as it was given to the
    /// constructor, and so do the paths of the entries. Throws std::filesystem::filesystem_error of the operation
    /// "directory_iterator::directory_iterator" when there is no such folder, or it is refused.
    [[nodiscard]] DirectoryListing List(const std::filesystem::path& path) const;

private:
    [[nodiscard]] FileStatus Judge(HANDLE file, std::wstring_view expectedPath) const;
    [[nodiscard]] bool HasAllLinksBelow(HANDLE file) const;

    std::filesystem::path given_;
    std::wstring root_;
    DWORD volumeNameForm_ = VOLUME_NAME_DOS;
};

}  // namespace Shared::FileSystem
