#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>

#include "shared.filesystem-privatefile.h"
#include "shared.filesystem-removal.h"
#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileZip {

using Util::Win32Result;

/// The file under an archive, as far as the archive's source needs it: everything that can fail on a disk goes
/// through here. Offsets and sizes are in bytes.
class ArchiveFile {
public:
    ArchiveFile() = default;
    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;
    virtual ~ArchiveFile() = default;

    /// Opens the existing file, unless it is open already; ERROR_FILE_NOT_FOUND when there is none.
    virtual Win32Result<void> Open() = 0;
    /// Creates and opens the file; ERROR_FILE_EXISTS when anything exists at its path.
    virtual Win32Result<void> Create() = 0;

    [[nodiscard]] virtual Win32Result<std::uint64_t> Size() const = 0;
    /// The number of bytes read: less than asked for at the end of the file only.
    [[nodiscard]] virtual Win32Result<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const = 0;
    /// Writes all of it in one operation, or fails with any part of it written. Writing behind the end extends the
    /// file.
    virtual Win32Result<void> Write(std::uint64_t offset, std::span<const std::byte> from) = 0;
    virtual Win32Result<void> Truncate(std::uint64_t size) = 0;

    /// A new, open, empty file beside this one. It is removed on destruction, unless it has replaced this file.
    [[nodiscard]] virtual Win32Result<std::unique_ptr<ArchiveFile>> CreateSibling() = 0;
    /// Replaces this file by one that CreateSibling made, in one operation; this file is then what that one was.
    virtual Win32Result<void> ReplaceBy(ArchiveFile& sibling) = 0;
};

/// What tells a file from any other on its volume while it exists.
struct FileIdentity {
    DWORD volume = 0;
    std::uint64_t index = 0;

    bool operator==(const FileIdentity&) const = default;
};

/// The archive on disk, with an access list for its administrator alone. While it is open, no other process can open
/// it: none can read, map, lock, rename or delete it. Its handle is not inherited by child processes. Waits up to a
/// second for a file that another process holds. A link at the path is refused with ERROR_CANT_RESOLVE_FILENAME, a file
/// with further hard links with ERROR_TOO_MANY_LINKS, since writing would change a file elsewhere.
class Win32ArchiveFile final : public ArchiveFile {
public:
    /// Throws Win32Exception when the path cannot be made absolute.
    explicit Win32ArchiveFile(const std::filesystem::path& path);

    Win32Result<void> Open() override;
    Win32Result<void> Create() override;
    [[nodiscard]] Win32Result<std::uint64_t> Size() const override;
    [[nodiscard]] Win32Result<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const override;
    Win32Result<void> Write(std::uint64_t offset, std::span<const std::byte> from) override;
    Win32Result<void> Truncate(std::uint64_t size) override;
    [[nodiscard]] Win32Result<std::unique_ptr<ArchiveFile>> CreateSibling() override;
    /// This file is closed for the moment of the renaming.
    Win32Result<void> ReplaceBy(ArchiveFile& sibling) override;

    /// Of the open file.
    [[nodiscard]] Win32Result<FileIdentity> Identity() const;
    /// Opens a closed archive for reading, so that other processes can do no more than that; ERROR_FILE_INVALID when it
    /// is not the file with that identity.
    [[nodiscard]] static Win32Result<Util::FileHandle> OpenToRead(const std::filesystem::path& path,
                                                                  const FileIdentity& identity);

private:
    explicit Win32ArchiveFile(FileSystem::NamedFile file);

    std::filesystem::path path_;
    FileSystem::FileObjectRemover remover_;
    Util::FileHandle handle_;
};

}  // namespace Shared::FileZip
