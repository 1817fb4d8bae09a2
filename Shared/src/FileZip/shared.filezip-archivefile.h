#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <utility>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileZip {

using Util::Win32Result;

/// The open file under an archive, as far as the archive's source needs it: everything that can fail on a disk goes
/// through here. Offsets and sizes are in bytes.
class ArchiveFile {
public:
    ArchiveFile() = default;
    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;
    virtual ~ArchiveFile() = default;

    [[nodiscard]] virtual Win32Result<std::uint64_t> Size() const = 0;
    /// The number of bytes read: less than asked for at the end of the file only.
    [[nodiscard]] virtual Win32Result<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const = 0;
    /// Writes all of it in one operation, or fails with any part of it written. Writing behind the end extends the
    /// file.
    virtual Win32Result<void> Write(std::uint64_t offset, std::span<const std::byte> from) = 0;
    virtual Win32Result<void> Truncate(std::uint64_t size) = 0;
};

/// The archive on disk. While the object exists other processes can query the file's attributes, but not read, map,
/// lock, rename or delete it. Its handle is not inherited by child processes. Waits up to a second while another
/// process holds the file.
class Win32ArchiveFile final : public ArchiveFile {
public:
    using Result = Win32Result<std::unique_ptr<Win32ArchiveFile>>;

    /// The file at the path; ERROR_FILE_NOT_FOUND when there is none. A link is refused with
    /// ERROR_CANT_RESOLVE_FILENAME, a file with further hard links with ERROR_TOO_MANY_LINKS, since writing would
    /// change a file elsewhere. Throws Win32Exception when the path cannot be made absolute, as the others do.
    [[nodiscard]] static Result Open(const std::filesystem::path& path);

    /// A new, empty file with an access list for its administrator alone; ERROR_FILE_EXISTS when anything exists at the
    /// path.
    [[nodiscard]] static Result Create(const std::filesystem::path& path);

    /// A new file with these contents, flushed to its disk or server where the file system can do that, and with the
    /// access list that its folder passes on; ERROR_FILE_EXISTS when anything exists at the path. `isCancelled` is
    /// asked before each megabyte; when it returns true, the result is ERROR_REQUEST_ABORTED. A failed copy is removed.
    [[nodiscard]] Result CopyTo(const std::filesystem::path& path, bool (*isCancelled)()) const;

    explicit Win32ArchiveFile(Util::FileHandle handle) : handle_(std::move(handle)) {}

    [[nodiscard]] Win32Result<std::uint64_t> Size() const override;
    [[nodiscard]] Win32Result<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const override;
    Win32Result<void> Write(std::uint64_t offset, std::span<const std::byte> from) override;
    Win32Result<void> Truncate(std::uint64_t size) override;

private:
    Util::FileHandle handle_;
};

}  // namespace Shared::FileZip
