#pragma once

#include <zip.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "shared.filezip-archivefile.h"
#include "shared.filezip-archivetail.h"

namespace Shared::FileZip {

/// The libzip source under an archive that only ever grows: adding an entry writes that entry and a new directory,
/// and leaves what is there where it is. libzip itself would copy the whole archive for every change. Of what is there
/// the last add alone can be taken back; every change of an earlier entry fails with ERROR_NOT_SUPPORTED.
///
/// How an add proceeds. A copy of the directory and its end records, adjusted to its new place, is written past the
/// region that is about to be used, and written anew further on when the data grows up to it. Then the entry is
/// written over the old directory, and the new directory behind it. Truncating the file then makes the new directory
/// the valid one. Taking an add back proceeds in the same way, but the copy is one of the directory from before that
/// add, and it is written behind everything at once.
///
/// What that gives. Whenever the process is killed, the disk is full or a write fails, the file lists and holds every
/// entry that was added before, because at every instant it ends in a valid directory and end record. There is one
/// exception: a process that is killed during the write of the directory's copy leaves a file that may not open; it
/// still holds every entry and the directory before the copy. Nothing is promised for a power cut: writes are not
/// forced to the disk, and the disk may take them in any order.
///
/// Memory: buffers of little more than a megabyte together, and up to four directories. Not thread-safe.
class AppendInPlaceSource {
public:
    /// The file is open and must outlive the source.
    explicit AppendInPlaceSource(ArchiveFile& file);
    AppendInPlaceSource(const AppendInPlaceSource&) = delete;
    AppendInPlaceSource& operator=(const AppendInPlaceSource&) = delete;

    /// Reads the file's directory, after finishing a rollback that failed before. ERROR_BAD_FORMAT for what does not
    /// end in a directory and its end record. Call it before each archive that is opened over the source.
    Win32Result<void> Prepare();

    /// A new libzip source, with one reference. The archive opened over it must be gone before this object, and
    /// before the next one is asked for. Null when out of memory.
    [[nodiscard]] zip_source_t* NewSource();

    /// The size of the archive file when Prepare was called.
    [[nodiscard]] std::uint64_t FileSize() const noexcept { return tail_.FileSize(); }

    /// The Win32 code of the first failure on the file since the archive was opened, else ERROR_SUCCESS.
    [[nodiscard]] DWORD LastFailure() const noexcept { return failure_; }

private:
    static zip_int64_t Callback(void* self, void* data, zip_uint64_t length, zip_source_cmd_t command) noexcept;
    zip_int64_t Dispatch(void* data, zip_uint64_t length, zip_source_cmd_t command);

    zip_int64_t Fail(int zipError, DWORD code);
    zip_int64_t Done(const Win32Result<void>& result, int zipError);
    void ClearFailure();

    zip_int64_t Stat(void* data, zip_uint64_t length);
    zip_int64_t Read(std::span<std::byte> to);
    zip_int64_t Seek(std::uint64_t& position, std::uint64_t size, void* data, zip_uint64_t length);
    zip_int64_t Write(std::span<const std::byte> from);

    Win32Result<void> Begin(std::uint64_t keep);
    void Start(std::uint64_t offset);
    Win32Result<void> TakeBack(ArchiveTail before);
    Win32Result<void> RemoveOnlyEntry();
    Win32Result<void> Flush(std::uint64_t spare);
    Win32Result<void> MakeRoom(std::uint64_t end, std::uint64_t spare);
    Win32Result<void> WriteCopy(const ArchiveTail& tail, std::uint64_t offset);
    Win32Result<void> Commit();
    Win32Result<void> Rollback();

    ArchiveFile& file_;
    zip_error_t error_{};
    DWORD failure_ = ERROR_SUCCESS;

    std::uint64_t readOffset_ = 0;
    std::vector<std::byte> readAhead_;
    std::uint64_t readAheadOffset_ = 0;

    /// The directory that must survive: the file's, or, while the last add is being taken back, the one before it.
    ArchiveTail tail_;
    /// The one from before the last add, while that can be taken back.
    std::optional<ArchiveTail> before_;
    /// Of a change that is under way: where the valid directory lies and ends.
    bool isChanging_ = false;
    std::uint64_t copyOffset_ = 0;
    std::uint64_t copyEnd_ = 0;

    std::vector<std::byte> buffer_;
    std::uint64_t bufferOffset_ = 0;
    std::uint64_t writeOffset_ = 0;
    std::uint64_t writeEnd_ = 0;
};

}  // namespace Shared::FileZip
