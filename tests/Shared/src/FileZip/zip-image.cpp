#include "zip-image.h"

#include <fmt/format.h>
#include <zlib.h>

#include <stdexcept>
#include <string_view>

namespace TestSupport {

namespace {

constexpr std::uint64_t max32 = 0xffffffff;

void Require(bool condition, const char* fault) {
    if (!condition) {
        throw std::runtime_error(fault);
    }
}

std::uint64_t Number(std::string_view bytes, std::size_t offset, std::size_t width) {
    Require(offset + width <= bytes.size(), "a record is cut short");
    std::uint64_t value = 0;
    for (std::size_t index = width; index-- > 0;) {
        value = value << 8U | static_cast<unsigned char>(bytes[offset + index]);
    }
    return value;
}

void Append(std::string& record, std::initializer_list<std::pair<std::size_t, std::uint64_t>> fields) {
    for (const auto& [width, value] : fields) {
        for (std::size_t index = 0; index < width; ++index) {
            record += static_cast<char>(value >> (8 * index) & 0xff);
        }
    }
}

std::uint32_t Checksum(std::string_view data) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

std::string Inflated(std::string data, std::uint64_t size) {
    std::string result(size + 1, '\0');
    z_stream stream{};
    stream.next_in = reinterpret_cast<Bytef*>(data.data());
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = static_cast<uInt>(result.size());
    Require(inflateInit2(&stream, -MAX_WBITS) == Z_OK, "no memory");
    const int status = inflate(&stream, Z_FINISH);
    inflateEnd(&stream);
    Require(status == Z_STREAM_END && stream.total_out == size && stream.avail_in == 0, "the data is damaged");
    result.resize(size);
    return result;
}

}  // namespace

std::string Image::Read(std::uint64_t offset, std::size_t count) const {
    std::string bytes(offset < size_ ? static_cast<std::size_t>(std::min<std::uint64_t>(count, size_ - offset)) : 0,
                      '\0');
    for (std::size_t done = 0; done < bytes.size();) {
        const auto from = static_cast<std::size_t>((offset + done) % blockSize);
        const std::size_t part = std::min<std::size_t>(bytes.size() - done, blockSize - from);
        if (const auto block = blocks_.find((offset + done) / blockSize); block != blocks_.end()) {
            bytes.replace(done, part, block->second, from, part);
        }
        done += part;
    }
    return bytes;
}

void Image::Write(std::uint64_t offset, std::string_view bytes) {
    size_ = std::max(size_, offset + bytes.size());
    while (!bytes.empty()) {
        const auto to = static_cast<std::size_t>(offset % blockSize);
        const std::string_view part = bytes.substr(0, blockSize - to);
        auto& block = blocks_.try_emplace(offset / blockSize, std::string(blockSize, '\0')).first->second;
        block.replace(to, part.size(), part);
        offset += part.size();
        bytes.remove_prefix(part.size());
    }
}

void Image::Truncate(std::uint64_t size) {
    size_ = size;
    blocks_.erase(blocks_.lower_bound((size + blockSize - 1) / blockSize), blocks_.end());
    if (const auto last = blocks_.find(size / blockSize); last != blocks_.end()) {
        std::ranges::fill(last->second.begin() + static_cast<std::ptrdiff_t>(size % blockSize), last->second.end(),
                          '\0');
    }
}

std::string Brief(const std::string& data) {
    return data.size() < 50 ? data : fmt::format("{} bytes with checksum {:x}", data.size(), Checksum(data));
}

namespace {

Contents ReadStrictly(const Image& image) {
    const std::size_t window = static_cast<std::size_t>(std::min<std::uint64_t>(image.Size(), 22 + 0xffff));
    const std::string end = image.Read(image.Size() - window, window);
    Require(window >= 22, "the file is too short");
    std::size_t at = end.rfind("PK\5\6", window - 22);
    while (at != std::string::npos && Number(end, at + 20, 2) != end.size() - at - 22) {
        at = at == 0 ? std::string::npos : end.rfind("PK\5\6", at - 1);
    }
    Require(at != std::string::npos, "the file does not end in an end record");
    std::uint64_t count = Number(end, at + 10, 2);
    std::uint64_t size = Number(end, at + 12, 4);
    std::uint64_t offset = Number(end, at + 16, 4);
    std::uint64_t records = image.Size() - window + at;
    if (const std::string locator = records < 20 ? "" : image.Read(records - 20, 20); locator.starts_with("PK\6\7")) {
        const std::string wide = image.Read(Number(locator, 8, 8), 56);
        Require(wide.starts_with("PK\6\6") && Number(locator, 8, 8) + 76 == records, "the ZIP64 records disagree");
        records -= 76;
        count = Number(wide, 32, 8);
        size = Number(wide, 40, 8);
        offset = Number(wide, 48, 8);
    } else {
        Require(offset != max32, "ZIP64 records are missing");
    }
    Require(offset + size == records, "the directory is not where the end record says");

    Contents contents;
    const std::string directory = image.Read(offset, static_cast<std::size_t>(size));
    std::size_t entry = 0;
    for (; entry < directory.size();) {
        const std::size_t nameSize = Number(directory, entry + 28, 2);
        const std::size_t extraSize = Number(directory, entry + 30, 2);
        Require(directory.substr(entry, 4) == "PK\1\2", "the directory is damaged");
        const std::string name = directory.substr(entry + 46, nameSize);
        std::uint64_t packed = Number(directory, entry + 20, 4);
        std::uint64_t unpacked = Number(directory, entry + 24, 4);
        std::uint64_t header = Number(directory, entry + 42, 4);
        std::size_t extra = entry + 46 + nameSize + 4;
        for (std::uint64_t* field : {&unpacked, &packed, &header}) {
            if (*field == max32) {
                *field = Number(directory, extra, 8);
                extra += 8;
            }
        }
        const std::string local = image.Read(header, 30 + nameSize);
        Require(local.starts_with("PK\3\4") && local.substr(30) == name, "a local header is damaged");
        std::string data;
        if (packed < 64U << 20U) {
            data = image.Read(header + 30 + nameSize + Number(local, 28, 2), static_cast<std::size_t>(packed));
            Require(data.size() == packed, "the data is cut short");
            data = Number(directory, entry + 10, 2) == 0 ? data : Inflated(data, unpacked);
            Require(Checksum(data) == Number(directory, entry + 16, 4), "a checksum does not hold");
        }
        contents.emplace_back(name, Brief(data));
        entry += 46 + nameSize + extraSize + Number(directory, entry + 32, 2);
    }
    Require(entry == directory.size() && contents.size() == count, "the directory has another number of entries");
    return contents;
}

}  // namespace

Contents ReadZip(const Image& image) {
    try {
        return ReadStrictly(image);
    } catch (const std::exception& fault) {
        return {{"fault", fault.what()}};
    }
}

Image WriteZip(const Contents& contents, const ForeignZip& options) {
    Image image;
    std::string file;
    std::string directory;
    std::uint64_t count = 0;
    const auto add = [&](const std::string& name, const std::string& data, std::uint64_t size) {
        const std::uint64_t flags = options.dataDescriptors ? 8 : 0;
        const std::uint64_t checksum = Checksum(data);
        const std::uint64_t offset = image.Size();
        std::string header;
        Append(header, {{4, 0x04034b50}, {2, 20}, {2, flags}, {2, 0}, {4, 0x21 << 16}});
        Append(header,
               {{4, flags ? 0 : checksum}, {4, flags ? 0 : size}, {4, flags ? 0 : size}, {2, name.size()}, {2, 0}});
        image.Write(offset, header + name + data);
        if (size != data.size()) {
            image.Truncate(offset + header.size() + name.size() + size);
        }
        if (flags != 0) {
            std::string descriptor;
            Append(descriptor, {{4, 0x08074b50}, {4, checksum}, {4, size}, {4, size}});
            image.Write(image.Size(), descriptor);
        }
        Append(directory, {{4, 0x02014b50}, {2, 20}, {2, 20}, {2, flags}, {2, 0}, {4, 0x21 << 16}, {4, checksum}});
        Append(directory, {{4, size}, {4, size}, {2, name.size()}, {8, 0}, {4, 0}, {4, offset}});
        directory += name;
        ++count;
    };
    if (options.hole != 0) {
        add("hole", "", options.hole);
    }
    for (const auto& [name, data] : contents) {
        add(name, data, data.size());
    }
    const std::uint64_t offset = image.Size();
    if (options.zip64) {
        const std::uint64_t end = offset + directory.size();
        const std::uint64_t size = directory.size();
        Append(directory, {{4, 0x06064b50}, {8, 44}, {2, 45}, {2, 45}, {8, 0}, {8, count}, {8, count}, {8, size}});
        Append(directory, {{8, offset}, {4, 0x07064b50}, {4, 0}, {8, end}, {4, 1}});
        Append(directory, {{4, 0x06054b50}, {4, 0}, {2, count}, {2, count}, {4, size}, {4, max32}});
    } else {
        const std::uint64_t size = directory.size();
        Append(directory, {{4, 0x06054b50}, {4, 0}, {2, count}, {2, count}, {4, size}, {4, offset}});
    }
    Append(directory, {{2, options.comment.size()}});
    image.Write(offset, directory + options.comment);
    return image;
}

void Disk::Change::ApplyTo(Image& image, std::size_t count) const {
    if (!cut) {
        image.Write(offset, std::string_view(bytes).substr(0, count));
    } else if (count == bytes.size() + 1) {
        image.Truncate(*cut);
    }
}

DiskFile::Result<void> DiskFile::Do(Disk::Change change) {
    if (disk_.failing) {
        const bool fails = *disk_.failing == 0;
        *disk_.failing -= fails ? 0 : 1;
        if (fails) {
            change.ApplyTo(Target(), change.bytes.size() / 2);
            if (!disk_.failsFromThenOn) {
                disk_.failing.reset();
            }
            return std::unexpected<DWORD>(ERROR_DISK_FULL);
        }
    }
    change.ApplyTo(Target(), change.bytes.size() + 1);
    if (!isSibling_) {
        disk_.changes.push_back(std::move(change));
    }
    return {};
}

DiskFile::Result<void> DiskFile::Open() {
    if (!disk_.file) {
        return std::unexpected<DWORD>(ERROR_FILE_NOT_FOUND);
    }
    return {};
}

DiskFile::Result<void> DiskFile::Create() {
    disk_.file.emplace();
    return {};
}

DiskFile::Result<void> DiskFile::Remove() {
    disk_.file.reset();
    return {};
}

DiskFile::Result<std::size_t> DiskFile::Read(std::uint64_t offset, std::span<std::byte> to) const {
    const std::string bytes = Target().Read(offset, to.size());
    std::ranges::copy(std::as_bytes(std::span(bytes)), to.begin());
    return bytes.size();
}

DiskFile::Result<void> DiskFile::Write(std::uint64_t offset, std::span<const std::byte> from) {
    return Do({std::nullopt, offset, std::string(reinterpret_cast<const char*>(from.data()), from.size())});
}

DiskFile::Result<void> DiskFile::Truncate(std::uint64_t size) {
    return Do({size, 0, {}});
}

DiskFile::Result<std::unique_ptr<Shared::FileZip::ArchiveFile>> DiskFile::CreateSibling() {
    ++disk_.siblings;
    return std::make_unique<DiskFile>(disk_, true);
}

DiskFile::Result<void> DiskFile::ReplaceBy(ArchiveFile& sibling) {
    disk_.file = std::move(static_cast<DiskFile&>(sibling).own_);
    return {};
}

}  // namespace TestSupport
