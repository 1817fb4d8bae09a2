#pragma once

#include <windows.h>

#include <filesystem>

namespace Shared::FileSystem {

/// Removes what bears the name: a file, an empty folder, or a link (never what a link points to). Returns
/// ERROR_SUCCESS also when there was nothing, else the Win32 code; ERROR_DIR_NOT_EMPTY for a folder with contents.
[[nodiscard]] DWORD RemoveName(const std::filesystem::path& path) noexcept;

/// Holds at most one temporary file or folder and removes it when it is cleared or destroyed.
class FileObjectRemover {
public:
    FileObjectRemover() = default;
    explicit FileObjectRemover(std::filesystem::path path) noexcept;
    FileObjectRemover(const FileObjectRemover&) = delete;
    FileObjectRemover& operator=(const FileObjectRemover&) = delete;
    FileObjectRemover(FileObjectRemover&& other) noexcept;
    FileObjectRemover& operator=(FileObjectRemover&& other) noexcept;
    ~FileObjectRemover();

    /// Removes the held path, a folder with its contents, and forgets it in every case. A failure is logged as a
    /// warning, never thrown. Links inside a folder are removed, not followed, also those that somebody puts there
    /// meanwhile.
    void Clear() noexcept;

private:
    std::filesystem::path path_;
};

}  // namespace Shared::FileSystem
