#pragma once

#include <fmt/format.h>
#include <libzippp/libzippp.h>
#include <zlib.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

/// Name and data (in brief) of each entry.
using Contents = std::vector<std::pair<std::string, std::string>>;

inline std::uint32_t Checksum(const std::string& data) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

/// Long data as its size and checksum, for comparing and for messages that can be read.
inline std::string Brief(const std::string& data) {
    return data.size() < 50 ? data : fmt::format("{} bytes with checksum {:x}", data.size(), Checksum(data));
}

/// What an archive holds that was opened with its consistency checked; data that its checksum does not fit is damaged.
inline Contents ContentsOf(const libzippp::ZipArchive& archive) {
    Contents contents;
    for (const libzippp::ZipEntry& entry : archive.getEntries()) {
        const std::string data = entry.readAsText();
        const bool whole = static_cast<int>(Checksum(data)) == entry.getCRC();
        contents.emplace_back(entry.getName(), whole ? Brief(data) : "damaged");
    }
    return contents;
}

/// Data that cannot be compressed.
inline std::string Noise(std::size_t size) {
    std::mt19937_64 random(size);
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

}  // namespace TestSupport
