// Archives the files of the current folder in one of three ways: archive-bench wrapper|once|reopened ARCHIVE LIST
// The list names one file a line. All three deflate at the same level.

#include <fmt/format.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "shared.filezip-ziparchivewrapper.h"
#include "shared.util-functions.h"

namespace {

std::vector<std::string> Lines(const std::filesystem::path& list) {
    std::ifstream stream(list);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

void Require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void ByWrapper(const std::string& archive, const std::vector<std::string>& files) {
    Shared::FileZip::ZipArchiveWrapper zip(Shared::Util::PathFromUtf8(archive));
    zip.Open();
    for (const std::string& file : files) {
        const auto added = zip.AddFile("LOGS_0/" + file, Shared::Util::PathFromUtf8(file));
        Require(added.has_value(), added ? "" : added.error().message);
    }
    zip.Close();
}

void ByLibrary(const std::string& archive, const std::vector<std::string>& files, bool reopen) {
    libzippp::ZipArchive zip(archive);
    Require(zip.open(libzippp::ZipArchive::Write), archive);
    for (const std::string& file : files) {
        const std::string name = "LOGS_0/" + file;
        Require(zip.addFile(name, file), file);
        libzippp::ZipEntry entry = zip.getEntry(name);
        Require(entry.setCompressionMethod(libzippp::DEFLATE) && entry.setCompressionLevel(5), file);
        Require(!reopen || (zip.close() == LIBZIPPP_OK && zip.open(libzippp::ZipArchive::Write)), file);
    }
    Require(zip.close() == LIBZIPPP_OK, archive);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string_view> arguments(argv, argv + argc);
        Require(arguments.size() == 4, "archive-bench wrapper|once|reopened ARCHIVE LIST");
        const std::string archive(arguments[2]);
        const std::vector<std::string> files = Lines(Shared::Util::PathFromUtf8(arguments[3]));
        if (arguments[1] == "wrapper") {
            ByWrapper(archive, files);
        } else {
            ByLibrary(archive, files, arguments[1] == "reopened");
        }
        return 0;
    } catch (const std::exception& failure) {
        fmt::print(stderr, "{}\n", failure.what());
        return 1;
    }
}
