#pragma once

#include <zip.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "shared.filezip-archivefile.h"
#include "shared.filezip-archivetail.h"

namespace Shared::FileZip {

/// The libzip source under an archive that only ever grows: adding an entry writes that entry and a new directory,
/// and leaves what is there where it is. libzip itself would copy the whole archive for every change.
///
/// How an add proceeds. A copy of the directory and its end records, adjusted to its new place, is written past the
/// region that is about to be used, and written anew further on when the data grows up to it. Then the entry is
/// written over the old directory, and the new directory behind it. Then the file is cut behind the new directory,
/// which is the moment when the entry counts.
///
/// What that gives. Whenever the process is killed, the disk is full or a write fails, the file lists and holds every
/// entry that was added before: at every instant but one the file ends in a true end record. The exception is a write
/// of the copy that is cut short; then the last true end record lies further up, and Prepare cuts the file behind it.
/// Nothing is promised for a power cut: writes are not forced to the disk, and the disk may take them in any order.
///
/// Changes other than additions (deleting, replacing) are written to a new file beside the archive, which is then
/// renamed over it; they cost the whole archive.
///
/// Memory: two buffers of a megabyte, whatever the archive's size. Not thread-safe.
class AppendInPlaceSource {
public:
    /// The file must outlive the source.
    explicit AppendInPlaceSource(ArchiveFile& file);
    AppendInPlaceSource(const AppendInPlaceSource&) = delete;
    AppendInPlaceSource& operator=(const AppendInPlaceSource&) = delete;

    /// Creates the file as a whole zip without entries; ERROR_FILE_EXISTS when anything has its name.
    Win32Result<void> Create();

    /// Opens the file, repairs the end that a killed add has torn, and gives an empty file what a zip without entries
    /// has. ERROR_BAD_FORMAT for what is no zip. Call it before an archive is opened over the source.
    Win32Result<void> Prepare();

    /// A new libzip source, with one reference. The archive opened over it must be gone before this object, and
    /// before the next one is asked for. Null when out of memory.
    [[nodiscard]] zip_source_t* NewSource();

    /// The size of the archive file.
    [[nodiscard]] std::uint64_t FileSize() const noexcept { return size_; }

    /// The Win32 code of the last failure on the file since the archive was opened or written, else ERROR_SUCCESS.
    [[nodiscard]] DWORD LastFailure() const noexcept { return failure_; }

private:
    static zip_int64_t Callback(void* self, void* data, zip_uint64_t length, zip_source_cmd_t command) noexcept;
    zip_int64_t Dispatch(void* data, zip_uint64_t length, zip_source_cmd_t command);

    zip_int64_t Fail(int zipError, DWORD code);
    zip_int64_t Done(const Win32Result<void>& result, int zipError);
    void ClearFailure();
    Win32Result<void> OpenExisting();
    Win32Result<void> WriteEmpty(ArchiveFile& file);
    Win32Result<void> Repair();

    zip_int64_t Stat(void* data, zip_uint64_t length);
    zip_int64_t Read(std::span<std::byte> to);
    zip_int64_t Seek(void* data, zip_uint64_t length);
    zip_int64_t SeekWrite(void* data, zip_uint64_t length);
    zip_int64_t Write(std::span<const std::byte> from);
    zip_int64_t BeginClone(std::uint64_t keep);

    Win32Result<void> Begin();
    Win32Result<void> ReplaceByEmpty();
    void StartInPlace(ArchiveTail tail);
    Win32Result<void> Flush(std::uint64_t spare);
    Win32Result<void> MakeRoom(std::uint64_t end, std::uint64_t spare);
    Win32Result<void> CopyTail(std::uint64_t from, std::uint64_t to, std::span<const std::byte> records);
    Win32Result<void> Commit();
    Win32Result<void> CommitInPlace();
    Win32Result<void> Rollback();
    Win32Result<void> RestoreTail();

    ArchiveFile& file_;
    std::uint64_t size_ = 0;
    zip_error_t error_{};
    DWORD failure_ = ERROR_SUCCESS;

    std::uint64_t readOffset_ = 0;
    std::vector<std::byte> readAhead_;
    std::uint64_t readAheadOffset_ = 0;

    /// While an add is under way: the directory as it was, and where its present copy lies and ends.
    bool inPlace_ = false;
    ArchiveTail tail_;
    std::uint64_t copyOffset_ = 0;
    std::uint64_t copyEnd_ = 0;
    /// While everything is written anew.
    std::unique_ptr<ArchiveFile> replacement_;

    std::vector<std::byte> buffer_;
    std::uint64_t bufferOffset_ = 0;
    std::uint64_t writeOffset_ = 0;
    std::uint64_t writeEnd_ = 0;
};

}  // namespace Shared::FileZip
