#pragma once

#include <algorithm>
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

/// What other tools make of an archive.
struct ForeignZip {
    std::string comment{};
    bool dataDescriptors = false;
    bool zip64 = false;
    /// How many zeros stand before the first entry.
    std::uint64_t zeros = 0;
};

inline void Append(std::string& record, std::initializer_list<std::pair<std::size_t, std::uint64_t>> fields) {
    for (const auto& [width, value] : fields) {
        for (std::size_t index = 0; index < width; ++index) {
            record += static_cast<char>(value >> (8 * index) & 0xff);
        }
    }
}

inline Image WriteZip(const Contents& contents, const ForeignZip& options = {}) {
    Image image{.zeros = options.zeros};
    std::string directory;
    for (const auto& [name, data] : contents) {
        const std::uint64_t offset = image.Size();
        const std::uint64_t checksum = Checksum(data);
        const std::uint64_t flags = options.dataDescriptors ? 8 : 0;
        const std::uint64_t size = flags ? 0 : data.size();
        Append(image.bytes, {{4, 0x04034b50}, {2, 20}, {2, flags}, {2, 0}, {4, 0x21 << 16}});
        Append(image.bytes, {{4, flags ? 0 : checksum}, {4, size}, {4, size}, {2, name.size()}, {2, 0}});
        image.bytes += name + data;
        if (flags != 0) {
            Append(image.bytes, {{4, 0x08074b50}, {4, checksum}, {4, data.size()}, {4, data.size()}});
        }
        Append(directory, {{4, 0x02014b50}, {2, 20}, {2, 20}, {2, flags}, {2, 0}, {4, 0x21 << 16}, {4, checksum}});
        Append(directory, {{4, data.size()}, {4, data.size()}, {2, name.size()}, {8, 0}, {4, 0}, {4, offset}});
        directory += name;
    }
    const std::uint64_t count = contents.size();
    const std::uint64_t offset = image.Size();
    const std::uint64_t size = directory.size();
    if (options.zip64) {
        Append(directory, {{4, 0x06064b50}, {8, 44}, {2, 45}, {2, 45}, {8, 0}, {8, count}, {8, count}, {8, size}});
        Append(directory, {{8, offset}, {4, 0x07064b50}, {4, 0}, {8, offset + size}, {4, 1}});
    }
    Append(directory, {{4, 0x06054b50}, {4, 0}, {2, count}, {2, count}, {4, size}});
    Append(directory, {{4, options.zip64 ? 0xffffffff : offset}, {2, options.comment.size()}});
    image.bytes += directory + options.comment;
    return image;
}

/// A disk with one file and perhaps one beside it. It notes every change of the file, and fails on demand.
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

    std::optional<Image> file{};
    std::optional<Image> sibling{};
    std::vector<Change> changes{};
    /// The change, counted from now on, that fails with half of it done, and whether all later ones fail too.
    std::optional<std::size_t> failing{};
    bool failsFromThenOn = false;
};

using Shared::FileZip::Win32Result;

/// A file of that disk under the source that is tested.
class DiskFile : public Shared::FileZip::ArchiveFile {
public:
    explicit DiskFile(Disk& disk) : DiskFile(disk, disk.file) {}
    DiskFile(Disk& disk, std::optional<Image>& file) : disk_(disk), file_(file) {}

    Win32Result<void> Open() override {
        return file_ ? Win32Result<void>() : std::unexpected<DWORD>(ERROR_FILE_NOT_FOUND);
    }
    Win32Result<void> Create() override { return file_.emplace(), Win32Result<void>(); }
    [[nodiscard]] Win32Result<std::uint64_t> Size() const override { return file_->Size(); }
    [[nodiscard]] Win32Result<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const override {
        const std::string bytes = file_->Read(offset, to.size());
        std::ranges::copy(std::as_bytes(std::span(bytes)), to.begin());
        return bytes.size();
    }
    Win32Result<void> Write(std::uint64_t offset, std::span<const std::byte> from) override {
        return Do({std::nullopt, offset, std::string(reinterpret_cast<const char*>(from.data()), from.size())});
    }
    Win32Result<void> Truncate(std::uint64_t size) override { return Do({size, 0, {}}); }
    [[nodiscard]] Win32Result<std::unique_ptr<ArchiveFile>> CreateSibling() override {
        disk_.sibling.emplace();
        return std::make_unique<DiskFile>(disk_, disk_.sibling);
    }
    Win32Result<void> ReplaceBy(ArchiveFile&) override {
        file_ = std::exchange(disk_.sibling, std::nullopt);
        return {};
    }

private:
    Win32Result<void> Do(Disk::Change change) {
        if (disk_.failing && (*disk_.failing)-- == 0) {
            change.ApplyTo(*file_, change.bytes.size() / 2);
            disk_.failing = disk_.failsFromThenOn ? std::optional<std::size_t>(0) : std::nullopt;
            return std::unexpected<DWORD>(ERROR_DISK_FULL);
        }
        change.ApplyTo(*file_, change.bytes.size() + 1);
        if (&file_ == &disk_.file) {
            disk_.changes.push_back(std::move(change));
        }
        return {};
    }

    Disk& disk_;
    std::optional<Image>& file_;
};

}  // namespace TestSupport
