#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <span>

#include "shared.util-handle.h"

namespace Shared::FileZip {

/// A value, or the Win32 code of the failure.
template <class T>
using FileResult = std::expected<T, DWORD>;

/// The file under an archive, as far as the archive's source needs it: everything that can fail on a disk goes
/// through here. Offsets and sizes are in bytes.
class ArchiveFile {
public:
    ArchiveFile() = default;
    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;
    virtual ~ArchiveFile() = default;

    /// Opens the existing file, unless it is open already; ERROR_FILE_NOT_FOUND when there is none.
    virtual FileResult<void> Open() = 0;
    /// Creates and opens the file; ERROR_FILE_EXISTS when anything has its name.
    virtual FileResult<void> Create() = 0;
    virtual void Close() noexcept = 0;

    [[nodiscard]] virtual FileResult<std::uint64_t> Size() const = 0;
    /// The number of bytes read: less than asked for at the end of the file only.
    [[nodiscard]] virtual FileResult<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const = 0;
    /// Writes all of it, or fails with any part of it written. Writing behind the end extends the file.
    virtual FileResult<void> Write(std::uint64_t offset, std::span<const std::byte> from) = 0;
    virtual FileResult<void> Truncate(std::uint64_t size) = 0;

    /// A new, open, empty file beside this one. It is removed with the object, unless it took this file's place.
    [[nodiscard]] virtual FileResult<std::unique_ptr<ArchiveFile>> CreateSibling() = 0;
    /// Puts a file made by CreateSibling in this file's place, at once; both are closed then.
    virtual FileResult<void> ReplaceBy(ArchiveFile& sibling) = 0;
};

/// The archive on disk. While it is open, others can read it but neither write, rename nor delete it; its handle is
/// not inherited by child processes. Names are taken as they are: a link in the file's place is refused with
/// ERROR_CANT_RESOLVE_FILENAME, a file with further names (hard links) with ERROR_TOO_MANY_LINKS, since writing would
/// change a file that somebody else chose.
class Win32ArchiveFile final : public ArchiveFile {
public:
    /// Throws Win32Exception when the path cannot be made absolute.
    explicit Win32ArchiveFile(const std::filesystem::path& path);
    ~Win32ArchiveFile() override;

    FileResult<void> Open() override;
    FileResult<void> Create() override;
    void Close() noexcept override;
    [[nodiscard]] FileResult<std::uint64_t> Size() const override;
    [[nodiscard]] FileResult<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const override;
    FileResult<void> Write(std::uint64_t offset, std::span<const std::byte> from) override;
    FileResult<void> Truncate(std::uint64_t size) override;
    [[nodiscard]] FileResult<std::unique_ptr<ArchiveFile>> CreateSibling() override;
    FileResult<void> ReplaceBy(ArchiveFile& sibling) override;

private:
    std::filesystem::path path_;
    Util::FileHandle handle_;
    bool temporary_ = false;
};

}  // namespace Shared::FileZip
