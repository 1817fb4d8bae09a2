#pragma once

#include <windows.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <utility>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileSystem {

/// One name in a folder, as the listing gives it.
struct DirectoryEntry {
    std::filesystem::path path;
    DWORD attributes = 0;
    /// In 100 nanoseconds since 1601, UTC.
    std::int64_t lastWritten = 0;

    /// The last component of the path, as it is.
    [[nodiscard]] std::wstring_view Name() const noexcept {
        const std::wstring_view text = path.native();
        return text.substr(text.rfind(L'\\') + 1);
    }
    [[nodiscard]] bool IsDirectory() const noexcept { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
    /// Whether this is a folder and no reparse point: no link, mount point or placeholder.
    [[nodiscard]] bool IsPlainDirectory() const noexcept {
        return IsDirectory() && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
    }
};

/// The entries of one folder, without "." and "..", in the order of the file system.
class DirectoryListing {
public:
    /// Lists a folder that is open for listing; `folder` is its path.
    DirectoryListing(std::filesystem::path folder, Util::FileHandle handle) noexcept
        : folder_(std::move(folder)), handle_(std::move(handle)) {}

    /// The next entry, valid until the next call; null at the end.
    [[nodiscard]] Util::Win32Result<const DirectoryEntry*> Next();

    /// As Next; throws std::filesystem::filesystem_error of the given operation.
    [[nodiscard]] const DirectoryEntry* NextOrThrow(const char* operation);

    [[nodiscard]] HANDLE Handle() const noexcept { return handle_.Get(); }

private:
    std::filesystem::path folder_;
    Util::FileHandle handle_;
    alignas(FILE_ID_BOTH_DIR_INFO) std::array<std::byte, std::size_t{16} * 1024> buffer_{};
    /// The offset of the next entry in the buffer; the buffer's size when another one has to be read.
    std::size_t next_ = buffer_.size();
    DirectoryEntry entry_;
};

}  // namespace Shared::FileSystem
