#include "libzippp/libzippp.h"

#include <zip.h>

#include <memory>
#include <utility>

namespace libzippp {

namespace {

constexpr zip_flags_t StateFlag(ZipArchive::State state) {
    return state == ZipArchive::Original ? ZIP_FL_UNCHANGED : 0U;
}

zip_source_t* SourceOfFile(const std::string& path) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_file_create(path.c_str(), 0, -1, &error);
    zip_error_fini(&error);
    return source;
}

}  // namespace

bool ZipEntry::setDate(std::time_t date) const {
    return archive_ != nullptr && archive_->isMutable() && zip_file_set_mtime(archive_->handle_, index_, date, 0) == 0;
}

bool ZipEntry::setCompressionMethod(CompressionMethod method) {
    if (archive_ == nullptr || !archive_->isMutable() ||
        zip_set_file_compression(archive_->handle_, index_, static_cast<zip_int32_t>(method), level_) != 0) {
        return false;
    }
    method_ = method;
    return true;
}

bool ZipEntry::setCompressionLevel(libzippp_uint32 level) {
    if (archive_ == nullptr || !archive_->isMutable() ||
        zip_set_file_compression(archive_->handle_, index_, static_cast<zip_int32_t>(method_), level) != 0) {
        return false;
    }
    level_ = level;
    return true;
}

std::string ZipEntry::readAsText() const {
    if (archive_ == nullptr) {
        return {};
    }
    const std::unique_ptr<char[]> data(static_cast<char*>(archive_->readEntry(*this, true)));
    return data ? std::string(data.get(), size_) : std::string();
}

ZipArchive::ZipArchive(std::string zipPath, std::string password, Encryption)
    : path_(std::move(zipPath)), password_(std::move(password)) {}

ZipArchive::~ZipArchive() {
    if (close() != LIBZIPPP_OK) {
        discard();
    }
}

ZipArchive* ZipArchive::fromSource(zip_source* source, OpenMode mode, bool checkConsistency) {
    auto archive = std::make_unique<ZipArchive>("");
    return archive->OpenFrom(source, mode, checkConsistency) ? archive.release() : nullptr;
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
    if (!OpenFrom(source, mode, checkConsistency)) {
        zip_source_free(source);
        return false;
    }
    return true;
}

bool ZipArchive::OpenFrom(zip_source* source, OpenMode mode, bool checkConsistency) {
    int flags = checkConsistency ? ZIP_CHECKCONS : 0;
    switch (mode) {
        case ReadOnly:
            flags |= ZIP_RDONLY;
            break;
        case Write:
            flags |= ZIP_CREATE;
            break;
        case New:
            flags |= ZIP_CREATE | ZIP_TRUNCATE;
            break;
        default:
            return false;
    }
    zip_error_t error;
    zip_error_init(&error);
    handle_ = zip_open_from_source(source, flags, &error);
    zip_error_fini(&error);
    if (handle_ == nullptr) {
        return false;
    }
    if (!password_.empty()) {
        zip_set_default_password(handle_, password_.c_str());
    }
    mode_ = mode;
    return true;
}

int ZipArchive::close() {
    if (handle_ == nullptr) {
        return LIBZIPPP_OK;
    }
    if (const int error = zip_close(handle_); error != 0) {
        return error;
    }
    handle_ = nullptr;
    mode_ = NotOpen;
    return LIBZIPPP_OK;
}

void ZipArchive::discard() {
    if (handle_ != nullptr) {
        zip_discard(handle_);
        handle_ = nullptr;
        mode_ = NotOpen;
    }
}

libzippp_int64 ZipArchive::getNbEntries(State state) const {
    return isOpen() ? zip_get_num_entries(handle_, StateFlag(state)) : LIBZIPPP_ERROR_NOT_OPEN;
}

ZipEntry ZipArchive::Describe(libzippp_uint64 index, State state) const {
    zip_stat_t stat;
    zip_stat_init(&stat);
    ZipEntry entry;
    if (zip_stat_index(handle_, index, StateFlag(state), &stat) != 0 || stat.name == nullptr) {
        return entry;
    }
    entry.archive_ = this;
    entry.name_ = stat.name;
    entry.index_ = index;
    entry.size_ = stat.size;
    entry.time_ = stat.mtime;
    entry.crc_ = static_cast<int>(stat.crc);
    entry.method_ = static_cast<CompressionMethod>(stat.comp_method);
    return entry;
}

std::vector<ZipEntry> ZipArchive::getEntries(State state) const {
    std::vector<ZipEntry> entries;
    const libzippp_int64 count = getNbEntries(state);
    for (libzippp_int64 index = 0; index < count; ++index) {
        if (ZipEntry entry = Describe(static_cast<libzippp_uint64>(index), state); !entry.isNull()) {
            entries.push_back(std::move(entry));
        }
    }
    return entries;
}

bool ZipArchive::hasEntry(const std::string& name, bool excludeDirectories, bool caseSensitive, State state) const {
    return !getEntry(name, excludeDirectories, caseSensitive, state).isNull();
}

ZipEntry ZipArchive::getEntry(const std::string& name, bool excludeDirectories, bool caseSensitive, State state) const {
    if (!isOpen()) {
        return {};
    }
    const zip_flags_t flags =
        StateFlag(state) | (excludeDirectories ? ZIP_FL_NODIR : 0U) | (caseSensitive ? 0U : ZIP_FL_NOCASE);
    const zip_int64_t index = zip_name_locate(handle_, name.c_str(), flags);
    return index < 0 ? ZipEntry() : Describe(static_cast<libzippp_uint64>(index), state);
}

bool ZipArchive::AddSource(const std::string& entryName, zip_source* source) const {
    if (const auto slash = entryName.rfind('/');
        slash != std::string::npos && !addEntry(entryName.substr(0, slash + 1))) {
        zip_source_free(source);
        return false;
    }
    if (zip_file_add(handle_, entryName.c_str(), source, ZIP_FL_OVERWRITE) < 0) {
        zip_source_free(source);
        return false;
    }
    return true;
}

bool ZipArchive::addFile(const std::string& entryName, const std::string& file) const {
    if (!isMutable() || entryName.empty() || entryName.ends_with('/')) {
        return false;
    }
    zip_source_t* source = SourceOfFile(file);
    zip_stat_t stat;
    if (source != nullptr && zip_source_stat(source, &stat) != 0) {
        zip_source_free(source);
        return false;
    }
    return source != nullptr && AddSource(entryName, source);
}

bool ZipArchive::addData(const std::string& entryName, const void* data, libzippp_uint64 length, bool freeData) const {
    if (!isMutable() || entryName.empty() || entryName.ends_with('/')) {
        return false;
    }
    zip_source_t* source = zip_source_buffer(handle_, data, length, freeData ? 1 : 0);
    return source != nullptr && AddSource(entryName, source);
}

bool ZipArchive::addEntry(const std::string& entryName) const {
    if (!isMutable() || !entryName.ends_with('/')) {
        return false;
    }
    for (auto slash = entryName.find('/'); slash != std::string::npos; slash = entryName.find('/', slash + 1)) {
        const std::string folder = entryName.substr(0, slash + 1);
        if (!hasEntry(folder) && zip_dir_add(handle_, folder.c_str(), 0) < 0) {
            return false;
        }
    }
    return true;
}

int ZipArchive::deleteEntry(const ZipEntry& entry) const {
    if (!isOpen()) {
        return LIBZIPPP_ERROR_NOT_OPEN;
    }
    if (entry.archive_ != this) {
        return LIBZIPPP_ERROR_INVALID_ENTRY;
    }
    if (!isMutable()) {
        return LIBZIPPP_ERROR_NOT_ALLOWED;
    }
    if (entry.isFile()) {
        return zip_delete(handle_, entry.getIndex()) == 0 ? 1 : LIBZIPPP_ERROR_UNKNOWN;
    }
    int deleted = 0;
    for (const ZipEntry& candidate : getEntries()) {
        if (candidate.getName().starts_with(entry.getName())) {
            if (zip_delete(handle_, candidate.getIndex()) != 0) {
                return LIBZIPPP_ERROR_UNKNOWN;
            }
            ++deleted;
        }
    }
    return deleted;
}

int ZipArchive::deleteEntry(const std::string& entryName) const {
    const ZipEntry entry = getEntry(entryName);
    return isOpen() && entry.isNull() ? LIBZIPPP_ERROR_INVALID_ENTRY : deleteEntry(entry);
}

void* ZipArchive::readEntry(const ZipEntry& entry, bool asText, State state) const {
    if (!isOpen() || entry.archive_ != this) {
        return nullptr;
    }
    zip_file_t* file = zip_fopen_index(handle_, entry.getIndex(), StateFlag(state));
    if (file == nullptr) {
        return nullptr;
    }
    auto data = std::make_unique<char[]>(entry.getSize() + (asText ? 1 : 0));
    const zip_int64_t read = zip_fread(file, data.get(), entry.getSize());
    const bool whole = zip_fclose(file) == 0 && read == static_cast<zip_int64_t>(entry.getSize());
    return whole ? data.release() : nullptr;
}

}  // namespace libzippp
