#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "shared.filezip-archivefile.h"

namespace TestSupport {

/// The bytes of a file, of any size as long as most of them are zero.
class Image {
public:
    [[nodiscard]] std::uint64_t Size() const { return size_; }
    [[nodiscard]] std::string Read(std::uint64_t offset, std::size_t count) const;
    void Write(std::uint64_t offset, std::string_view bytes);
    void Truncate(std::uint64_t size);
    bool operator==(const Image&) const = default;

private:
    static constexpr std::uint64_t blockSize = 1U << 16U;
    std::map<std::uint64_t, std::string> blocks_;
    std::uint64_t size_ = 0;
};

/// Name and data of each entry.
using Contents = std::vector<std::pair<std::string, std::string>>;

/// Long data as its size and checksum, for comparing and for messages that can be read.
[[nodiscard]] std::string Brief(const std::string& data);

/// Name and data (in brief) of every entry, read by code that shares nothing with libzip. Strict: the file has to end
/// in an end record, every offset and header has to be where the records say, and every checksum has to hold (data of
/// more than 64 MB is not looked at). A fault comes back as the only entry.
[[nodiscard]] Contents ReadZip(const Image& image);

/// What other tools make of an archive.
struct ForeignZip {
    std::string comment{};
    bool dataDescriptors = false;
    bool zip64 = false;
    /// Bytes of zeros stored as the first entry "hole"; its checksum is wrong when there are any.
    std::uint64_t hole = 0;
};
[[nodiscard]] Image WriteZip(const Contents& contents, const ForeignZip& options = {});

/// A disk with one file, which notes every change and fails on demand.
struct Disk {
    struct Change {
        std::optional<std::uint64_t> cut;
        std::uint64_t offset = 0;
        std::string bytes;
        void ApplyTo(Image& image, std::size_t count) const;
    };

    std::optional<Image> file{};
    std::vector<Change> changes{};
    /// The change, counted from now on, that fails with half of it done, and whether all later ones fail too.
    std::optional<std::size_t> failing{};
    bool failsFromThenOn = false;
    std::size_t siblings = 0;
};

/// A file of that disk under the source that is tested.
class DiskFile final : public Shared::FileZip::ArchiveFile {
public:
    template <class T>
    using Result = Shared::FileZip::FileResult<T>;

    explicit DiskFile(Disk& disk, bool isSibling = false) : disk_(disk), isSibling_(isSibling) {}
    ~DiskFile() override { disk_.siblings -= isSibling_ ? 1U : 0U; }

    Result<void> Open() override;
    Result<void> Create() override;
    void Close() noexcept override {}
    Result<void> Remove() override;
    [[nodiscard]] Result<std::uint64_t> Size() const override { return Target().Size(); }
    [[nodiscard]] Result<std::size_t> Read(std::uint64_t offset, std::span<std::byte> to) const override;
    Result<void> Write(std::uint64_t offset, std::span<const std::byte> from) override;
    Result<void> Truncate(std::uint64_t size) override;
    [[nodiscard]] Result<std::unique_ptr<ArchiveFile>> CreateSibling() override;
    Result<void> ReplaceBy(ArchiveFile& sibling) override;

private:
    [[nodiscard]] Image& Target() { return isSibling_ ? own_ : *disk_.file; }
    [[nodiscard]] const Image& Target() const { return isSibling_ ? own_ : *disk_.file; }
    Result<void> Do(Disk::Change change);

    Disk& disk_;
    bool isSibling_;
    Image own_;
};

}  // namespace TestSupport
