#include "shared.filezip-archivetail.h"

#include <algorithm>
#include <limits>
#include <span>
#include <utility>

namespace Shared::FileZip {

namespace {

using Bytes = std::span<const std::byte>;

/// A number in a record: where it begins, and how many bytes it has, the lowest first.
struct Field {
    std::size_t offset;
    std::size_t width;
};

namespace EndRecord {
constexpr std::size_t size = 22;
constexpr std::uint32_t mark = 0x06054b50;
constexpr Field signature{0, 4};
constexpr Field disks{4, 4};
constexpr Field entriesOnDisk{8, 2};
constexpr Field entries{10, 2};
constexpr Field directorySize{12, 4};
constexpr Field directoryOffset{16, 4};
constexpr Field commentLength{20, 2};
}  // namespace EndRecord

namespace Zip64End {
constexpr std::size_t size = 56;
constexpr std::uint32_t mark = 0x06064b50;
/// Of a record without extensions: what follows the field that says it.
constexpr std::uint64_t plainLength = size - 12;
constexpr std::uint64_t version = 45;
constexpr Field signature{0, 4};
constexpr Field length{4, 8};
constexpr Field madeBy{12, 2};
constexpr Field neededToRead{14, 2};
constexpr Field disks{16, 8};
constexpr Field entriesOnDisk{24, 8};
constexpr Field entries{32, 8};
constexpr Field directorySize{40, 8};
constexpr Field directoryOffset{48, 8};
}  // namespace Zip64End

namespace Zip64Locator {
constexpr std::size_t size = 20;
constexpr std::uint32_t mark = 0x07064b50;
constexpr Field signature{0, 4};
constexpr Field endOffset{8, 8};
constexpr Field disks{16, 4};
}  // namespace Zip64Locator

namespace DirectoryEntry {
constexpr std::size_t size = 46;
constexpr std::uint32_t mark = 0x02014b50;
constexpr Field signature{0, 4};
constexpr Field nameLength{28, 2};
constexpr Field extraLength{30, 2};
constexpr Field commentLength{32, 2};
}  // namespace DirectoryEntry

/// Both ZIP64 records, which lie right before the end record.
constexpr std::size_t zip64Size = Zip64End::size + Zip64Locator::size;
constexpr std::uint64_t max16 = std::numeric_limits<std::uint16_t>::max();
constexpr std::uint64_t max32 = std::numeric_limits<std::uint32_t>::max();

std::uint64_t Get(Bytes record, const Field& field) {
    std::uint64_t value = 0;
    for (std::size_t index = field.width; index-- > 0;) {
        value = (value << 8U) | std::to_integer<std::uint64_t>(record[field.offset + index]);
    }
    return value;
}

void Put(std::span<std::byte> record, const Field& field, std::uint64_t value) {
    for (std::size_t index = 0; index < field.width; ++index) {
        record[field.offset + index] = static_cast<std::byte>(value >> (8U * index));
    }
}

/// Exactly `size` bytes, or none at the end of the file.
Win32Result<std::vector<std::byte>> ReadBytes(const ArchiveFile& file, std::uint64_t offset, std::size_t size) {
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

/// What the end record itself says; nothing when it is none, or is that of a part of an archive.
std::optional<ArchiveTail> ParseEnd(Bytes end) {
    if (Get(end, EndRecord::signature) != EndRecord::mark || Get(end, EndRecord::disks) != 0 ||
        Get(end, EndRecord::entriesOnDisk) != Get(end, EndRecord::entries)) {
        return std::nullopt;
    }
    ArchiveTail tail;
    tail.entryCount = Get(end, EndRecord::entries);
    tail.directorySize = Get(end, EndRecord::directorySize);
    tail.directoryOffset = Get(end, EndRecord::directoryOffset);
    return tail;
}

/// Takes a number from the ZIP64 record; false when the end record states another one.
bool Widen(std::uint64_t& number, std::uint64_t limit, std::uint64_t wide) {
    const std::uint64_t narrow = std::exchange(number, wide);
    return narrow == wide || narrow == limit;
}

/// Takes over the numbers of the ZIP64 records; false when they do not agree with their place or with the end record.
bool ApplyZip64(Bytes records, std::uint64_t recordsOffset, ArchiveTail& tail) {
    return Get(records, Zip64End::signature) == Zip64End::mark &&
           Get(records, Zip64End::length) == Zip64End::plainLength && Get(records, Zip64End::disks) == 0 &&
           Get(records, Zip64End::entriesOnDisk) == Get(records, Zip64End::entries) &&
           Get(records.subspan(Zip64End::size), Zip64Locator::endOffset) == recordsOffset &&
           Widen(tail.entryCount, max16, Get(records, Zip64End::entries)) &&
           Widen(tail.directorySize, max32, Get(records, Zip64End::directorySize)) &&
           Widen(tail.directoryOffset, max32, Get(records, Zip64End::directoryOffset));
}

/// The length of the directory entry at that place; 0 when there is none.
Win32Result<std::uint64_t> EntryLengthAt(const ArchiveFile& file, std::uint64_t offset) {
    const auto entry = ReadBytes(file, offset, DirectoryEntry::size);
    if (!entry) {
        return std::unexpected(entry.error());
    }
    if (entry->empty() || Get(*entry, DirectoryEntry::signature) != DirectoryEntry::mark) {
        return 0;
    }
    return DirectoryEntry::size + Get(*entry, DirectoryEntry::nameLength) + Get(*entry, DirectoryEntry::extraLength) +
           Get(*entry, DirectoryEntry::commentLength);
}

/// The number of entries, when they follow one another up to the directory's end.
Win32Result<std::optional<std::uint64_t>> CountEntries(const ArchiveFile& file, const ArchiveTail& tail) {
    std::uint64_t offset = tail.directoryOffset;
    const std::uint64_t end = offset + tail.directorySize;
    std::uint64_t count = 0;
    for (; offset < end; ++count) {
        const auto length = EntryLengthAt(file, offset);
        if (!length) {
            return std::unexpected(length.error());
        }
        if (*length == 0) {
            return std::nullopt;
        }
        offset += *length;
    }
    return offset == end ? std::optional(count) : std::nullopt;
}

/// Whether the tail is one: its directory ends at its records and begins with an entry.
Win32Result<bool> CheckDirectory(const ArchiveFile& file, const ArchiveTail& tail, std::uint64_t recordsOffset) {
    if (tail.directorySize > recordsOffset || tail.directoryOffset != recordsOffset - tail.directorySize ||
        tail.entryCount > tail.directorySize / DirectoryEntry::size) {
        return false;
    }
    if (tail.directorySize == 0) {
        return true;
    }
    const auto first = EntryLengthAt(file, tail.directoryOffset);
    if (!first) {
        return std::unexpected(first.error());
    }
    return *first != 0;
}

/// The tail whose end record is at `position`, when it agrees with its place and ends within `limit`.
Win32Result<std::optional<ArchiveTail>> TailWithRecordAt(const ArchiveFile& file, std::uint64_t position,
                                                         std::uint64_t limit) {
    const std::size_t before = position >= zip64Size ? zip64Size : 0;
    const auto bytes = ReadBytes(file, position - before, before + EndRecord::size);
    if (!bytes) {
        return std::unexpected(bytes.error());
    }
    std::optional<ArchiveTail> tail = bytes->empty() ? std::nullopt : ParseEnd(Bytes(*bytes).subspan(before));
    if (!tail) {
        return std::nullopt;
    }
    const bool isZip64 =
        before != 0 && Get(Bytes(*bytes).subspan(Zip64End::size), Zip64Locator::signature) == Zip64Locator::mark;
    const std::uint64_t recordsOffset = isZip64 ? position - zip64Size : position;
    const std::uint64_t end = position + EndRecord::size + Get(Bytes(*bytes).subspan(before), EndRecord::commentLength);
    if (end > limit || (isZip64 && !ApplyZip64(*bytes, recordsOffset, *tail))) {
        return std::nullopt;
    }
    const auto isTail = CheckDirectory(file, *tail, recordsOffset);
    if (!isTail) {
        return std::unexpected(isTail.error());
    }
    auto records = ReadBytes(file, recordsOffset, static_cast<std::size_t>(end - recordsOffset));
    if (!records) {
        return std::unexpected(records.error());
    }
    tail->records = std::move(*records);
    return *isTail ? std::move(tail) : std::nullopt;
}

/// As TailWithRecordAt, when the directory also has the recorded number of entries.
Win32Result<std::optional<ArchiveTail>> ReadableTailAt(const ArchiveFile& file, std::uint64_t position,
                                                       std::uint64_t limit) {
    auto found = TailWithRecordAt(file, position, limit);
    if (!found) {
        return found;
    }
    std::optional<ArchiveTail>& tail = *found;
    if (!tail) {
        return found;
    }
    const auto counted = CountEntries(file, *tail);
    if (!counted) {
        return std::unexpected(counted.error());
    }
    const std::optional<std::uint64_t>& count = *counted;
    if (!count || (*count != tail->entryCount && (*count & max16) != tail->entryCount)) {
        tail.reset();
    }
    return found;
}

/// Where end records may begin, the last place first.
std::vector<std::size_t> EndSignaturesIn(Bytes bytes) {
    std::vector<std::size_t> found;
    const std::size_t width = EndRecord::signature.width;
    for (std::size_t index = bytes.size() < width ? 0 : bytes.size() - width + 1; index-- > 0;) {
        if (bytes[index] == std::byte{'P'} && Get(bytes.subspan(index), EndRecord::signature) == EndRecord::mark) {
            found.push_back(index);
        }
    }
    return found;
}

std::vector<std::byte> NewZip64Records(const ArchiveTail& tail) {
    std::vector<std::byte> records(zip64Size);
    const std::span<std::byte> end(records);
    Put(end, Zip64End::signature, Zip64End::mark);
    Put(end, Zip64End::length, Zip64End::plainLength);
    Put(end, Zip64End::madeBy, Zip64End::version);
    Put(end, Zip64End::neededToRead, Zip64End::version);
    Put(end, Zip64End::entriesOnDisk, tail.entryCount);
    Put(end, Zip64End::entries, tail.entryCount);
    Put(end, Zip64End::directorySize, tail.directorySize);
    const std::span<std::byte> locator = end.subspan(Zip64End::size);
    Put(locator, Zip64Locator::signature, Zip64Locator::mark);
    Put(locator, Zip64Locator::disks, 1);
    return records;
}

/// Looks for a tail that begins in the file's last bytes, as many as `window`, and ends with the file.
Win32Result<TailSearch> SearchTail(const ArchiveFile& file, std::uint64_t fileSize, std::uint64_t window) {
    window = std::min(window, fileSize);
    const auto bytes = ReadBytes(file, fileSize - window, static_cast<std::size_t>(window));
    if (!bytes) {
        return std::unexpected(bytes.error());
    }
    TailSearch found;
    for (const std::size_t index : EndSignaturesIn(*bytes)) {
        const Bytes record = Bytes(*bytes).subspan(index);
        if (record.size() < EndRecord::size ||
            Get(record, EndRecord::commentLength) != record.size() - EndRecord::size) {
            continue;
        }
        auto read = TailWithRecordAt(file, fileSize - record.size(), fileSize);
        if (!read) {
            return std::unexpected(read.error());
        }
        if (std::optional<ArchiveTail>& tail = *read; tail) {
            return TailSearch{FileEnd::Tail, std::move(*tail)};
        }
        found.end = FileEnd::Unsupported;
    }
    return found;
}

}  // namespace

std::vector<std::byte> ArchiveTail::RecordsFor(std::uint64_t newDirectoryOffset) const {
    const bool isZip64 = Get(records, Zip64End::signature) == Zip64End::mark;
    // A reader expects a directory without entries at the start of the file, unless ZIP64 records say where it is.
    const bool needsZip64 = newDirectoryOffset >= max32 || (directorySize == 0 && newDirectoryOffset != 0);
    std::vector<std::byte> moved = needsZip64 && !isZip64 ? NewZip64Records(*this) : std::vector<std::byte>();
    moved.insert(moved.end(), records.begin(), records.end());
    std::span<std::byte> end(moved);
    if (isZip64 || needsZip64) {
        Put(end, Zip64End::directoryOffset, newDirectoryOffset);
        Put(end.subspan(Zip64End::size), Zip64Locator::endOffset, newDirectoryOffset + directorySize);
        end = end.subspan(zip64Size);
    }
    const bool isWidened = isZip64 && Get(end, EndRecord::directoryOffset) == max32;
    Put(end, EndRecord::directoryOffset, needsZip64 || isWidened ? max32 : newDirectoryOffset);
    return moved;
}

ArchiveTail EmptyTail() {
    ArchiveTail tail;
    tail.records.resize(EndRecord::size);
    Put(tail.records, EndRecord::signature, EndRecord::mark);
    return tail;
}

Win32Result<bool> IsBeginningOfEmpty(const ArchiveFile& file) {
    std::vector<std::byte> bytes(EndRecord::size);
    const auto read = file.Read(0, bytes);
    if (!read) {
        return std::unexpected(read.error());
    }
    const ArchiveTail empty = EmptyTail();
    return *read < bytes.size() && std::ranges::equal(Bytes(bytes).first(*read), Bytes(empty.records).first(*read));
}

Win32Result<TailSearch> ReadTail(const ArchiveFile& file) {
    const auto size = file.Size();
    if (!size) {
        return std::unexpected(size.error());
    }
    // The end record is followed by a comment of any length that fits 16 bits, usually of none.
    auto found = SearchTail(file, *size, EndRecord::size);
    return found && found->end != FileEnd::Tail ? SearchTail(file, *size, EndRecord::size + max16) : std::move(found);
}

Win32Result<std::optional<ArchiveTail>> FindLastTail(const ArchiveFile& file) {
    const auto size = file.Size();
    if (!size) {
        return std::unexpected(size.error());
    }
    constexpr std::uint64_t window = std::uint64_t{1} << 20U;
    for (std::uint64_t end = *size; end > 0;) {
        const std::uint64_t start = end > window ? end - window : 0;
        // Windows overlap by what a signature lacks to be whole.
        const std::uint64_t overlap = std::min<std::uint64_t>(*size - end, EndRecord::signature.width - 1);
        const auto bytes = ReadBytes(file, start, static_cast<std::size_t>(end + overlap - start));
        if (!bytes) {
            return std::unexpected(bytes.error());
        }
        for (const std::size_t index : EndSignaturesIn(*bytes)) {
            if (auto tail = ReadableTailAt(file, start + index, *size); !tail || *tail) {
                return tail;
            }
        }
        end = start;
    }
    return std::nullopt;
}

}  // namespace Shared::FileZip
