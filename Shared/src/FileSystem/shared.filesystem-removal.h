#pragma once

#include <windows.h>

#include <filesystem>
#include <memory>
#include <string>

#include "shared.util-win32result.h"

namespace Shared::FileSystem {

/// Removes what exists at the path: a file, an empty folder, or a link (never its target); a read-only one where the
/// file system supports that (NTFS). Waits up to a second while another process holds it. Succeeds also when there is
/// nothing; ERROR_DIR_NOT_EMPTY for a folder with contents. Throws Win32Exception when the path cannot be made
/// absolute.
[[nodiscard]] Util::Win32Result<void> RemoveName(const std::filesystem::path& path);

/// As RemoveName; throws std::filesystem::filesystem_error of the operation "remove".
void RemoveOrThrow(const std::filesystem::path& path);

/// Holds at most one temporary file or folder and removes it when it is cleared or destroyed.
class FileObjectRemover {
public:
    FileObjectRemover() = default;
    /// Throws Win32Exception when the path cannot be made absolute.
    explicit FileObjectRemover(std::filesystem::path path);
    FileObjectRemover(FileObjectRemover&& other) noexcept = default;
    FileObjectRemover& operator=(FileObjectRemover&& other) noexcept;
    ~FileObjectRemover();

    /// Removes the held path, a folder with its contents, and forgets it in every case. A failure is logged as a
    /// warning, never thrown. Links inside a folder are removed and not followed, also those that another process
    /// creates while the folder is removed.
    void Clear() noexcept;

    /// Forgets the held path without removing it.
    void Release() noexcept { target_.reset(); }

private:
    struct Target {
        std::filesystem::path path;
        /// The path in its native form: removal neither converts nor allocates, but for the names in a folder.
        std::wstring name;
    };
    std::unique_ptr<Target> target_;
};

}  // namespace Shared::FileSystem
