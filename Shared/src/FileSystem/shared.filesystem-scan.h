#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace Shared::FileSystem {

/// One name in a folder, as the listing gives it.
struct DirectoryEntry {
    std::filesystem::path path;
    DWORD attributes = 0;
    DWORD reparseTag = 0;

    /// The last component of the path, verbatim.
    [[nodiscard]] std::wstring_view Name() const noexcept {
        const std::wstring_view text = path.native();
        return text.substr(text.rfind(L'\\') + 1);
    }
    [[nodiscard]] bool IsDirectory() const noexcept { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
    /// Whether this is a folder of its own, not a link to one.
    [[nodiscard]] bool IsRealDirectory() const noexcept;
};

/// The entries of one folder in the order of the file system, without "." and "..". Paths of any length.
class DirectoryListing {
public:
    /// Throws std::filesystem::filesystem_error of the operation "directory_iterator::directory_iterator" when the
    /// folder cannot be opened.
    explicit DirectoryListing(std::filesystem::path folder);

    /// The next entry, valid until the next call; null at the end. Throws std::filesystem::filesystem_error of the
    /// given operation when the listing cannot go on.
    [[nodiscard]] const DirectoryEntry* Next(const char* operation = "directory_iterator::operator++");

private:
    struct FindCloser {
        using pointer = HANDLE;
        void operator()(HANDLE handle) const noexcept { FindClose(handle); }
    };

    std::filesystem::path folder_;
    std::unique_ptr<HANDLE, FindCloser> search_;
    WIN32_FIND_DATAW data_{};
    DirectoryEntry entry_;
    bool pending_ = false;
};

enum class Depth : std::uint8_t { Folder, Tree };

/// A subfolder that is there and cannot be opened.
struct UnreadableFolder {
    std::filesystem::path path;
    DWORD error;
};

/// Visits every entry of a folder, or of the whole tree below it: a folder comes before its entries. Links are visited
/// and never descended into, so that a tree with a loop ends. A subfolder that has gone in the meantime is passed over;
/// one that cannot be opened is passed over and returned. Throws as DirectoryListing does for the folder itself, and
/// with the operation "recursive_directory_iterator::operator++" when the listing of a tree breaks off.
std::vector<UnreadableFolder> ForEachEntry(const std::filesystem::path& folder, Depth depth,
                                           const std::function<void(const DirectoryEntry&)>& visit);

}  // namespace Shared::FileSystem
