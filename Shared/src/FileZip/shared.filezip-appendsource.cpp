#include "shared.filezip-appendsource.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace Shared::FileZip {

namespace {

constexpr std::size_t bufferSize = std::size_t{1} << 20U;
// More than the last 64 KiB and a few records, in which libzip looks for the end record.
constexpr std::size_t readAheadSize = std::size_t{128} << 10U;
// Distance from the data to the directory's copy: small, because some file systems zero-fill it; large enough to need
// few copies.
constexpr std::uint64_t smallestSpare = std::uint64_t{4} << 20U;
constexpr std::uint64_t spareDirectories = 32;

}  // namespace

AppendInPlaceSource::AppendInPlaceSource(ArchiveFile& file) : file_(file) {
    zip_error_init(&error_);
}

Win32Result<void> AppendInPlaceSource::Prepare() {
    ClearFailure();
    // Finish a rollback that failed before; until then the file has two end records.
    if (auto restored = Rollback(); !restored) {
        return restored;
    }
    auto tail = ReadTail(file_);
    if (!tail) {
        return std::unexpected(tail.error());
    }
    tail_ = *std::move(tail);
    return {};
}

zip_source_t* AppendInPlaceSource::NewSource() {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_function_create(&Callback, this, &error);
    zip_error_fini(&error);
    return source;
}

zip_int64_t AppendInPlaceSource::Callback(void* self, void* data, zip_uint64_t length,
                                          zip_source_cmd_t command) noexcept {
    auto& source = *static_cast<AppendInPlaceSource*>(self);
    try {
        return source.Dispatch(data, length, command);
    } catch (const std::bad_alloc&) {
        return source.Fail(ZIP_ER_MEMORY, ERROR_NOT_ENOUGH_MEMORY);
    } catch (...) {
        return source.Fail(ZIP_ER_INTERNAL, ERROR_INTERNAL_ERROR);
    }
}

zip_int64_t AppendInPlaceSource::Dispatch(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    const auto bytes = [&] { return std::span(static_cast<std::byte*>(data), static_cast<std::size_t>(length)); };
    switch (command) {
        case ZIP_SOURCE_SUPPORTS:
            return ZIP_SOURCE_SUPPORTS_WRITABLE | ZIP_SOURCE_MAKE_COMMAND_BITMASK(ZIP_SOURCE_BEGIN_WRITE_CLONING);
        case ZIP_SOURCE_STAT:
            return Stat(data, length);
        case ZIP_SOURCE_OPEN:
            // Newer releases query the error after a close as well: an old one would make the close fail.
            ClearFailure();
            readOffset_ = 0;
            return 0;
        case ZIP_SOURCE_READ:
            return Read(bytes());
        case ZIP_SOURCE_SEEK:
            return Seek(readOffset_, FileSize(), data, length);
        case ZIP_SOURCE_TELL:
            return static_cast<zip_int64_t>(readOffset_);
        case ZIP_SOURCE_CLOSE:
        case ZIP_SOURCE_FREE:
            // The file stays open between two archives: another process must not replace it.
            return 0;
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&error_, data, length);
        case ZIP_SOURCE_BEGIN_WRITE:
            return Done(Begin(0), ZIP_ER_TMPOPEN);
        case ZIP_SOURCE_BEGIN_WRITE_CLONING:
            return Done(Begin(length), ZIP_ER_OPNOTSUPP);
        case ZIP_SOURCE_WRITE:
            return Write(bytes());
        case ZIP_SOURCE_SEEK_WRITE:
            return Seek(writeOffset_, writeEnd_, data, length);
        case ZIP_SOURCE_TELL_WRITE:
            return static_cast<zip_int64_t>(writeOffset_);
        case ZIP_SOURCE_COMMIT_WRITE:
            return Done(Commit(), ZIP_ER_WRITE);
        case ZIP_SOURCE_ROLLBACK_WRITE:
            return Done(Rollback(), ZIP_ER_WRITE);
        case ZIP_SOURCE_REMOVE:
            // libzip calls this instead of writing an archive without entries.
            return Done(RemoveOnlyEntry(), ZIP_ER_REMOVE);
        default:
            zip_error_set(&error_, ZIP_ER_OPNOTSUPP, 0);
            return -1;
    }
}

zip_int64_t AppendInPlaceSource::Fail(int zipError, DWORD code) {
    // Keep the first failure; later ones come from its rollback.
    if (failure_ == ERROR_SUCCESS) {
        failure_ = code;
    }
    zip_error_set(&error_, zipError, EIO);
    return -1;
}

zip_int64_t AppendInPlaceSource::Done(const Win32Result<void>& result, int zipError) {
    return result ? 0 : Fail(zipError, result.error());
}

void AppendInPlaceSource::ClearFailure() {
    failure_ = ERROR_SUCCESS;
    zip_error_set(&error_, ZIP_ER_OK, 0);
}

zip_int64_t AppendInPlaceSource::Stat(void* data, zip_uint64_t length) {
    zip_stat_t stat;
    if (length < sizeof stat) {
        return Fail(ZIP_ER_INVAL, ERROR_INVALID_PARAMETER);
    }
    zip_stat_init(&stat);
    stat.size = FileSize();
    stat.valid |= ZIP_STAT_SIZE;
    std::memcpy(data, &stat, sizeof stat);
    return sizeof stat;
}

zip_int64_t AppendInPlaceSource::Read(std::span<std::byte> to) {
    const bool isAhead = readOffset_ >= readAheadOffset_ && readOffset_ - readAheadOffset_ < readAhead_.size();
    if (!isAhead) {
        // Headers are read in pieces of a few bytes.
        readAhead_.resize(readAheadSize);
        const auto read = file_.Read(readOffset_, readAhead_);
        readAhead_.resize(read.value_or(0));
        readAheadOffset_ = readOffset_;
        if (!read) {
            return Fail(ZIP_ER_READ, read.error());
        }
    }
    const auto ready = std::span(readAhead_).subspan(static_cast<std::size_t>(readOffset_ - readAheadOffset_));
    const std::size_t count = std::min(ready.size(), to.size());
    std::ranges::copy(ready.first(count), to.begin());
    readOffset_ += count;
    return static_cast<zip_int64_t>(count);
}

zip_int64_t AppendInPlaceSource::Seek(std::uint64_t& position, std::uint64_t size, void* data, zip_uint64_t length) {
    const zip_int64_t offset = zip_source_seek_compute_offset(position, size, data, length, &error_);
    if (offset < 0) {
        return -1;
    }
    position = static_cast<std::uint64_t>(offset);
    return 0;
}

// Begins to write behind the file's first `keep` bytes; 0 when libzip means to write all of it anew.
Win32Result<void> AppendInPlaceSource::Begin(std::uint64_t keep) {
    // Only an archive whose directory follows the entries can grow in place.
    if (keep == tail_.directoryOffset) {
        Start(keep);
        return {};
    }
    // The start of the entry that was added last. The new entries of its folders come before it, and stay.
    if (before_ && keep != 0 && keep >= before_->directoryOffset && keep < tail_.directoryOffset) {
        ArchiveTail before = *before_;
        Start(keep);
        return TakeBack(std::move(before));
    }
    return std::unexpected<DWORD>(ERROR_NOT_SUPPORTED);
}

void AppendInPlaceSource::Start(std::uint64_t offset) {
    isChanging_ = true;
    copyOffset_ = tail_.directoryOffset;
    copyEnd_ = tail_.FileSize();
    writeOffset_ = bufferOffset_ = writeEnd_ = offset;
}

// Makes the directory from before the last add the valid one. Its copy goes behind everything, since the present one is
// valid until the copy is complete.
Win32Result<void> AppendInPlaceSource::TakeBack(ArchiveTail before) {
    if (auto copied = WriteCopy(before, copyEnd_); !copied) {
        [[maybe_unused]] const auto restored = Rollback();
        return copied;
    }
    tail_ = std::move(before);
    before_.reset();
    return {};
}

zip_int64_t AppendInPlaceSource::Write(std::span<const std::byte> from) {
    const auto total = static_cast<zip_int64_t>(from.size());
    while (!from.empty()) {
        const bool continues = writeOffset_ >= bufferOffset_ && writeOffset_ - bufferOffset_ <= buffer_.size();
        if (!continues || buffer_.size() >= bufferSize) {
            if (const auto flushed = Flush(std::max(smallestSpare, spareDirectories * tail_.bytes.size())); !flushed) {
                return Fail(ZIP_ER_WRITE, flushed.error());
            }
            bufferOffset_ = writeOffset_;
        }
        // A header that libzip comes back to is mostly still in the buffer.
        const auto position = static_cast<std::size_t>(writeOffset_ - bufferOffset_);
        const std::size_t count = std::min(from.size(), bufferSize - position);
        if (buffer_.size() < position + count) {
            buffer_.resize(position + count);
        }
        std::ranges::copy(from.first(count), buffer_.begin() + static_cast<std::ptrdiff_t>(position));
        writeOffset_ += count;
        writeEnd_ = std::max(writeEnd_, writeOffset_);
        from = from.subspan(count);
    }
    return total;
}

Win32Result<void> AppendInPlaceSource::Flush(std::uint64_t spare) {
    if (buffer_.empty()) {
        return {};
    }
    const std::uint64_t end = bufferOffset_ + buffer_.size();
    auto room = MakeRoom(end, spare);
    if (!room && spare != 0) {
        // A disk that is nearly full may still hold what is really needed.
        room = MakeRoom(end, 0);
    }
    if (!room) {
        return room;
    }
    if (auto written = file_.Write(bufferOffset_, buffer_); !written) {
        return written;
    }
    bufferOffset_ = end;
    buffer_.clear();
    return {};
}

// Moves the copy of the directory so that the file can be written up to `end`, and `spare` beyond.
Win32Result<void> AppendInPlaceSource::MakeRoom(std::uint64_t end, std::uint64_t spare) {
    // Do not overwrite the current copy: it is the valid directory until the next is complete.
    return end <= copyOffset_ ? Win32Result<void>() : WriteCopy(tail_, std::max(end + spare, copyEnd_));
}

// One write: a file that ended between two would have no end record.
Win32Result<void> AppendInPlaceSource::WriteCopy(const ArchiveTail& tail, std::uint64_t offset) {
    const std::vector<std::byte> copy = tail.MovedTo(offset);
    auto written = file_.Write(offset, copy);
    if (!written) {
        [[maybe_unused]] const auto cut = file_.Truncate(copyEnd_);
        return written;
    }
    copyOffset_ = offset;
    copyEnd_ = offset + copy.size();
    return {};
}

Win32Result<void> AppendInPlaceSource::Commit() {
    // The rest is in the buffer, so the end is known: a small entry takes one copy, right behind what is written.
    auto committed = Flush(0);
    committed = committed ? file_.Truncate(writeEnd_) : committed;
    if (committed) {
        isChanging_ = false;
        before_ = std::move(tail_);
    }
    return committed;
}

// Writes the directory that must survive back to its place and cuts the file behind it.
Win32Result<void> AppendInPlaceSource::Rollback() {
    buffer_.clear();
    readAhead_.clear();
    if (!isChanging_) {
        return {};
    }
    if (copyOffset_ != tail_.directoryOffset) {
        if (auto written = file_.Write(tail_.directoryOffset, tail_.bytes); !written) {
            return written;
        }
    }
    auto cut = file_.Truncate(FileSize());
    isChanging_ = !cut;
    return cut;
}

Win32Result<void> AppendInPlaceSource::RemoveOnlyEntry() {
    if (!before_ || before_->directorySize != 0) {
        return std::unexpected<DWORD>(ERROR_NOT_SUPPORTED);
    }
    ArchiveTail before = *before_;
    Start(0);
    auto taken = TakeBack(std::move(before));
    return taken ? Rollback() : taken;
}

}  // namespace Shared::FileZip
