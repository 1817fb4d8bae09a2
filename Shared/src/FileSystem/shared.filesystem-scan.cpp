#include "shared.filesystem-scan.h"

#include <string>
#include <utility>

#include "shared.filesystem-longpath.h"
#include "shared.filesystem-status.h"

namespace Shared::FileSystem {

bool DirectoryEntry::IsRealDirectory() const noexcept {
    return IsDirectory() && !IsLink(attributes, reparseTag);
}

DirectoryListing::DirectoryListing(std::filesystem::path folder) : folder_(std::move(folder)) {
    const std::wstring pattern = NameBelow(LongForm(folder_).native(), L"*");
    HANDLE handle = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &data_, FindExSearchNameMatch, nullptr,
                                     FIND_FIRST_EX_LARGE_FETCH);
    if (handle != INVALID_HANDLE_VALUE) {
        search_.reset(handle);
        pending_ = true;
    } else if (const DWORD error = GetLastError(); error != ERROR_FILE_NOT_FOUND) {
        // "File not found" is what the root of an empty volume answers: it has no "." entry.
        ThrowFileSystemError("directory_iterator::directory_iterator", folder_, error);
    }
}

const DirectoryEntry* DirectoryListing::Next(const char* operation) {
    if (!search_) {
        return nullptr;
    }
    for (;;) {
        if (!std::exchange(pending_, false) && FindNextFileW(search_.get(), &data_) == FALSE) {
            if (const DWORD error = GetLastError(); error != ERROR_NO_MORE_FILES) {
                ThrowFileSystemError(operation, folder_, error);
            }
            return nullptr;
        }
        const std::wstring_view name = data_.cFileName;
        if (name != L"." && name != L"..") {
            break;
        }
    }
    entry_.path = NameBelow(folder_.native(), data_.cFileName);
    entry_.attributes = data_.dwFileAttributes;
    entry_.reparseTag = (data_.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? data_.dwReserved0 : 0;
    return &entry_;
}

std::vector<UnreadableFolder> ForEachEntry(const std::filesystem::path& folder, Depth depth,
                                           const std::function<void(const DirectoryEntry&)>& visit) {
    const char* const operation =
        depth == Depth::Tree ? "recursive_directory_iterator::operator++" : "directory_iterator::operator++";
    std::vector<UnreadableFolder> unreadable;
    // A stack of its own: how deep a folder tree goes is not this program's to trust.
    std::vector<DirectoryListing> open;
    open.emplace_back(folder);
    while (!open.empty()) {
        const DirectoryEntry* entry = open.back().Next(operation);
        if (entry == nullptr) {
            open.pop_back();
            continue;
        }
        visit(*entry);
        if (depth == Depth::Tree && entry->IsRealDirectory()) {
            std::filesystem::path subfolder = entry->path;
            try {
                open.emplace_back(subfolder);
            } catch (const std::filesystem::filesystem_error& error) {
                const auto code = static_cast<DWORD>(error.code().value());
                if (!IsNotFound(code)) {
                    unreadable.push_back({.path = std::move(subfolder), .error = code});
                }
            }
        }
    }
    return unreadable;
}

}  // namespace Shared::FileSystem
