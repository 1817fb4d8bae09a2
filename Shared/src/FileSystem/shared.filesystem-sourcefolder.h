#pragma once

#include <windows.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "shared.filesystem-scan.h"
#include "shared.filesystem-status.h"
#include "shared.util-win32result.h"

namespace Shared::FileSystem {

/// A file or folder of a source folder. While the object exists, and `error` is ERROR_SUCCESS, no process can rename,
/// delete or replace it: a read at `opened.path` reads what was checked. Other processes may go on writing it.
struct SourceFile {
    OpenedFile opened;
    /// Why the content cannot be read, when it is open for its attributes alone.
    DWORD error = ERROR_SUCCESS;
};

/// A folder whose files are collected.
class SourceFolder {
public:
    /// A folder to which only administrators can write: links are followed.
    [[nodiscard]] static SourceFolder Trusted(std::filesystem::path folder);

    /// A folder below `root`, such as a user's profile or ProgramData, to which unprivileged users can write: nothing
    /// that is opened lies outside of the root, which itself may be reached through links. A missing root is an empty
    /// one. Throws std::filesystem::filesystem_error of the operation "exists" when the root cannot be resolved.
    [[nodiscard]] static SourceFolder Confined(std::filesystem::path root, std::filesystem::path folder);

    [[nodiscard]] const std::filesystem::path& Path() const noexcept { return folder_; }
    [[nodiscard]] bool IsConfined() const noexcept { return root_.has_value(); }

    /// Opens the file or folder at the path, which begins with the source folder's, for reading. Waits for files that
    /// other processes hold as long as SharedWait allows. What cannot be read is opened for its attributes. When
    /// nothing exists there, fails with a code for which IsNotFound is true; in a confined folder also with
    /// ERROR_CANT_RESOLVE_FILENAME for what is reached through a link, ERROR_TOO_MANY_LINKS for a file with further
    /// hard links, and ERROR_FILE_OFFLINE for content that is stored elsewhere.
    [[nodiscard]] Util::Win32Result<SourceFile> Open(const std::filesystem::path& path) const;

private:
    struct Root {
        std::filesystem::path given;
        /// The `\\?\` path with all links resolved; empty when it does not exist.
        std::wstring path;
    };

    explicit SourceFolder(std::filesystem::path folder, std::optional<Root> root = std::nullopt);
    [[nodiscard]] Util::Win32Result<std::filesystem::path> Resolve(const std::filesystem::path& path) const;
    [[nodiscard]] Util::Win32Result<FileFacts> Judge(HANDLE file, const std::filesystem::path& resolved) const;

    std::filesystem::path folder_;
    std::optional<Root> root_;
};

/// Lists the folder that Open has found at the path; ERROR_DIRECTORY when it is a file.
[[nodiscard]] Util::Win32Result<DirectoryListing> ListingOf(const std::filesystem::path& path,
                                                            Util::Win32Result<SourceFile> found);

/// As ListingOf; throws std::filesystem::filesystem_error of the operation "directory_iterator::directory_iterator".
[[nodiscard]] DirectoryListing ListOrThrow(const std::filesystem::path& path, Util::Win32Result<SourceFile> found);

/// Says whether a provider's folder is trusted. A provider is a function that returns a path, or a path as a wide
/// FixedString. There is no default: each provider's header specialises it, by deriving from TrustedFolder or from a
/// structure whose `Source` confines the folder.
template <auto provider>
struct TrustOf;
struct TrustedFolder {
    [[nodiscard]] static SourceFolder Source(std::filesystem::path folder) {
        return SourceFolder::Trusted(std::move(folder));
    }
};

}  // namespace Shared::FileSystem
