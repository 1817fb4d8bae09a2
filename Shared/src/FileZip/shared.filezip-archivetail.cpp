#include "shared.filezip-archivetail.h"

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <optional>
#include <span>
#include <utility>

namespace Shared::FileZip {

namespace {

using Bytes = std::span<const std::byte>;

// A number in a record: where it begins, and how many bytes it has, the lowest first.
struct Field {
    std::size_t offset;
    std::size_t width;
};

namespace EndRecord {
constexpr std::size_t size = 22;
constexpr std::uint32_t mark = 0x06054b50;
constexpr Field entries{10, 2};
constexpr Field directorySize{12, 4};
constexpr Field directoryOffset{16, 4};
constexpr Field commentLength{20, 2};
}  // namespace EndRecord

// The end record and the locator of ZIP64, which lie right before the end record.
namespace Zip64 {
constexpr std::size_t locator = 56;
constexpr std::size_t size = locator + 20;
constexpr std::uint32_t mark = 0x06064b50;
constexpr std::uint32_t locatorMark = 0x07064b50;
constexpr std::uint64_t version = 45;
constexpr Field entries{32, 8};
constexpr Field directorySize{40, 8};
constexpr Field directoryOffset{48, 8};
}  // namespace Zip64

constexpr Field signature{0, 4};
constexpr std::uint64_t firstRead = std::uint64_t{64} << 10U;
constexpr std::uint64_t max16 = std::numeric_limits<std::uint16_t>::max();
constexpr std::uint64_t max32 = std::numeric_limits<std::uint32_t>::max();

std::uint64_t Get(Bytes record, const Field& field) {
    std::uint64_t value = 0;
    for (std::size_t index = field.width; index-- > 0;) {
        value = (value << 8U) | std::to_integer<std::uint64_t>(record[field.offset + index]);
    }
    return value;
}

struct Number {
    std::size_t width;
    std::uint64_t value;
};

void Append(std::vector<std::byte>& bytes, std::initializer_list<Number> numbers) {
    for (const Number& number : numbers) {
        for (std::size_t index = 0; index < number.width; ++index) {
            bytes.push_back(static_cast<std::byte>(number.value >> (8U * index)));
        }
    }
}

Win32Result<std::vector<std::byte>> ReadBytes(const ArchiveFile& file, std::uint64_t offset, std::uint64_t size) {
    std::vector<std::byte> bytes(static_cast<std::size_t>(size));
    const auto read = file.Read(offset, bytes);
    if (!read || *read != bytes.size()) {
        return std::unexpected(read ? DWORD{ERROR_HANDLE_EOF} : read.error());
    }
    return bytes;
}

// What the last bytes of a file of that size say, still without the directory and records themselves.
std::optional<ArchiveTail> ParseEnd(Bytes end, std::uint64_t fileSize) {
    if (end.size() < EndRecord::size) {
        return std::nullopt;
    }
    const Bytes record = end.last(EndRecord::size);
    if (Get(record, signature) != EndRecord::mark || Get(record, EndRecord::commentLength) != 0) {
        return std::nullopt;
    }
    const bool isZip64 = end.size() == Zip64::size + EndRecord::size && Get(end, signature) == Zip64::mark &&
                         Get(end.subspan(Zip64::locator), signature) == Zip64::locatorMark;
    const std::uint64_t recordsOffset = fileSize - (isZip64 ? end.size() : record.size());
    ArchiveTail tail;
    tail.entryCount = isZip64 ? Get(end, Zip64::entries) : Get(record, EndRecord::entries);
    tail.directorySize = isZip64 ? Get(end, Zip64::directorySize) : Get(record, EndRecord::directorySize);
    tail.directoryOffset = isZip64 ? Get(end, Zip64::directoryOffset) : Get(record, EndRecord::directoryOffset);
    const bool isInPlace =
        tail.directorySize <= recordsOffset && tail.directoryOffset == recordsOffset - tail.directorySize;
    return isInPlace ? std::optional(std::move(tail)) : std::nullopt;
}

}  // namespace

std::vector<std::byte> ArchiveTail::MovedTo(std::uint64_t offset) const {
    std::vector<std::byte> moved(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(directorySize));
    const bool isZip64 = entryCount >= max16 || directorySize >= max32 || offset >= max32;
    if (isZip64) {
        Append(moved, {{4, Zip64::mark}, {8, Zip64::locator - 12}, {2, Zip64::version}, {2, Zip64::version}, {8, 0}});
        Append(moved, {{8, entryCount}, {8, entryCount}, {8, directorySize}, {8, offset}});
        Append(moved, {{4, Zip64::locatorMark}, {4, 0}, {8, offset + directorySize}, {4, 1}});
    }
    const std::uint64_t count = std::min(entryCount, max16);
    Append(moved, {{4, EndRecord::mark}, {4, 0}, {2, count}, {2, count}});
    Append(moved, {{4, std::min(directorySize, max32)}, {4, isZip64 ? max32 : offset}, {2, 0}});
    return moved;
}

ArchiveTail EmptyTail() {
    ArchiveTail tail;
    tail.bytes = tail.MovedTo(0);
    return tail;
}

Win32Result<ArchiveTail> ReadTail(const ArchiveFile& file) {
    const auto size = file.Size();
    if (!size) {
        return std::unexpected(size.error());
    }
    // Mostly the directory is in what is read first.
    const std::uint64_t endSize = std::min(*size, firstRead);
    const auto end = ReadBytes(file, *size - endSize, endSize);
    if (!end) {
        return std::unexpected(end.error());
    }
    std::optional<ArchiveTail> tail =
        ParseEnd(Bytes(*end).last(std::min(end->size(), Zip64::size + EndRecord::size)), *size);
    if (!tail) {
        return std::unexpected<DWORD>(ERROR_BAD_FORMAT);
    }
    const std::uint64_t tailSize = *size - tail->directoryOffset;
    if (tailSize <= endSize) {
        tail->bytes.assign(end->end() - static_cast<std::ptrdiff_t>(tailSize), end->end());
        return *std::move(tail);
    }
    auto bytes = ReadBytes(file, tail->directoryOffset, tailSize);
    if (!bytes) {
        return std::unexpected(bytes.error());
    }
    tail->bytes = *std::move(bytes);
    return *std::move(tail);
}

}  // namespace Shared::FileZip
