#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "shared.filezip-archivefile.h"

namespace Shared::FileZip {

/// The end of a zip file: its central directory, and behind it the records that say where the directory lies.
struct ArchiveTail {
    std::uint64_t directoryOffset = 0;
    std::uint64_t directorySize = 0;
    std::uint64_t entryCount = 0;
    /// The directory, the ZIP64 records when there are any, and the end record.
    std::vector<std::byte> bytes;

    /// The size of a file that ends in this.
    [[nodiscard]] std::uint64_t FileSize() const { return directoryOffset + bytes.size(); }

    /// The same directory for another offset, with ZIP64 records where they are needed there.
    [[nodiscard]] std::vector<std::byte> MovedTo(std::uint64_t offset) const;
};

/// The tail of an archive without entries: the whole file.
[[nodiscard]] ArchiveTail EmptyTail();

/// What the file ends in. ERROR_BAD_FORMAT unless an end record (22 bytes, or 98 with both ZIP64 records) ends the file
/// right behind the directory whose place it states.
[[nodiscard]] Win32Result<ArchiveTail> ReadTail(const ArchiveFile& file);

}  // namespace Shared::FileZip
