#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "shared.filezip-archivefile.h"

namespace Shared::FileZip {

/// The end of a zip file: its central directory, and behind it the records that say where the directory lies.
struct ArchiveTail {
    std::uint64_t directoryOffset = 0;
    std::uint64_t directorySize = 0;
    /// As recorded, which without ZIP64 records may be the count modulo 65,536. Counted where the end record says
    /// 65,535.
    std::uint64_t entryCount = 0;
    /// The ZIP64 records when there are any, the end record and the archive's comment.
    std::vector<std::byte> records;

    [[nodiscard]] std::uint64_t Size() const { return directorySize + records.size(); }
    [[nodiscard]] std::uint64_t End() const { return directoryOffset + Size(); }

    /// The records of the same directory lying at another offset, with ZIP64 records where that offset asks for them.
    [[nodiscard]] std::vector<std::byte> RecordsFor(std::uint64_t newDirectoryOffset) const;
};

/// The tail of an archive without entries, at the start of the file.
[[nodiscard]] ArchiveTail EmptyTail();

enum class FileEnd : std::uint8_t {
    Tail,         ///< a directory and end records that agree with each other and with their places
    Unsupported,  ///< an end record, but not of a kind that this program writes or may move
    Torn,         ///< no end record
};

struct TailSearch {
    FileEnd end = FileEnd::Torn;
    /// Only with FileEnd::Tail.
    ArchiveTail tail;
};

/// What the file ends in.
[[nodiscard]] Win32Result<TailSearch> ReadTail(const ArchiveFile& file);

/// Whether the file is but the beginning of an archive without entries, cut short.
[[nodiscard]] Win32Result<bool> IsBeginningOfEmpty(const ArchiveFile& file);

/// The last tail anywhere in the file whose directory can be read from entry to entry; nothing when there is none.
[[nodiscard]] Win32Result<std::optional<ArchiveTail>> FindLastTail(const ArchiveFile& file);

}  // namespace Shared::FileZip
