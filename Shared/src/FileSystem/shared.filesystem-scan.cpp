#include "shared.filesystem-scan.h"

#include <string_view>

#include "shared.filesystem-longpath.h"
#include "shared.filesystem-status.h"

namespace Shared::FileSystem {

Util::Win32Result<const DirectoryEntry*> DirectoryListing::Next() {
    for (;;) {
        if (next_ == buffer_.size()) {
            if (GetFileInformationByHandleEx(handle_.Get(), FileIdBothDirectoryInfo, buffer_.data(),
                                             static_cast<DWORD>(buffer_.size())) == FALSE) {
                // "File not found" is what the root of an empty volume returns: it has no "." entry.
                const DWORD error = GetLastError();
                const bool isEnd = error == ERROR_NO_MORE_FILES || error == ERROR_FILE_NOT_FOUND;
                return isEnd ? Util::Win32Result<const DirectoryEntry*>(nullptr) : std::unexpected(error);
            }
            next_ = 0;
        }
        const auto& found = *reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer_.data() + next_);
        next_ = found.NextEntryOffset == 0 ? buffer_.size() : next_ + found.NextEntryOffset;
        const std::wstring_view name(found.FileName, found.FileNameLength / sizeof(wchar_t));
        if (name == L"." || name == L"..") {
            continue;
        }
        entry_.path = NameBelow(folder_.native(), name);
        entry_.attributes = found.FileAttributes;
        entry_.lastWritten = found.LastWriteTime.QuadPart;
        return &entry_;
    }
}

const DirectoryEntry* DirectoryListing::NextOrThrow(const char* operation) {
    const auto next = Next();
    if (!next) {
        ThrowFileSystemError(operation, folder_, next.error());
    }
    return *next;
}

}  // namespace Shared::FileSystem
