#pragma once

#include <windows.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string_view>
#include <vector>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileSystem {

/// Reads the entries of an open folder, without "." and "..", in the order of the file system.
class FolderReader {
public:
    explicit FolderReader(HANDLE folder) noexcept : folder_(folder) {}

    /// The next entry, valid until the next call; null at the end.
    [[nodiscard]] Util::Win32Result<const FILE_ID_BOTH_DIR_INFO*> Next() noexcept;

private:
    HANDLE folder_;
    alignas(FILE_ID_BOTH_DIR_INFO) std::array<std::byte, std::size_t{16} * 1024> buffer_{};
    /// The offset of the next entry in the buffer; the buffer's size when another one has to be read.
    std::size_t next_ = buffer_.size();
};

/// One name in a folder, as the listing gives it.
struct DirectoryEntry {
    std::filesystem::path path;
    DWORD attributes = 0;
    DWORD reparseTag = 0;
    std::uint64_t size = 0;
    /// In units of FILETIME.
    std::int64_t lastWritten = 0;

    /// The last component of the path, as it is.
    [[nodiscard]] std::wstring_view Name() const noexcept {
        const std::wstring_view text = path.native();
        return text.substr(text.rfind(L'\\') + 1);
    }
    [[nodiscard]] bool IsDirectory() const noexcept { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
    /// Whether this is a folder and no link to one.
    [[nodiscard]] bool IsRealDirectory() const noexcept;
};

/// The entries of one folder, with their paths.
class DirectoryListing {
public:
    /// Opens the folder, links followed, whatever the path's length. Throws std::filesystem::filesystem_error of the
    /// operation "directory_iterator::directory_iterator" when it cannot be opened.
    explicit DirectoryListing(const std::filesystem::path& folder);

    /// Lists a folder that is open for listing; `folder` is its path.
    DirectoryListing(std::filesystem::path folder, Util::FileHandle handle) noexcept;

    /// The next entry, valid until the next call; null at the end. Throws std::filesystem::filesystem_error of the
    /// given operation when the listing cannot go on.
    [[nodiscard]] const DirectoryEntry* Next(const char* operation = "directory_iterator::operator++");

private:
    std::filesystem::path folder_;
    Util::FileHandle handle_;
    FolderReader reader_;
    DirectoryEntry entry_;
};

enum class Depth : std::uint8_t { Folder, Tree };

/// A subfolder that exists and cannot be opened.
struct UnreadableFolder {
    std::filesystem::path path;
    DWORD error;
};

/// Opens a subfolder of a scan; throws std::filesystem::filesystem_error when that fails.
using FolderOpener = std::function<DirectoryListing(const std::filesystem::path&)>;

/// Visits every entry of a folder, or of the whole tree below it: a folder comes before its entries. Links are visited
/// and never followed, so that a tree with a loop ends. A subfolder that has been removed meanwhile is passed over; one
/// that cannot be opened is passed over and returned. Ends early when `visit` returns false. Throws as the opener does
/// for the folder itself, and with the operation "recursive_directory_iterator::operator++" when the listing of a tree
/// fails.
std::vector<UnreadableFolder> ForEachEntry(
    const std::filesystem::path& folder, Depth depth, const std::function<bool(const DirectoryEntry&)>& visit,
    const FolderOpener& open = [](const std::filesystem::path& path) { return DirectoryListing(path); });

}  // namespace Shared::FileSystem
