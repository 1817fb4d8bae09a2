#pragma once

#include <string>
#include <vector>

/// The part of libzippp's interface that this program and its tests call, in that library's own shape and with its
/// semantics, so that the library can take this one's place without a change to the callers. Nothing here throws except
/// std::bad_alloc.

// NOLINTBEGIN(modernize-*, bugprone-macro-parentheses, performance-enum-size): the shape is that of the library's
// header

struct zip;
struct zip_source;

typedef unsigned long long libzippp_uint64;
typedef unsigned int libzippp_uint32;

#define LIBZIPPP_OK 0
#define LIBZIPPP_ERROR_NOT_ALLOWED -2
#define LIBZIPPP_ERROR_INVALID_PARAMETER -4
#define LIBZIPPP_ERROR_HANDLE_FAILURE -37
#define LIBZIPPP_ERROR_UNKNOWN -99

/// Gets a failure's message (with "%s" where the description belongs), libzip's description of it, libzip's code, and
/// the system's. The default prints them to standard error.
typedef void ErrorHandlerCallback(const std::string& message, const std::string& description, int zipError,
                                  int systemError);

namespace libzippp {

class ZipEntry;

enum CompressionMethod { DEFAULT = 0, STORE, DEFLATE };

/// One zip archive. Changes are kept in memory, and the file is written by close().
class ZipArchive {
public:
    enum OpenMode { NotOpen, ReadOnly, Write };

    /// The path is UTF-8.
    explicit ZipArchive(const std::string& zipPath);
    ZipArchive(const ZipArchive&) = delete;
    ZipArchive& operator=(const ZipArchive&) = delete;
    /// Closes the archive, so writes what is pending; a failure is lost.
    virtual ~ZipArchive();

    /// An archive over a libzip source, which it owns when this succeeds; null when the source cannot be opened.
    /// Release with `free`.
    static ZipArchive* fromSource(zip_source* source, OpenMode mode = ReadOnly, bool checkConsistency = false);
    static void free(ZipArchive* archive);

    /// Write keeps existing entries and creates a missing archive.
    bool open(OpenMode mode = ReadOnly, bool checkConsistency = false);
    /// LIBZIPPP_OK, or an error: then the archive is still open, with its changes.
    int close();
    /// Closes the archive and drops the changes.
    void discard();

    bool isOpen() const { return zipHandle_ != nullptr; }
    zip* getZipHandle() const { return zipHandle_; }
    void setErrorHandlerCallback(ErrorHandlerCallback* callback) { callback_ = callback; }

    std::vector<ZipEntry> getEntries() const;
    /// Without caseSensitive, upper and lower case of ASCII letters are the same; other letters are compared exactly.
    bool hasEntry(const std::string& name, bool excludeDirectories = false, bool caseSensitive = true) const;
    /// A null entry when there is none of that name, or libzip cannot describe it.
    ZipEntry getEntry(const std::string& name) const;

    /// Adds a file when the archive is closed; it is read then. Creates missing entries for the parent directories
    /// and replaces an entry of the same name. The entry's time is that of the call. False for a directory's name or a
    /// file that is not there.
    bool addFile(const std::string& entryName, const std::string& file) const;
    /// As addFile, from memory that must live until the archive is closed; with freeData it is released by then.
    bool addData(const std::string& entryName, const void* data, libzippp_uint64 length, bool freeData = false) const;
    /// The number of deleted entries, or a LIBZIPPP_ERROR; deleting a directory deletes what is below it.
    int deleteEntry(const std::string& entryName) const;

private:
    friend class ZipEntry;

    bool isMutable() const { return isOpen() && mode_ == Write; }
    bool openSource(zip_source* source, OpenMode mode, bool checkConsistency);
    bool addSource(const std::string& entryName, zip_source* source) const;
    bool addDirectories(const std::string& entryName) const;
    ZipEntry describe(libzippp_uint64 index) const;

    std::string path_;
    zip* zipHandle_ = nullptr;
    OpenMode mode_ = NotOpen;
    ErrorHandlerCallback* callback_;
};

/// What an open archive says about one entry, copied at the time of asking. Reading and the settings act on that
/// archive, which must still be open; a null entry has neither.
class ZipEntry {
public:
    ZipEntry() = default;

    bool isNull() const { return zipFile_ == nullptr; }
    std::string getName() const { return name_; }
    libzippp_uint64 getIndex() const { return index_; }
    /// The size of the uncompressed data.
    libzippp_uint64 getSize() const { return size_; }
    int getCRC() const { return crc_; }
    bool isFile() const { return !name_.ends_with('/'); }

    bool setCompressionMethod(CompressionMethod method);
    /// 1 (fast) to 9; acts on the entry's method, which has to be set first.
    bool setCompressionLevel(libzippp_uint32 level);

    std::string readAsText() const;

private:
    friend class ZipArchive;

    const ZipArchive* zipFile_ = nullptr;
    std::string name_;
    libzippp_uint64 index_ = 0;
    libzippp_uint64 size_ = 0;
    int crc_ = 0;
    CompressionMethod method_ = DEFAULT;
};

}  // namespace libzippp

// NOLINTEND(modernize-*, bugprone-macro-parentheses, performance-enum-size)
