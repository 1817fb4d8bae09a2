#pragma once

#include <libzippp/libzippp.h>

#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.filezip-archivefile.h"
#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileZip {

class AppendInPlaceSource;

/// "{} B" below 1024, "{} kB" below 1048576, else "{} MB"; integer division, no decimals.
[[nodiscard]] std::string FormatSize(std::uint64_t bytes);

/// The output archive: owns the zip file on disk and the open library archive on it. After every add the archive is
/// closed and opened again, so that the file on disk always holds what has been added. No other process can open the
/// file meanwhile.
///
/// An add costs only the file it is asked to add: when the source vanishes, is locked or cannot be read to its end, or
/// when the disk is full, the add returns a message that names the file and the reason, the archive stays valid and
/// open, and every earlier entry is still there. Where even the re-opening fails, the message says so, and the next add
/// tries again.
///
/// Adding writes what is added, not what is there (see AppendInPlaceSource, which also says what a kill leaves).
/// Replacing an entry and taking out one that is over a limit cost the whole archive; an entry whose replacement is
/// over a limit is gone.
class ZipArchiveWrapper {
public:
    enum class Creation : std::uint8_t {
        IfMissing,
        New,   ///< ERROR_FILE_EXISTS when anything exists at the path
        Never  ///< ERROR_FILE_NOT_FOUND when there is no file
    };

    /// What went wrong with an add.
    struct AddFailure {
        /// Names the file and the reason.
        std::string message;
        /// Whether the archive holds the file all the same: a part of one that changed its size, or the whole of one
        /// after which the archive could not be opened again.
        bool isArchived = false;
        /// The source's size in bytes when it is why nothing is archived: it is larger than the caller allows.
        std::optional<std::uint64_t> tooLarge{};
    };
    using AddResult = std::expected<void, AddFailure>;

    /// `maxArchiveSize` 0 means no limit; otherwise the largest size in bytes that the zip file may have after an add.
    explicit ZipArchiveWrapper(std::filesystem::path path, std::uint64_t maxArchiveSize = 0,
                               bool deleteOnClose = false);
    ZipArchiveWrapper(const ZipArchiveWrapper&) = delete;
    ZipArchiveWrapper& operator=(const ZipArchiveWrapper&) = delete;
    /// Closes the archive; with deleteOnClose also removes the file that was opened last.
    ~ZipArchiveWrapper();

    /// Opens the archive at the path, keeping existing entries, or creates one, which is a whole zip without entries at
    /// once. Throws RuntimeException "Path to archive was empty", or Win32Exception when the file cannot be opened or
    /// is no archive.
    void Open(Creation creation = Creation::IfMissing);

    /// Closes the archive and its file; throws RuntimeException when the library cannot write it.
    void Close();

    /// After Close: opens the file for reading, so that other processes can do no more than that until the handle is
    /// closed. Throws Win32Exception, of ERROR_FILE_INVALID when another file has taken the archive's place.
    [[nodiscard]] Util::FileHandle ReopenToCopy() const;

    /// Points the wrapper at another file, which the next Open opens.
    void SetPath(std::filesystem::path path);
    [[nodiscard]] const std::filesystem::path& Path() const noexcept;

    /// Adds the file under the entry name (UTF-8, forward slashes), replacing an entry of that name. The entry keeps
    /// the file's last write time, as local time. With `maxSize` other than 0 a larger source is not archived. The
    /// source may be open elsewhere, also for writing: of a file that grows meanwhile the part is archived that was
    /// there at first; of one that shrinks what could be read, or what is left of it at a second attempt. A part is a
    /// failure that says so. Does not throw.
    AddResult AddFile(const std::string& entryName, const std::filesystem::path& source, std::uint64_t maxSize = 0);

    /// As AddFile, under the folder joined with the source file's own name. Never replaces an entry: the second file of
    /// a name becomes "name (2).log", and so on.
    AddResult AddFileToFolder(const std::filesystem::path& entryFolder, const std::filesystem::path& source,
                              std::uint64_t maxSize = 0);

    /// As AddFileToFolder, of a file that the caller has open for reading and keeps from being renamed.
    AddResult AddFileToFolder(const std::filesystem::path& entryFolder, const FileSystem::OpenedFile& source,
                              std::uint64_t maxSize = 0) {
        return AddFileToFolder(entryFolder, source.path, maxSize);
    }

    /// The entries of the open archive, in archive order.
    [[nodiscard]] std::vector<libzippp::ZipEntry> Entries() const;

private:
    struct SourceFile;
    struct Releaser {
        void operator()(libzippp::ZipArchive* archive) const noexcept;
    };

    [[nodiscard]] Util::Win32Result<void> TryOpen(Creation creation);
    [[nodiscard]] Util::Win32Result<void> Reopen();
    [[nodiscard]] Util::Win32Result<void> OpenLibrary();
    [[nodiscard]] std::string CannotOpen(DWORD code) const;
    [[nodiscard]] std::string DropChanges();
    [[nodiscard]] std::string Remove(const std::string& entryName);
    [[nodiscard]] std::string WritingFailure() const;
    [[nodiscard]] std::string FreeName(const std::string& folder, const std::string& name) const;
    template <class Add>
    AddResult WithOpenArchive(const std::filesystem::path& source, const Add& add);
    AddResult AddSource(const std::string& entryName, const std::filesystem::path& source, std::uint64_t maxSize);
    AddResult AddOpened(const std::string& entryName, const SourceFile& source, std::uint64_t maxSize);
    bool Write(const std::string& entryName, const SourceFile& source, std::uint64_t size);
    AddResult CheckAdded(const std::string& entryName, const SourceFile& source, std::uint64_t size,
                         std::uint64_t maxSize);

    FileSystem::FileObjectRemover remover_;
    std::filesystem::path path_;
    std::uint64_t maxArchiveSize_ = 0;
    bool deleteOnClose_ = false;
    /// Of the file as it was closed.
    FileIdentity identity_;
    /// Null while the archive is closed. Each is used by the next one.
    std::unique_ptr<Win32ArchiveFile> file_;
    std::unique_ptr<AppendInPlaceSource> source_;
    std::unique_ptr<libzippp::ZipArchive, Releaser> archive_;
};

}  // namespace Shared::FileZip
