#include "shared.filezip-archivetail.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>

namespace Shared::FileZip {

namespace {

constexpr std::uint32_t endSignature = 0x06054b50;
constexpr std::uint32_t zip64EndSignature = 0x06064b50;
constexpr std::uint32_t zip64LocatorSignature = 0x07064b50;
constexpr std::uint32_t directorySignature = 0x02014b50;
constexpr std::size_t endSize = 22;
constexpr std::size_t zip64EndSize = 56;
constexpr std::size_t zip64LocatorSize = 20;
constexpr std::size_t zip64Size = zip64EndSize + zip64LocatorSize;
constexpr std::size_t directoryEntrySize = 46;
constexpr std::uint64_t max16 = std::numeric_limits<std::uint16_t>::max();
constexpr std::uint64_t max32 = std::numeric_limits<std::uint32_t>::max();

std::uint64_t Get(std::span<const std::byte> bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t index = width; index-- > 0;) {
        value = (value << 8U) | std::to_integer<std::uint64_t>(bytes[offset + index]);
    }
    return value;
}

void Put(std::span<std::byte> bytes, std::size_t offset, std::size_t width, std::uint64_t value) {
    for (std::size_t index = 0; index < width; ++index) {
        bytes[offset + index] = static_cast<std::byte>(value >> (8U * index));
    }
}

/// Exactly `size` bytes, or nothing at the end of the file.
FileResult<std::vector<std::byte>> ReadBytes(const ArchiveFile& file, std::uint64_t offset, std::size_t size) {
    std::vector<std::byte> bytes(size);
    const auto read = file.Read(offset, bytes);
    if (!read) {
        return std::unexpected(read.error());
    }
    if (*read != size) {
        bytes.clear();
    }
    return bytes;
}

/// The tail whose end record is at `position`, when it is true and ends within `limit`.
FileResult<std::optional<ArchiveTail>> TailWithRecordAt(const ArchiveFile& file, std::uint64_t position,
                                                        std::uint64_t limit) {
    const std::size_t before = position >= zip64Size ? zip64Size : 0;
    const auto bytes = ReadBytes(file, position - before, before + endSize);
    if (!bytes) {
        return std::unexpected(bytes.error());
    }
    if (bytes->empty()) {
        return std::optional<ArchiveTail>();
    }
    const auto end = std::span(*bytes).subspan(before);
    const std::uint64_t wholeEnd = position + endSize + Get(end, 20, 2);
    if (Get(end, 0, 4) != endSignature || wholeEnd > limit || Get(end, 8, 2) != Get(end, 10, 2)) {
        return std::optional<ArchiveTail>();
    }
    ArchiveTail tail;
    tail.entryCount = Get(end, 10, 2);
    tail.directorySize = Get(end, 12, 4);
    tail.directoryOffset = Get(end, 16, 4);
    bool consistent = Get(end, 4, 4) == 0;
    std::uint64_t recordsAt = position;
    if (before != 0 && Get(*bytes, zip64EndSize, 4) == zip64LocatorSignature) {
        const auto widened = [](std::uint64_t narrow, std::uint64_t limitOfNarrow, std::uint64_t wide) {
            return narrow == wide || narrow == limitOfNarrow;
        };
        recordsAt = position - zip64Size;
        const std::uint64_t count = Get(*bytes, 32, 8);
        const std::uint64_t size = Get(*bytes, 40, 8);
        const std::uint64_t offset = Get(*bytes, 48, 8);
        consistent = Get(*bytes, 0, 4) == zip64EndSignature && Get(*bytes, 4, 8) == zip64EndSize - 12 &&
                     Get(*bytes, 16, 8) == 0 && Get(*bytes, 24, 8) == count &&
                     Get(*bytes, zip64EndSize + 8, 8) == recordsAt && widened(tail.entryCount, max16, count) &&
                     widened(tail.directorySize, max32, size) && widened(tail.directoryOffset, max32, offset);
        tail.entryCount = count;
        tail.directorySize = size;
        tail.directoryOffset = offset;
    }
    consistent = consistent && tail.directorySize <= recordsAt &&
                 tail.directoryOffset == recordsAt - tail.directorySize &&
                 tail.entryCount <= tail.directorySize / directoryEntrySize;
    if (consistent && tail.directorySize != 0) {
        const auto first = ReadBytes(file, tail.directoryOffset, 4);
        if (!first) {
            return std::unexpected(first.error());
        }
        consistent = first->size() == 4 && Get(*first, 0, 4) == directorySignature;
    }
    if (!consistent) {
        return std::optional<ArchiveTail>();
    }
    auto records = ReadBytes(file, recordsAt, static_cast<std::size_t>(wholeEnd - recordsAt));
    if (!records) {
        return std::unexpected(records.error());
    }
    tail.records = std::move(*records);
    return tail;
}

/// Whether the directory's entries follow one another up to its end, in the number that was recorded.
FileResult<bool> IsReadable(const ArchiveFile& file, const ArchiveTail& tail) {
    std::uint64_t position = tail.directoryOffset;
    const std::uint64_t end = position + tail.directorySize;
    std::uint64_t count = 0;
    for (; position < end; ++count) {
        const auto entry = ReadBytes(file, position, directoryEntrySize);
        if (!entry) {
            return std::unexpected(entry.error());
        }
        if (entry->empty() || Get(*entry, 0, 4) != directorySignature) {
            return false;
        }
        position += directoryEntrySize + Get(*entry, 28, 2) + Get(*entry, 30, 2) + Get(*entry, 32, 2);
    }
    return position == end && (count == tail.entryCount || (count & max16) == tail.entryCount);
}

}  // namespace

std::optional<std::vector<std::byte>> ArchiveTail::RecordsFor(std::uint64_t newDirectoryOffset) const {
    const bool isZip64 = Get(records, 0, 4) == zip64EndSignature;
    // A reader expects a directory without entries at the start of the file, unless ZIP64 records say where it is.
    const bool needsZip64 = newDirectoryOffset >= max32 || (directorySize == 0 && newDirectoryOffset != 0);
    std::vector<std::byte> moved;
    if (!isZip64 && needsZip64) {
        if (directorySize / directoryEntrySize > max16) {
            return std::nullopt;
        }
        constexpr std::uint64_t version = 45;
        moved.resize(zip64Size);
        Put(moved, 0, 4, zip64EndSignature);
        Put(moved, 4, 8, zip64EndSize - 12);
        Put(moved, 12, 2, version);
        Put(moved, 14, 2, version);
        Put(moved, 24, 8, entryCount);
        Put(moved, 32, 8, entryCount);
        Put(moved, 40, 8, directorySize);
        Put(moved, zip64EndSize, 4, zip64LocatorSignature);
        Put(moved, zip64EndSize + 16, 4, 1);
    }
    moved.insert(moved.end(), records.begin(), records.end());
    std::size_t end = 0;
    if (isZip64 || needsZip64) {
        Put(moved, 48, 8, newDirectoryOffset);
        Put(moved, zip64EndSize + 8, 8, newDirectoryOffset + directorySize);
        end = zip64Size;
    }
    const bool isWidened = isZip64 && Get(moved, end + 16, 4) == max32;
    Put(moved, end + 16, 4, needsZip64 || isWidened ? max32 : newDirectoryOffset);
    return moved;
}

ArchiveTail EmptyTail() {
    ArchiveTail tail;
    tail.records.resize(endSize);
    Put(tail.records, 0, 4, endSignature);
    return tail;
}

FileResult<TailSearch> ReadTail(const ArchiveFile& file) {
    const auto size = file.Size();
    if (!size) {
        return std::unexpected(size.error());
    }
    TailSearch found;
    // The end record is followed by a comment of any length that fits 16 bits, usually of none.
    for (const std::uint64_t longestComment : {std::uint64_t{0}, max16}) {
        const std::uint64_t window = std::min<std::uint64_t>(*size, endSize + longestComment);
        const auto bytes = ReadBytes(file, *size - window, static_cast<std::size_t>(window));
        if (!bytes) {
            return std::unexpected(bytes.error());
        }
        for (std::size_t distance = endSize; distance <= bytes->size(); ++distance) {
            const auto record = std::span(*bytes).last(distance);
            if (Get(record, 0, 4) != endSignature || Get(record, 20, 2) != distance - endSize) {
                continue;
            }
            auto tail = TailWithRecordAt(file, *size - distance, *size);
            if (!tail) {
                return std::unexpected(tail.error());
            }
            if (std::optional<ArchiveTail>& whole = *tail; whole) {
                return TailSearch{FileEnd::Tail, std::move(*whole)};
            }
            found.end = FileEnd::Foreign;
        }
    }
    return found;
}

FileResult<bool> IsBeginningOfEmpty(const ArchiveFile& file) {
    std::vector<std::byte> bytes(endSize);
    const auto read = file.Read(0, bytes);
    if (!read) {
        return std::unexpected(read.error());
    }
    const ArchiveTail empty = EmptyTail();
    return *read < endSize && std::ranges::equal(std::span(bytes).first(*read), std::span(empty.records).first(*read));
}

FileResult<std::optional<ArchiveTail>> FindLastTail(const ArchiveFile& file) {
    const auto size = file.Size();
    if (!size) {
        return std::unexpected(size.error());
    }
    constexpr std::uint64_t window = std::uint64_t{1} << 20U;
    for (std::uint64_t end = *size; end > 0;) {
        const std::uint64_t start = end > window ? end - window : 0;
        // Windows overlap by what a signature lacks to be whole.
        const auto bytes = ReadBytes(file, start, static_cast<std::size_t>(std::min(end + 3, *size) - start));
        if (!bytes) {
            return std::unexpected(bytes.error());
        }
        for (std::size_t index = bytes->size() < 4 ? 0 : bytes->size() - 3; index-- > 0;) {
            if ((*bytes)[index] != std::byte{'P'} || Get(*bytes, index, 4) != endSignature) {
                continue;
            }
            auto tail = TailWithRecordAt(file, start + index, *size);
            if (!tail) {
                return tail;
            }
            const std::optional<ArchiveTail>& whole = *tail;
            if (!whole) {
                continue;
            }
            const auto readable = IsReadable(file, *whole);
            if (!readable) {
                return std::unexpected(readable.error());
            }
            if (*readable) {
                return tail;
            }
        }
        end = start;
    }
    return std::optional<ArchiveTail>();
}

}  // namespace Shared::FileZip
