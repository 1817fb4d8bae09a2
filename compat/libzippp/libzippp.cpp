#include "libzippp/libzippp.h"

#include <zip.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>

namespace libzippp {

namespace {

zip_source_t* SourceOfFile(const std::string& path) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_file_create(path.c_str(), 0, -1, &error);
    zip_error_fini(&error);
    return source;
}

zip_int32_t LibzipMethod(CompressionMethod method) {
    if (method == DEFAULT) {
        return ZIP_CM_DEFAULT;
    }
    return method == STORE ? ZIP_CM_STORE : ZIP_CM_DEFLATE;
}

void Report(zip_error_t* error, const std::string& message, ErrorHandlerCallback* callback) {
    callback(message, zip_error_strerror(error), zip_error_code_zip(error), zip_error_code_system(error));
}

void PrintError(const std::string& message, const std::string& description, int, int) {
    const auto placeholder = message.find("%s");
    const std::string text =
        placeholder == std::string::npos ? message : std::string(message).replace(placeholder, 2, description);
    static_cast<void>(std::fputs(text.c_str(), stderr));
}

}  // namespace

bool ZipEntry::setCompressionMethod(CompressionMethod method) {
    method_ = method;
    return setCompressionLevel(0);
}

bool ZipEntry::setCompressionLevel(libzippp_uint32 level) {
    return zipFile_->isMutable() &&
           zip_set_file_compression(zipFile_->zipHandle_, index_, LibzipMethod(method_), level) == 0;
}

std::string ZipEntry::readAsText() const {
    zip_file_t* file = zipFile_->isOpen() ? zip_fopen_index(zipFile_->zipHandle_, index_, 0) : nullptr;
    if (file == nullptr) {
        return {};
    }
    std::string text(size_, '\0');
    const zip_int64_t read = zip_fread(file, text.data(), size_);
    zip_fclose(file);
    return read == static_cast<zip_int64_t>(size_) ? text : std::string();
}

// NOLINTNEXTLINE(modernize-pass-by-value): the library's signature
ZipArchive::ZipArchive(const std::string& zipPath) : path_(zipPath), callback_(&PrintError) {}

ZipArchive::~ZipArchive() {
    if (close() != LIBZIPPP_OK) {
        discard();
    }
}

ZipArchive* ZipArchive::fromSource(zip_source* source, OpenMode mode, bool checkConsistency) {
    auto archive = std::make_unique<ZipArchive>("");
    return archive->openSource(source, mode, checkConsistency) ? archive.release() : nullptr;
}

void ZipArchive::free(ZipArchive* archive) {
    delete archive;
}

bool ZipArchive::open(OpenMode mode, bool checkConsistency) {
    if (isOpen()) {
        return mode_ == mode;
    }
    zip_source_t* source = SourceOfFile(path_);
    if (source == nullptr) {
        return false;
    }
    if (!openSource(source, mode, checkConsistency)) {
        zip_source_free(source);
        return false;
    }
    return true;
}

bool ZipArchive::openSource(zip_source* source, OpenMode mode, bool checkConsistency) {
    const int flags = (checkConsistency ? ZIP_CHECKCONS : 0) | (mode == Write ? ZIP_CREATE : 0);
    zip_error_t error;
    zip_error_init(&error);
    zipHandle_ = mode == NotOpen ? nullptr : zip_open_from_source(source, flags, &error);
    if (zipHandle_ != nullptr) {
        mode_ = mode;
    } else {
        Report(&error, "can't open zip from source: %s\n", callback_);
    }
    zip_error_fini(&error);
    return zipHandle_ != nullptr;
}

int ZipArchive::close() {
    if (zipHandle_ != nullptr && zip_close(zipHandle_) != 0) {
        Report(zip_get_error(zipHandle_), "unable to close archive: %s\n", callback_);
        return LIBZIPPP_ERROR_HANDLE_FAILURE;
    }
    zipHandle_ = nullptr;
    mode_ = NotOpen;
    return LIBZIPPP_OK;
}

void ZipArchive::discard() {
    if (zipHandle_ != nullptr) {
        zip_discard(zipHandle_);
        zipHandle_ = nullptr;
        mode_ = NotOpen;
    }
}

ZipEntry ZipArchive::describe(libzippp_uint64 index) const {
    zip_stat_t stat;
    zip_stat_init(&stat);
    ZipEntry entry;
    if (zip_stat_index(zipHandle_, index, 0, &stat) != 0 || stat.name == nullptr) {
        return entry;
    }
    entry.zipFile_ = this;
    entry.name_ = stat.name;
    entry.index_ = index;
    entry.size_ = stat.size;
    entry.crc_ = static_cast<int>(stat.crc);
    return entry;
}

std::vector<ZipEntry> ZipArchive::getEntries() const {
    std::vector<ZipEntry> entries;
    const zip_int64_t count = isOpen() ? zip_get_num_entries(zipHandle_, 0) : 0;
    for (zip_int64_t index = 0; index < count; ++index) {
        if (ZipEntry entry = describe(static_cast<libzippp_uint64>(index)); !entry.isNull()) {
            entries.push_back(std::move(entry));
        }
    }
    return entries;
}

bool ZipArchive::hasEntry(const std::string& name, bool excludeDirectories, bool caseSensitive) const {
    const zip_flags_t flags = (excludeDirectories ? ZIP_FL_NODIR : 0) | (caseSensitive ? 0 : ZIP_FL_NOCASE);
    return isOpen() && zip_name_locate(zipHandle_, name.c_str(), flags) >= 0;
}

ZipEntry ZipArchive::getEntry(const std::string& name) const {
    const zip_int64_t index = isOpen() ? zip_name_locate(zipHandle_, name.c_str(), 0) : -1;
    return index < 0 ? ZipEntry() : describe(static_cast<libzippp_uint64>(index));
}

bool ZipArchive::addSource(const std::string& entryName, zip_source* source) const {
    const zip_int64_t index = source != nullptr && addDirectories(entryName)
                                  ? zip_file_add(zipHandle_, entryName.c_str(), source, ZIP_FL_OVERWRITE)
                                  : -1;
    if (index < 0) {
        zip_source_free(source);
        return false;
    }
    static_cast<void>(zip_file_set_mtime(zipHandle_, static_cast<zip_uint64_t>(index), std::time(nullptr), 0));
    return true;
}

bool ZipArchive::addFile(const std::string& entryName, const std::string& file) const {
    if (!isMutable() || entryName.ends_with('/')) {
        return false;
    }
    return addSource(entryName, zip_source_file(zipHandle_, file.c_str(), 0, -1));
}

bool ZipArchive::addData(const std::string& entryName, const void* data, libzippp_uint64 length, bool freeData) const {
    if (!isMutable() || entryName.ends_with('/')) {
        return false;
    }
    return addSource(entryName, zip_source_buffer(zipHandle_, data, length, freeData ? 1 : 0));
}

bool ZipArchive::addDirectories(const std::string& entryName) const {
    for (auto slash = entryName.find('/'); slash != std::string::npos; slash = entryName.find('/', slash + 1)) {
        const std::string folder = entryName.substr(0, slash + 1);
        if (!hasEntry(folder) && zip_dir_add(zipHandle_, folder.c_str(), 0) < 0) {
            return false;
        }
    }
    return true;
}

int ZipArchive::deleteEntry(const std::string& entryName) const {
    const ZipEntry entry = getEntry(entryName);
    if (entry.isNull()) {
        return LIBZIPPP_ERROR_INVALID_PARAMETER;
    }
    if (!isMutable()) {
        return LIBZIPPP_ERROR_NOT_ALLOWED;
    }
    int deleted = 0;
    for (const ZipEntry& candidate : entry.isFile() ? std::vector{entry} : getEntries()) {
        if (candidate.getName().starts_with(entry.getName())) {
            if (zip_delete(zipHandle_, candidate.getIndex()) != 0) {
                return LIBZIPPP_ERROR_UNKNOWN;
            }
            ++deleted;
        }
    }
    return deleted;
}

}  // namespace libzippp
