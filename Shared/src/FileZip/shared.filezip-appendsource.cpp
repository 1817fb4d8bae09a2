#include "shared.filezip-appendsource.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

namespace Shared::FileZip {

namespace {

constexpr std::size_t bufferSize = std::size_t{1} << 20U;
constexpr std::size_t readAheadSize = std::size_t{64} << 10U;
/// How far ahead of growing data the copy of the directory is put. The gap is filled with zeros first by some file
/// systems, so it is kept small, but large against the copy, whose writing it saves.
constexpr std::uint64_t smallestSpare = std::uint64_t{4} << 20U;
constexpr std::uint64_t spareDirectories = 32;

}  // namespace

AppendInPlaceSource::AppendInPlaceSource(ArchiveFile& file) : file_(file) {
    zip_error_init(&error_);
}

Win32Result<void> AppendInPlaceSource::OpenExisting() {
    readAhead_.clear();
    if (auto opened = file_.Open(); !opened) {
        return opened;
    }
    const auto size = file_.Size();
    if (!size) {
        return std::unexpected(size.error());
    }
    size_ = *size;
    return {};
}

Win32Result<void> AppendInPlaceSource::WriteEmpty(ArchiveFile& file) {
    const ArchiveTail tail = EmptyTail();
    size_ = tail.Size();
    return file.Write(0, tail.records);
}

Win32Result<void> AppendInPlaceSource::Create() {
    auto created = file_.Create();
    return created ? WriteEmpty(file_) : created;
}

Win32Result<void> AppendInPlaceSource::Prepare() {
    ClearFailure();
    // What could not be undone at once: readers would take either end for the true one.
    if (auto restored = RestoreTail(); !restored) {
        return restored;
    }
    if (auto opened = OpenExisting(); !opened) {
        return opened;
    }
    const auto end = ReadTail(file_);
    if (!end) {
        return std::unexpected(end.error());
    }
    return end->end == FileEnd::Torn ? Repair() : Win32Result<void>();
}

Win32Result<void> AppendInPlaceSource::Repair() {
    const auto isBeginning = IsBeginningOfEmpty(file_);
    if (!isBeginning) {
        return std::unexpected(isBeginning.error());
    }
    if (*isBeginning) {
        return WriteEmpty(file_);
    }
    const auto found = FindLastTail(file_);
    if (!found) {
        return std::unexpected(found.error());
    }
    const std::optional<ArchiveTail>& last = *found;
    if (!last) {
        return std::unexpected<DWORD>(ERROR_BAD_FORMAT);
    }
    size_ = last->End();
    return file_.Truncate(size_);
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
            return Done(OpenExisting(), ZIP_ER_OPEN);
        case ZIP_SOURCE_READ:
            return Read(bytes());
        case ZIP_SOURCE_SEEK:
            return Seek(data, length);
        case ZIP_SOURCE_TELL:
            return static_cast<zip_int64_t>(readOffset_);
        case ZIP_SOURCE_CLOSE:
        case ZIP_SOURCE_FREE:
            // The file stays open between two archives: another process must not replace it.
            return 0;
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&error_, data, length);
        case ZIP_SOURCE_BEGIN_WRITE:
            ClearFailure();
            return Done(Begin(), ZIP_ER_TMPOPEN);
        case ZIP_SOURCE_BEGIN_WRITE_CLONING:
            ClearFailure();
            return BeginClone(length);
        case ZIP_SOURCE_WRITE:
            return Write(bytes());
        case ZIP_SOURCE_SEEK_WRITE:
            return SeekWrite(data, length);
        case ZIP_SOURCE_TELL_WRITE:
            return static_cast<zip_int64_t>(writeOffset_);
        case ZIP_SOURCE_COMMIT_WRITE:
            return Done(Commit(), ZIP_ER_WRITE);
        case ZIP_SOURCE_ROLLBACK_WRITE:
            return Done(Rollback(), ZIP_ER_WRITE);
        case ZIP_SOURCE_REMOVE:
            // libzip calls this when the last entry has been deleted.
            return Done(ReplaceByEmpty(), ZIP_ER_REMOVE);
        default:
            zip_error_set(&error_, ZIP_ER_OPNOTSUPP, 0);
            return -1;
    }
}

zip_int64_t AppendInPlaceSource::Fail(int zipError, DWORD code) {
    // What fails while a failure is being undone is not the reason.
    if (failure_ == ERROR_SUCCESS) {
        failure_ = code;
    }
    zip_error_set(&error_, zipError, code == ERROR_DISK_FULL ? ENOSPC : EIO);
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
    if (const auto opened = OpenExisting(); !opened) {
        return Fail(ZIP_ER_OPEN, opened.error());
    }
    zip_stat_init(&stat);
    stat.size = size_;
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

zip_int64_t AppendInPlaceSource::Seek(void* data, zip_uint64_t length) {
    const zip_int64_t offset = zip_source_seek_compute_offset(readOffset_, size_, data, length, &error_);
    if (offset < 0) {
        return -1;
    }
    readOffset_ = static_cast<std::uint64_t>(offset);
    return 0;
}

zip_int64_t AppendInPlaceSource::SeekWrite(void* data, zip_uint64_t length) {
    const zip_int64_t offset = zip_source_seek_compute_offset(writeOffset_, writeEnd_, data, length, &error_);
    if (offset < 0) {
        return -1;
    }
    writeOffset_ = static_cast<std::uint64_t>(offset);
    return 0;
}

zip_int64_t AppendInPlaceSource::BeginClone(std::uint64_t keep) {
    auto found = ReadTail(file_);
    if (!found) {
        return Fail(ZIP_ER_READ, found.error());
    }
    // Anything between the entries and the directory, or behind it, would not survive being written over.
    if (found->end != FileEnd::Tail || found->tail.directoryOffset != keep) {
        zip_error_set(&error_, ZIP_ER_OPNOTSUPP, 0);
        return -1;
    }
    StartInPlace(std::move(found->tail));
    writeOffset_ = bufferOffset_ = writeEnd_ = keep;
    return 0;
}

Win32Result<void> AppendInPlaceSource::Begin() {
    auto found = ReadTail(file_);
    if (!found) {
        return std::unexpected(found.error());
    }
    if (found->end == FileEnd::Tail && found->tail.directorySize == 0) {
        StartInPlace(std::move(found->tail));
        return {};
    }
    auto replacement = file_.CreateSibling();
    if (!replacement) {
        return std::unexpected(replacement.error());
    }
    replacement_ = std::move(*replacement);
    writeOffset_ = bufferOffset_ = writeEnd_ = 0;
    return {};
}

Win32Result<void> AppendInPlaceSource::ReplaceByEmpty() {
    const auto replacement = file_.CreateSibling();
    if (!replacement) {
        return std::unexpected(replacement.error());
    }
    auto written = WriteEmpty(**replacement);
    return written ? file_.ReplaceBy(**replacement) : written;
}

void AppendInPlaceSource::StartInPlace(ArchiveTail tail) {
    inPlace_ = true;
    tail_ = std::move(tail);
    copyOffset_ = tail_.directoryOffset;
    copyEnd_ = tail_.End();
    writeOffset_ = bufferOffset_ = writeEnd_ = 0;
}

zip_int64_t AppendInPlaceSource::Write(std::span<const std::byte> from) {
    const auto total = static_cast<zip_int64_t>(from.size());
    while (!from.empty()) {
        const bool continues = writeOffset_ >= bufferOffset_ && writeOffset_ - bufferOffset_ <= buffer_.size();
        if (!continues || buffer_.size() >= bufferSize) {
            if (const auto flushed = Flush(std::max(smallestSpare, spareDirectories * tail_.Size())); !flushed) {
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
    if (inPlace_) {
        const std::uint64_t end = bufferOffset_ + buffer_.size();
        auto room = MakeRoom(end, spare);
        if (!room && spare != 0) {
            // A disk that is nearly full may still hold what is really needed.
            room = MakeRoom(end, 0);
        }
        if (!room) {
            return room;
        }
    }
    if (auto written = (replacement_ ? *replacement_ : file_).Write(bufferOffset_, buffer_); !written) {
        return written;
    }
    bufferOffset_ += buffer_.size();
    buffer_.clear();
    return {};
}

/// Moves the copy of the directory so that the file can be written up to `end`, and `spare` beyond.
Win32Result<void> AppendInPlaceSource::MakeRoom(std::uint64_t end, std::uint64_t spare) {
    if (end <= copyOffset_) {
        return {};
    }
    // The present copy is what counts until the next one is whole.
    const std::uint64_t next = std::max(end + spare, copyEnd_);
    const std::vector<std::byte> records = tail_.RecordsFor(next);
    if (auto copied = CopyTail(copyOffset_, next, records); !copied) {
        [[maybe_unused]] const auto cut = file_.Truncate(copyEnd_);
        return copied;
    }
    copyOffset_ = next;
    copyEnd_ = next + tail_.directorySize + records.size();
    return {};
}

/// One write: a file that ended between two would have no end record.
Win32Result<void> AppendInPlaceSource::CopyTail(std::uint64_t from, std::uint64_t to,
                                                std::span<const std::byte> records) {
    std::vector<std::byte> copy(static_cast<std::size_t>(tail_.directorySize));
    const auto read = file_.Read(from, copy);
    if (!read) {
        return std::unexpected(read.error());
    }
    if (*read != copy.size()) {
        return std::unexpected<DWORD>(ERROR_HANDLE_EOF);
    }
    copy.insert(copy.end(), records.begin(), records.end());
    return file_.Write(to, copy);
}

Win32Result<void> AppendInPlaceSource::Commit() {
    auto committed = replacement_ ? Flush(0) : CommitInPlace();
    if (!committed) {
        return committed;
    }
    if (replacement_) {
        if (committed = file_.ReplaceBy(*replacement_); !committed) {
            return committed;
        }
        replacement_.reset();
    }
    size_ = writeEnd_;
    inPlace_ = false;
    buffer_.clear();
    readAhead_.clear();
    return {};
}

Win32Result<void> AppendInPlaceSource::CommitInPlace() {
    if (!inPlace_) {
        return std::unexpected<DWORD>(ERROR_INVALID_STATE);
    }
    // The rest is in the buffer, so the end is known: a small entry takes one copy, right behind what is written.
    if (auto written = Flush(0); !written) {
        return written;
    }
    return file_.Truncate(writeEnd_);
}

Win32Result<void> AppendInPlaceSource::Rollback() {
    buffer_.clear();
    readAhead_.clear();
    replacement_.reset();
    return RestoreTail();
}

Win32Result<void> AppendInPlaceSource::RestoreTail() {
    if (!inPlace_) {
        return {};
    }
    if (copyOffset_ != tail_.directoryOffset) {
        if (auto copied = CopyTail(copyOffset_, tail_.directoryOffset, tail_.records); !copied) {
            return copied;
        }
    }
    auto cut = file_.Truncate(tail_.End());
    inPlace_ = !cut;
    return cut;
}

}  // namespace Shared::FileZip
