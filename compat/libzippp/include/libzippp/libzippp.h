#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/// Names without a namespace: the library has macros here.
enum LibzipppStatus : std::int8_t {
    LIBZIPPP_OK = 0,
    LIBZIPPP_ERROR_NOT_OPEN = -1,
    LIBZIPPP_ERROR_NOT_ALLOWED = -2,
    LIBZIPPP_ERROR_INVALID_ENTRY = -3,
    LIBZIPPP_ERROR_UNKNOWN = -99
};

struct zip;
struct zip_source;

/// The subset of libzippp's interface that this program uses, with that library's semantics, so that the packaged
/// library can take its place without a change to the callers. Nothing here throws except std::bad_alloc.
namespace libzippp {

// NOLINTBEGIN(modernize-use-nodiscard): results may be ignored where the library lets them be

using libzippp_int64 = std::int64_t;
using libzippp_uint64 = std::uint64_t;
using libzippp_uint32 = std::uint32_t;

class ZipArchive;

enum class Encryption : std::uint8_t { None = 0 };
enum class CompressionMethod : std::int8_t { DEFAULT = -1, STORE = 0, DEFLATE = 8 };

/// What an open archive says about one entry, copied at the time of asking. The settings act on that archive, which
/// must still be open.
class ZipEntry {
public:
    /// A null entry: what a search without a result returns.
    ZipEntry() = default;

    [[nodiscard]] bool isNull() const { return archive_ == nullptr; }
    [[nodiscard]] const std::string& getName() const { return name_; }
    [[nodiscard]] libzippp_uint64 getIndex() const { return index_; }
    [[nodiscard]] std::time_t getDate() const { return time_; }
    /// The size of the uncompressed data.
    [[nodiscard]] libzippp_uint64 getSize() const { return size_; }
    [[nodiscard]] int getCRC() const { return crc_; }
    [[nodiscard]] CompressionMethod getCompressionMethod() const { return method_; }
    [[nodiscard]] bool isDirectory() const { return name_.ends_with('/'); }
    [[nodiscard]] bool isFile() const { return !isDirectory(); }

    bool setDate(std::time_t date) const;
    bool setCompressionMethod(CompressionMethod method);
    /// 1 (fast) to 9; acts on the entry's method, which has to be set first.
    bool setCompressionLevel(libzippp_uint32 level);

    [[nodiscard]] std::string readAsText() const;

private:
    friend class ZipArchive;

    const ZipArchive* archive_ = nullptr;
    std::string name_;
    libzippp_uint64 index_ = 0;
    libzippp_uint64 size_ = 0;
    std::time_t time_ = 0;
    int crc_ = 0;
    CompressionMethod method_ = CompressionMethod::DEFAULT;
    libzippp_uint32 level_ = 0;
};

/// One zip archive. Changes are kept in memory, and the file is written by close().
class ZipArchive {
public:
    enum OpenMode : std::uint8_t { NotOpen, ReadOnly, Write, New };
    enum State : std::uint8_t { Original, Current };

    /// The path is UTF-8.
    explicit ZipArchive(std::string zipPath, std::string password = "", Encryption encryptionMethod = Encryption::None);
    ZipArchive(const ZipArchive&) = delete;
    ZipArchive& operator=(const ZipArchive&) = delete;
    /// Closes the archive, so writes what is pending; a failure is lost.
    virtual ~ZipArchive();

    /// An archive over a libzip source, which it owns when this succeeds; null when the source cannot be opened.
    /// Release with `free`.
    static ZipArchive* fromSource(zip_source* source, OpenMode mode = ReadOnly, bool checkConsistency = false);
    static void free(ZipArchive* archive);

    /// Write keeps existing entries and creates a missing archive, New drops existing entries.
    bool open(OpenMode mode = ReadOnly, bool checkConsistency = false);
    /// LIBZIPPP_OK, or libzip's error: then the archive is still open, with its changes.
    int close();
    /// Closes the archive and drops the changes.
    void discard();

    [[nodiscard]] bool isOpen() const { return handle_ != nullptr; }
    [[nodiscard]] bool isMutable() const { return isOpen() && (mode_ == Write || mode_ == New); }

    [[nodiscard]] libzippp_int64 getNbEntries(State state = Current) const;
    [[nodiscard]] std::vector<ZipEntry> getEntries(State state = Current) const;
    [[nodiscard]] bool hasEntry(const std::string& name, bool excludeDirectories = false, bool caseSensitive = true,
                                State state = Current) const;
    [[nodiscard]] ZipEntry getEntry(const std::string& name, bool excludeDirectories = false, bool caseSensitive = true,
                                    State state = Current) const;

    /// Adds a file when the archive is closed; it is read then. Creates missing entries for the parent directories
    /// and replaces an entry of the same name. False for a directory's name or a file that is not there.
    bool addFile(const std::string& entryName, const std::string& file) const;
    /// As addFile, from memory that must live until the archive is closed; with freeData it is released by then.
    bool addData(const std::string& entryName, const void* data, libzippp_uint64 length, bool freeData = false) const;
    /// Adds a directory (a name ending in "/") and its missing parents.
    bool addEntry(const std::string& entryName) const;
    /// The number of deleted entries, or a LIBZIPPP_ERROR; deleting a directory deletes what is below it.
    int deleteEntry(const ZipEntry& entry) const;
    int deleteEntry(const std::string& entryName) const;

    /// The data of an entry in memory of its own (`new[]`), or null.
    [[nodiscard]] void* readEntry(const ZipEntry& entry, bool asText = false, State state = Current) const;

private:
    friend class ZipEntry;

    bool OpenFrom(zip_source* source, OpenMode mode, bool checkConsistency);
    bool AddSource(const std::string& entryName, zip_source* source) const;
    [[nodiscard]] ZipEntry Describe(libzippp_uint64 index, State state) const;

    std::string path_;
    std::string password_;
    zip* handle_ = nullptr;
    OpenMode mode_ = NotOpen;
};

// NOLINTEND(modernize-use-nodiscard)

}  // namespace libzippp
