#pragma once

#include <libzippp/libzippp.h>

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.filezip-archivefile.h"
#include "shared.util-win32result.h"

namespace Shared::FileZip {

class AppendInPlaceSource;

/// "{} B" below 1024, "{} kB" below 1048576, else "{} MB"; integer division, no decimals.
[[nodiscard]] std::string FormatSize(std::uint64_t bytes);

/// The output archive: owns the zip file on disk and the open library archive on it. After every add the archive is
/// closed and opened again, so that the file on disk always holds what has been added. No other process can read or
/// change the file meanwhile.
///
/// An add costs only the file it is asked to add: when the source vanishes, is locked or cannot be read to its end, or
/// when the disk is full, the add returns a message that names the file and the reason, the archive stays valid and
/// open, and every earlier entry is still there. Where even the re-opening fails, the message says so, and the next add
/// tries again.
///
/// Adding writes what is added, not what is there (see AppendInPlaceSource, which also says what a kill leaves).
class ZipArchiveWrapper {
public:
    enum class Creation : std::uint8_t {
        IfMissing,
        New  ///< ERROR_FILE_EXISTS when anything exists at the path
    };

    /// A file as the archive holds it.
    struct AddedEntry {
        std::string entryName;
        std::uint64_t size = 0;
    };

    /// What went wrong with an add.
    struct AddFailure {
        /// Names the file and the reason.
        std::string message;
        /// When the archive holds the file all the same: a part of one that changed its size, the whole of one after
        /// which the archive could not be opened again, or one over the archive's limit that could not be taken out.
        std::optional<AddedEntry> archived{};
        /// The source's size in bytes when it is why nothing is archived: it is larger than the caller allows.
        std::optional<std::uint64_t> tooLarge{};
    };
    using AddResult = std::expected<AddedEntry, AddFailure>;

    /// `maxArchiveSize` 0 means no limit; otherwise the largest size in bytes that the zip file may have after an add.
    explicit ZipArchiveWrapper(std::filesystem::path path, std::uint64_t maxArchiveSize = 0,
                               bool deleteOnClose = false);
    ZipArchiveWrapper(const ZipArchiveWrapper&) = delete;
    ZipArchiveWrapper& operator=(const ZipArchiveWrapper&) = delete;
    /// Closes the archive; with deleteOnClose also removes the file that was opened last.
    ~ZipArchiveWrapper();

    /// Opens the archive at the path, keeping existing entries, or creates one, which is a whole zip without entries at
    /// once. Throws RuntimeException "Path to archive was empty", or Win32Exception when the file cannot be opened or
    /// is no archive that AppendInPlaceSource takes.
    void Open(Creation creation = Creation::IfMissing);

    /// Closes the archive and its file. Nothing is left to be written: every add has written what it added.
    void Close();

    /// Copies the open archive to a new file, which is the archive from then on and takes the old one's place without
    /// being closed in between. When the copy fails, as Win32ArchiveFile::CopyTo does, the archive is still the old
    /// one. When the copy cannot be opened as an archive, that is the failure, and no archive is open.
    [[nodiscard]] Util::Win32Result<void> CopyTo(const std::filesystem::path& path, bool (*isCancelled)());

    /// Points the wrapper at another file, which the next Open opens.
    void SetPath(std::filesystem::path path);
    [[nodiscard]] const std::filesystem::path& Path() const noexcept;

    /// Adds the file under the entry name (UTF-8, forward slashes), which no entry may have. The entry keeps the file's
    /// last write time, as local time. With `maxSize` other than 0 a larger source is not archived. The source may be
    /// open elsewhere, also for writing: if it grows, its first bytes (the size at the start) are archived; if it
    /// shrinks, what could be read. Either is a failure with `archived` set. Does not throw.
    AddResult AddFile(const std::string& entryName, const std::filesystem::path& source, std::uint64_t maxSize = 0);

    /// As AddFile, under the folder joined with the source file's own name, or with the first free number where an
    /// entry has that name: the second file of a name becomes "name (2).log", and so on.
    AddResult AddFileToFolder(const std::filesystem::path& entryFolder, const std::filesystem::path& source,
                              std::uint64_t maxSize = 0);

    /// As above, of a file that the caller has opened for reading so that it cannot be renamed: the library reads it by
    /// its path.
    AddResult AddFileToFolder(const std::filesystem::path& entryFolder, const FileSystem::OpenedFile& source,
                              std::uint64_t maxSize = 0);

    /// The entries of the open archive, in archive order; none when it cannot be read.
    [[nodiscard]] std::vector<libzippp::ZipEntry> Entries() const;

private:
    struct Releaser {
        void operator()(libzippp::ZipArchive* archive) const noexcept;
    };
    using EntryNamer = std::function<std::string()>;

    [[nodiscard]] Util::Win32Result<void> Use(Win32ArchiveFile::Result file);
    [[nodiscard]] Util::Win32Result<void> Reopen() const;
    [[nodiscard]] std::string CannotOpen(DWORD code) const;
    [[nodiscard]] std::string CannotWrite() const;
    [[nodiscard]] std::string UnusedEntryName(const std::filesystem::path& folder,
                                              const std::filesystem::path& file) const;
    AddResult Add(const EntryNamer& entryName, const std::filesystem::path& path, const FileSystem::OpenedFile* opened,
                  std::uint64_t maxSize);
    AddResult AddOpened(const std::string& entryName, const FileSystem::OpenedFile& source, std::uint64_t maxSize,
                        bool mayTryAgain);
    bool Write(const std::string& entryName, const std::string& libraryPath, const FileSystem::FileFacts& checked,
               std::uint64_t largest);
    std::unexpected<AddFailure> DropAdd(const std::filesystem::path& source, std::string reason);
    AddResult CheckAdded(const std::string& entryName, const FileSystem::OpenedFile& source, std::uint64_t size);
    AddResult Exclude(const AddedEntry& entry, const std::filesystem::path& source);

    FileSystem::FileObjectRemover remover_;
    std::filesystem::path path_;
    std::uint64_t maxArchiveSize_ = 0;
    bool deleteOnClose_ = false;
    /// Null while the archive is closed. Each is used by the next one.
    std::unique_ptr<Win32ArchiveFile> file_;
    std::unique_ptr<AppendInPlaceSource> source_;
    /// Null also after a failure to open it again, until it is needed.
    mutable std::unique_ptr<libzippp::ZipArchive, Releaser> archive_;
};

}  // namespace Shared::FileZip
