#pragma once

#include <algorithm>
#include <limits>
#include <optional>
#include <span>
#include <string>

#include "shared.filezip-archivefile.h"
#include "zip-contents.h"

namespace TestSupport {

/// The bytes of a file, which may begin with any number of zeros; those take no memory and are never written to.
struct Image {
    std::uint64_t zeros = 0;
    std::string bytes{};

    [[nodiscard]] std::uint64_t Size() const { return zeros + bytes.size(); }
    [[nodiscard]] std::string Read(std::uint64_t offset, std::size_t count) const {
        std::string read(offset < zeros ? std::min<std::uint64_t>(count, zeros - offset) : 0, '\0');
        const std::uint64_t from = std::min<std::uint64_t>(offset + read.size() - zeros, bytes.size());
        return read + bytes.substr(from, count - read.size());
    }
    void Write(std::uint64_t offset, std::string_view written) {
        bytes.resize(std::max<std::uint64_t>(bytes.size(), offset - zeros + written.size()));
        bytes.replace(offset - zeros, written.size(), written);
    }
    bool operator==(const Image&) const = default;
};

inline void Append(std::string& record, std::initializer_list<std::pair<std::size_t, std::uint64_t>> fields) {
    for (const auto& [width, value] : fields) {
        for (std::size_t index = 0; index < width; ++index) {
            record += static_cast<char>(value >> (8 * index) & 0xff);
        }
    }
}

/// An archive without ZIP64 records that has that many zeros before its first entry.
inline Image WriteZip(const Contents& contents, std::uint64_t zeros = 0) {
    Image image{.zeros = zeros};
    std::string directory;
    for (const auto& [name, data] : contents) {
        const std::uint64_t offset = image.Size();
        const std::uint64_t checksum = Checksum(data);
        Append(image.bytes, {{4, 0x04034b50}, {2, 20}, {4, 0}, {4, 0x21 << 16}, {4, checksum}});
        Append(image.bytes, {{4, data.size()}, {4, data.size()}, {2, name.size()}, {2, 0}});
        image.bytes += name + data;
        Append(directory, {{4, 0x02014b50}, {2, 20}, {2, 20}, {4, 0}, {4, 0x21 << 16}, {4, checksum}});
        Append(directory, {{4, data.size()}, {4, data.size()}, {2, name.size()}, {8, 0}, {4, 0}, {4, offset}});
        directory += name;
    }
    const std::uint64_t size = directory.size();
    Append(directory, {{4, 0x06054b50}, {4, 0}, {2, contents.size()}, {2, contents.size()}, {4, size}});
    Append(directory, {{4, image.Size()}, {2, 0}});
    image.bytes += directory;
    return image;
}

/// A disk with one file. It notes every change, and fails on demand.
struct Disk {
    struct Change {
        /// The new size, of a change that cuts the file.
        std::optional<std::uint64_t> cut;
        std::uint64_t offset = 0;
        std::string bytes;

        /// A cut takes the step behind the last byte.
        void ApplyTo(Image& image, std::size_t count) const {
            if (!cut) {
                image.Write(offset, std::string_view(bytes).substr(0, count));
            } else if (count == bytes.size() + 1) {
                image.bytes.resize(*cut - image.zeros);
            }
        }
    };

    Image file;
    std::vector<Change> changes{};
    /// The change, counted from now on, that fails with half of it done, and whether all later ones fail too.
    std::optional<std::size_t> failing{};
    bool failsFromThenOn = false;
    /// The largest size that the file can have.
    std::uint64_t capacity = std::numeric_limits<std::uint64_t>::max();
};

using Shared::FileZip::Win32Result;

/// The file of that disk under the source that is tested.
class DiskFile : public Shared::FileZip::ArchiveFile {
public:
    explicit DiskFile(Disk& disk) : disk_(disk) {}

    [[nodiscard]] Win32Result<std::uint64_t> Size() const override { return disk_.file.Size(); }
    [[nodiscard]] Win32Result<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const override {
        const std::string bytes = disk_.file.Read(offset, to.size());
        std::ranges::copy(std::as_bytes(std::span(bytes)), to.begin());
        return bytes.size();
    }
    Win32Result<void> Write(std::uint64_t offset, std::span<const std::byte> from) override {
        return Do({std::nullopt, offset, std::string(reinterpret_cast<const char*>(from.data()), from.size())});
    }
    Win32Result<void> Truncate(std::uint64_t size) override { return Do({size, 0, {}}); }

private:
    Win32Result<void> Do(Disk::Change change) {
        const bool fails = disk_.failing && (*disk_.failing)-- == 0;
        if (fails) {
            disk_.failing = disk_.failsFromThenOn ? std::optional<std::size_t>(0) : std::nullopt;
        }
        if (fails || change.offset + change.bytes.size() > disk_.capacity) {
            change.ApplyTo(disk_.file, change.bytes.size() / 2);
            return std::unexpected<DWORD>(ERROR_DISK_FULL);
        }
        change.ApplyTo(disk_.file, change.bytes.size() + 1);
        disk_.changes.push_back(std::move(change));
        return {};
    }

    Disk& disk_;
};

}  // namespace TestSupport
