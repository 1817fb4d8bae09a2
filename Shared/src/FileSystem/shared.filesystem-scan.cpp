#include "shared.filesystem-scan.h"

#include <string>
#include <utility>

#include "shared.filesystem-longpath.h"
#include "shared.filesystem-status.h"

namespace Shared::FileSystem {

namespace {

Util::FileHandle OpenToList(const std::filesystem::path& folder) {
    Util::FileHandle handle(CreateFileW(LongForm(folder).c_str(), FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                        FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    const auto facts = handle ? FactsOf(handle.Get()) : Util::LastError();
    const DWORD error = !facts ? facts.error() : facts->kind == FileKind::Directory ? ERROR_SUCCESS : ERROR_DIRECTORY;
    if (error != ERROR_SUCCESS) {
        ThrowFileSystemError("directory_iterator::directory_iterator", folder, error);
    }
    return handle;
}

}  // namespace

Util::Win32Result<const FILE_ID_BOTH_DIR_INFO*> FolderReader::Next() noexcept {
    for (;;) {
        if (next_ == buffer_.size()) {
            if (GetFileInformationByHandleEx(folder_, FileIdBothDirectoryInfo, buffer_.data(),
                                             static_cast<DWORD>(buffer_.size())) == FALSE) {
                // "File not found" is what the root of an empty volume returns: it has no "." entry.
                const DWORD error = GetLastError();
                const bool isEnd = error == ERROR_NO_MORE_FILES || error == ERROR_FILE_NOT_FOUND;
                return isEnd ? Util::Win32Result<const FILE_ID_BOTH_DIR_INFO*>(nullptr) : std::unexpected(error);
            }
            next_ = 0;
        }
        const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer_.data() + next_);
        next_ = entry->NextEntryOffset == 0 ? buffer_.size() : next_ + entry->NextEntryOffset;
        const std::wstring_view name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
        if (name != L"." && name != L"..") {
            return entry;
        }
    }
}

bool DirectoryEntry::IsRealDirectory() const noexcept {
    return IsDirectory() && !IsLink(attributes, reparseTag);
}

DirectoryListing::DirectoryListing(const std::filesystem::path& folder)
    : DirectoryListing(folder, OpenToList(folder)) {}

DirectoryListing::DirectoryListing(std::filesystem::path folder, Util::FileHandle handle) noexcept
    : folder_(std::move(folder)), handle_(std::move(handle)), reader_(handle_.Get()) {}

const DirectoryEntry* DirectoryListing::Next(const char* operation) {
    const auto next = reader_.Next();
    if (!next) {
        ThrowFileSystemError(operation, folder_, next.error());
    }
    if (*next == nullptr) {
        return nullptr;
    }
    const FILE_ID_BOTH_DIR_INFO& found = **next;
    entry_.path = NameBelow(folder_.native(), {found.FileName, found.FileNameLength / sizeof(wchar_t)});
    entry_.attributes = found.FileAttributes;
    // Of a reparse point the file system returns the tag in place of the size of the extended attributes.
    entry_.reparseTag = (found.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? found.EaSize : 0;
    entry_.size = static_cast<std::uint64_t>(found.EndOfFile.QuadPart);
    entry_.lastWritten = found.LastWriteTime.QuadPart;
    return &entry_;
}

std::vector<UnreadableFolder> ForEachEntry(const std::filesystem::path& folder, Depth depth,
                                           const std::function<bool(const DirectoryEntry&)>& visit,
                                           const FolderOpener& open) {
    const char* const operation =
        depth == Depth::Tree ? "recursive_directory_iterator::operator++" : "directory_iterator::operator++";
    std::vector<UnreadableFolder> unreadable;
    // A stack of its own, since the depth of the tree is unbounded.
    std::vector<DirectoryListing> listings;
    listings.push_back(open(folder));
    while (!listings.empty()) {
        const DirectoryEntry* entry = listings.back().Next(operation);
        if (entry == nullptr) {
            listings.pop_back();
            continue;
        }
        if (!visit(*entry)) {
            break;
        }
        if (depth == Depth::Tree && entry->IsRealDirectory()) {
            std::filesystem::path subfolder = entry->path;
            try {
                listings.push_back(open(subfolder));
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
