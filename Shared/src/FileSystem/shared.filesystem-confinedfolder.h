#pragma once

#include <windows.h>

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

#include "shared.filesystem-status.h"
#include "shared.util-handle.h"

namespace Shared::FileSystem {

/// What was found under a name in a confined folder. While the object lives, nobody can rename, delete or replace what
/// it holds: a read under `path` meets the very file that was checked. Others may go on writing it.
struct ConfinedFile {
    /// Kind Foreign for what must not be taken from here: it is reached through a link, or it has further names (hard
    /// links) outside of the folder or of unknown place.
    FileStatus status;
    /// The name below the resolved folder, for Regular and Directory.
    std::filesystem::path path;
    Util::FileHandle handle;
};

/// A folder in which somebody without this program's rights can put what he likes, a user's profile above all: nothing
/// that is opened in it leads out of it. The folder itself may be reached through links.
class ConfinedFolder {
public:
    /// A missing folder is an empty one. Throws std::filesystem::filesystem_error of the operation "exists" when the
    /// folder cannot be resolved.
    explicit ConfinedFolder(const std::filesystem::path& folder);

    /// Opens what has the name: components below the folder, joined by single backslashes. Returns the Win32 code when
    /// it is there and cannot be read (locked, no access). Throws std::filesystem::filesystem_error of the operation
    /// "exists" when it cannot be told what is there.
    [[nodiscard]] std::expected<ConfinedFile, DWORD> Open(std::wstring_view name) const;

private:
    [[nodiscard]] FileKind LookAlong(std::wstring_view name) const;
    [[nodiscard]] bool HasAllNamesBelow(HANDLE file) const;

    std::wstring root_;
    DWORD volumeNameForm_ = 0;
};

}  // namespace Shared::FileSystem
