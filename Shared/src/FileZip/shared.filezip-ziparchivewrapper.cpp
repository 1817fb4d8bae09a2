#include "shared.filezip-ziparchivewrapper.h"

#include <windows.h>

#include <fmt/format.h>
#include <zip.h>

#include <algorithm>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-status.h"
#include "shared.filezip-appendsource.h"
#include "shared.filezip-archivetail.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace Shared::FileZip {

namespace {

// Deflates logs at 49 MB/s where level 6 does 36, and a package manager's log at 160 where level 6 does 74, for 2.7
// and 1.1 % more bytes.
constexpr libzippp_uint32 deflateLevel = 5;

using AddResult = ZipArchiveWrapper::AddResult;
using FileSystem::OpenedFile;
using Util::Win32Result;

std::string Win32Reason(DWORD code) {
    switch (code) {
        case ERROR_CANT_RESOLVE_FILENAME:
            return "it is a symbolic link, junction or mount point";
        case ERROR_TOO_MANY_LINKS:
            return "the file has further hard links";
        case ERROR_BAD_FORMAT:
            return "it is not a zip archive";
        case ERROR_BAD_FILE_TYPE:
            return "it is not a regular file";
        default:
            return fmt::format("{} ({})", Exception::Win32Message(code), code);
    }
}

std::unexpected<ZipArchiveWrapper::AddFailure> NotArchived(const std::filesystem::path& source,
                                                           std::string_view reason) {
    return std::unexpected(ZipArchiveWrapper::AddFailure{
        .message = fmt::format("Cannot archive file {}: {}", Util::ToUtf8Lossy(source), reason)});
}

std::unexpected<ZipArchiveWrapper::AddFailure> Incomplete(const std::filesystem::path& source, std::string_view what,
                                                          ZipArchiveWrapper::AddedEntry archived) {
    return std::unexpected(ZipArchiveWrapper::AddFailure{
        .message = fmt::format("File {}{}", Util::ToUtf8Lossy(source), what), .archived = std::move(archived)});
}

Win32ArchiveFile::Result CreateEmpty(const std::filesystem::path& path) {
    auto file = Win32ArchiveFile::Create(path);
    const auto written = file ? (*file)->Write(0, EmptyTail().bytes) : Win32Result<void>();
    return written ? std::move(file) : std::unexpected(written.error());
}

// The path as the library takes it, empty when the name has no UTF-8 form.
std::string LibraryPath(const OpenedFile& source, bool resolved) {
    const std::wstring given = FileSystem::LongForm(source.path).native();
    const std::wstring path = resolved ? FileSystem::FinalPath(source.handle.Get()).value_or(given) : given;
    const std::string text = Util::ToUtf8Lossy(path);
    return Util::PathFromUtf8(text) == path ? text : std::string();
}

std::string Shrank(std::uint64_t before, std::uint64_t now) {
    return fmt::format("it shrank from {} to {} bytes while it was read", before, now);
}

// Why the library could not read a file of that size. The library does not report the reason, so the file is read once
// more to find it.
std::string ReadingFailure(HANDLE file, std::uint64_t size) {
    if (const auto facts = FileSystem::FactsOf(file); facts && facts->size < size) {
        return Shrank(size, facts->size);
    }
    std::vector<char> buffer(std::size_t{256} * 1024);
    DWORD read = 1;
    for (std::uint64_t total = 0; total < size && read != 0; total += read) {
        OVERLAPPED position{};
        position.Offset = static_cast<DWORD>(total);
        position.OffsetHigh = static_cast<DWORD>(total >> 32U);
        const auto length = static_cast<DWORD>(std::min<std::uint64_t>(buffer.size(), size - total));
        if (ReadFile(file, buffer.data(), length, &read, &position) == FALSE) {
            return Win32Reason(GetLastError());
        }
    }
    return "it could not be read or compressed";
}

// A moment as zip entries state it: local time, by Windows' rules, from 1980 to 2107. The first one stands for what is
// out of that range.
struct DosTime {
    WORD date = 1U << 5U | 1U;
    WORD time = 0;
};

DosTime DosTimeOf(std::uint64_t moment) {
    const FILETIME written{.dwLowDateTime = static_cast<DWORD>(moment),
                           .dwHighDateTime = static_cast<DWORD>(moment >> 32U)};
    FILETIME localWritten{};
    SYSTEMTIME utc{};
    SYSTEMTIME local{};
    DosTime time;
    const bool converted = FileTimeToSystemTime(&written, &utc) != FALSE &&
                           SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) != FALSE &&
                           SystemTimeToFileTime(&local, &localWritten) != FALSE &&
                           FileTimeToDosDateTime(&localWritten, &time.date, &time.time) != FALSE;
    return converted ? time : DosTime{};
}

std::string WithSlashes(std::string name) {
    std::ranges::replace(name, '\\', '/');
    return name;
}

}  // namespace

std::string FormatSize(std::uint64_t bytes) {
    constexpr std::uint64_t kilobyte = 1024;
    constexpr std::uint64_t megabyte = kilobyte * kilobyte;
    if (bytes < kilobyte) {
        return fmt::format("{} B", bytes);
    }
    return bytes < megabyte ? fmt::format("{} kB", bytes / kilobyte) : fmt::format("{} MB", bytes / megabyte);
}

void ZipArchiveWrapper::Releaser::operator()(libzippp::ZipArchive* archive) const noexcept {
    // Every add has been written before; the library's own destructor would write what failed.
    archive->discard();
    libzippp::ZipArchive::free(archive);
}

ZipArchiveWrapper::ZipArchiveWrapper(std::filesystem::path path, std::uint64_t maxArchiveSize, bool deleteOnClose)
    : path_(std::move(path)), maxArchiveSize_(maxArchiveSize), deleteOnClose_(deleteOnClose) {}

ZipArchiveWrapper::~ZipArchiveWrapper() = default;

void ZipArchiveWrapper::Open(Creation creation) {
    if (path_.empty()) {
        throw Exception::RuntimeException("Path to archive was empty");
    }
    Win32ArchiveFile::Result file = std::unexpected<DWORD>(ERROR_FILE_NOT_FOUND);
    if (creation == Creation::IfMissing) {
        file = Win32ArchiveFile::Open(path_);
    }
    if (!file && file.error() == ERROR_FILE_NOT_FOUND) {
        file = CreateEmpty(path_);
    }
    if (const auto opened = Use(std::move(file)); !opened) {
        throw Exception::Win32Exception(CannotOpen(opened.error()), opened.error());
    }
}

// Opens the library's archive over the file; leaves none when that fails.
Win32Result<void> ZipArchiveWrapper::Use(Win32ArchiveFile::Result file) {
    Close();
    if (!file) {
        return std::unexpected(file.error());
    }
    file_ = *std::move(file);
    source_ = std::make_unique<AppendInPlaceSource>(*file_);
    auto opened = Reopen();
    if (!opened) {
        Close();
    } else if (deleteOnClose_) {
        remover_.Release();
        remover_ = FileSystem::FileObjectRemover(path_);
    }
    return opened;
}

// Opens the archive as it is on disk now; leaves none when that fails.
Win32Result<void> ZipArchiveWrapper::Reopen() const {
    archive_.reset();
    if (!source_) {
        return std::unexpected<DWORD>(ERROR_INVALID_HANDLE);
    }
    if (auto prepared = source_->Prepare(); !prepared) {
        return prepared;
    }
    zip_source_t* source = source_->NewSource();
    if (source == nullptr) {
        return std::unexpected<DWORD>(ERROR_NOT_ENOUGH_MEMORY);
    }
    archive_.reset(libzippp::ZipArchive::fromSource(source, libzippp::ZipArchive::Write));
    if (!archive_) {
        zip_source_free(source);
        return std::unexpected(source_->LastFailure() != ERROR_SUCCESS ? source_->LastFailure() : ERROR_BAD_FORMAT);
    }
    // From now on the library prints no failures: they are in the results. Only a failure of fromSource() has been
    // printed.
    archive_->setErrorHandlerCallback([](const std::string&, const std::string&, int, int) {});
    return {};
}

std::string ZipArchiveWrapper::CannotOpen(DWORD code) const {
    return fmt::format("Cannot open archive {}: {}", Util::ToUtf8Lossy(path_), Win32Reason(code));
}

std::string ZipArchiveWrapper::CannotWrite() const {
    const DWORD code = source_->LastFailure();
    return fmt::format("archive {} could not be written: {}", Util::ToUtf8Lossy(path_),
                       code == ERROR_SUCCESS ? "the library gave no reason" : Win32Reason(code));
}

void ZipArchiveWrapper::Close() {
    archive_.reset();
    source_.reset();
    file_.reset();
}

Win32Result<void> ZipArchiveWrapper::CopyTo(const std::filesystem::path& path, bool (*isCancelled)()) {
    auto copy = file_->CopyTo(path, isCancelled);
    if (!copy) {
        return std::unexpected(copy.error());
    }
    path_ = path;
    return Use(std::move(copy));
}

void ZipArchiveWrapper::SetPath(std::filesystem::path path) {
    path_ = std::move(path);
}

const std::filesystem::path& ZipArchiveWrapper::Path() const noexcept {
    return path_;
}

AddResult ZipArchiveWrapper::AddFile(const std::string& entryName, const std::filesystem::path& source,
                                     std::uint64_t maxSize) {
    return Add([&] { return WithSlashes(entryName); }, source, nullptr, maxSize);
}

AddResult ZipArchiveWrapper::AddFileToFolder(const std::filesystem::path& entryFolder,
                                             const std::filesystem::path& source, std::uint64_t maxSize) {
    return Add([&] { return UnusedEntryName(entryFolder, source); }, source, nullptr, maxSize);
}

AddResult ZipArchiveWrapper::AddFileToFolder(const std::filesystem::path& entryFolder, const OpenedFile& source,
                                             std::uint64_t maxSize) {
    return Add([&] { return UnusedEntryName(entryFolder, source.path); }, source.path, &source, maxSize);
}

// Names that differ only in the case of ASCII letters count as one: they are one file name where the archive is
// unpacked.
std::string ZipArchiveWrapper::UnusedEntryName(const std::filesystem::path& folder,
                                               const std::filesystem::path& file) const {
    const std::string start = WithSlashes(Util::ToUtf8Lossy(folder)) + '/';
    const std::string name = Util::ToUtf8Lossy(file.filename());
    // A dot at the beginning of a name begins no extension.
    const std::size_t dot = name.find_last_of('.');
    const std::size_t stem = dot == 0 ? std::string::npos : dot;
    const std::string extension = stem == std::string::npos ? std::string() : name.substr(stem);
    std::string entryName = start + name;
    for (int number = 2; archive_->hasEntry(entryName, false, false); ++number) {
        entryName = fmt::format("{}{} ({}){}", start, name.substr(0, stem), number, extension);
    }
    return entryName;
}

// Adds the file that is open already, or the one at the path. The name is asked for while the archive is open: the
// failure of an earlier add may have left it closed.
AddResult ZipArchiveWrapper::Add(const EntryNamer& entryName, const std::filesystem::path& path,
                                 const OpenedFile* opened, std::uint64_t maxSize) {
    try {
        if (const auto reopened = archive_ ? Win32Result<void>() : Reopen(); !reopened) {
            return NotArchived(path, CannotOpen(reopened.error()));
        }
        const std::string name = entryName();
        if (name.empty() || name.ends_with('/')) {
            return NotArchived(path, "the entry has no name");
        }
        if (archive_->hasEntry(name)) {
            return NotArchived(path, fmt::format("the archive has an entry {}", name));
        }
        if (opened != nullptr) {
            return AddOpened(name, *opened, maxSize, true);
        }
        // Kept from being renamed, so that the library reads the file whose size and time are asked for.
        auto handle = FileSystem::SharedWait().Retry([&] { return FileSystem::OpenTrusted(path, GENERIC_READ); });
        return handle ? AddOpened(name, {.path = path, .handle = *std::move(handle), .facts = {}}, maxSize, true)
                      : NotArchived(path, Win32Reason(handle.error()));
    } catch (const std::exception& failure) {
        Exception::LogError("{}", failure.what());
        return DropAdd(path, "it could not be added, see the log");
    }
}

AddResult ZipArchiveWrapper::AddOpened(const std::string& entryName, const OpenedFile& source, std::uint64_t maxSize,
                                       bool mayTryAgain) {
    const auto facts = FileSystem::FactsOf(source.handle.Get());
    if (!facts) {
        return NotArchived(source.path, Win32Reason(facts.error()));
    }
    if (facts->kind != FileSystem::FileKind::Regular) {
        return NotArchived(source.path, Win32Reason(ERROR_BAD_FILE_TYPE));
    }
    const std::uint64_t size = facts->size;
    if (maxSize != 0 && size > maxSize) {
        auto failure = NotArchived(source.path, fmt::format("it is too large ({})", FormatSize(size)));
        failure.error().tooLarge = size;
        return failure;
    }
    // Of a symbolic link the library takes the link's own size. Few sources are links, and the final path takes several
    // requests to the system: it is asked for when the sizes differ.
    const std::string libraryPath = LibraryPath(source, !mayTryAgain);
    if (libraryPath.empty()) {
        return NotArchived(source.path, "its name is not valid UTF-16");
    }
    // A file that is being written may grow again between this check and the library's: the second time that is fine.
    if (Write(entryName, libraryPath, *facts, mayTryAgain ? size : maxSize)) {
        return CheckAdded(entryName, source, size);
    }
    if (source_->LastFailure() != ERROR_SUCCESS) {
        return DropAdd(source.path, CannotWrite());
    }
    // The file may have been cut, or begun anew, since its size was asked for.
    if (mayTryAgain && Reopen()) {
        return AddOpened(entryName, source, maxSize, false);
    }
    return DropAdd(source.path, ReadingFailure(source.handle.Get(), size));
}

// The library must state a size from the checked one up to `largest` (0: no limit).
bool ZipArchiveWrapper::Write(const std::string& entryName, const std::string& libraryPath,
                              const FileSystem::FileFacts& checked, std::uint64_t largest) {
    // The library would read a file that is empty at first to whatever end it has later.
    if (!(checked.size == 0 ? archive_->addData(entryName, "", 0) : archive_->addFile(entryName, libraryPath))) {
        return false;
    }
    libzippp::ZipEntry entry = archive_->getEntry(entryName);
    // The library knows no size of a reparse point, such as a deduplicated file: it reads to the end.
    const std::uint64_t stated = entry.getSize();
    const bool isChecked =
        (stated >= checked.size && (largest == 0 || stated <= largest)) || (stated == 0 && checked.isReparsePoint);
    if (entry.isNull() || !isChecked || !entry.setCompressionMethod(libzippp::DEFLATE) ||
        !entry.setCompressionLevel(deflateLevel)) {
        return false;
    }
    const DosTime written = DosTimeOf(checked.lastWrite);
    return zip_file_set_dostime(archive_->getZipHandle(), entry.getIndex(), written.time, written.date, 0) == 0 &&
           archive_->close() == LIBZIPPP_OK;
}

// Goes back to what is on disk.
std::unexpected<ZipArchiveWrapper::AddFailure> ZipArchiveWrapper::DropAdd(const std::filesystem::path& source,
                                                                          std::string reason) {
    if (const auto reopened = Reopen(); !reopened) {
        reason += "; " + CannotOpen(reopened.error());
    }
    return NotArchived(source, reason);
}

AddResult ZipArchiveWrapper::CheckAdded(const std::string& entryName, const OpenedFile& source, std::uint64_t size) {
    AddedEntry entry{.entryName = entryName, .size = size};
    if (const auto reopened = Reopen(); !reopened) {
        return Incomplete(source.path, " was archived, but then: " + CannotOpen(reopened.error()), entry);
    }
    if (maxArchiveSize_ != 0 && source_->FileSize() > maxArchiveSize_) {
        return Exclude(entry, source.path);
    }
    entry.size = archive_->getEntry(entryName).getSize();
    if (entry.size < size) {
        return Incomplete(source.path, fmt::format(": {}; what was read is archived", Shrank(size, entry.size)), entry);
    }
    if (const auto facts = FileSystem::FactsOf(source.handle.Get()); facts && facts->size > entry.size) {
        return Incomplete(source.path,
                          fmt::format(" grew to {} bytes while it was read: its first {} bytes are archived",
                                      facts->size, entry.size),
                          entry);
    }
    return entry;
}

// Takes the entry out of the archive, which has become too large with it.
AddResult ZipArchiveWrapper::Exclude(const AddedEntry& entry, const std::filesystem::path& source) {
    const bool isWritten = archive_->deleteEntry(entry.entryName) == 1 && archive_->close() == LIBZIPPP_OK;
    const std::string reason = isWritten ? std::string() : CannotWrite();
    AddFailure failure{.message =
                           fmt::format("Excluded file {} ({}) as it exceeds the maximum archive size ({}).",
                                       Util::ToUtf8Lossy(source), FormatSize(entry.size), FormatSize(maxArchiveSize_))};
    if (const auto reopened = Reopen(); !reopened) {
        failure.message += "; " + CannotOpen(reopened.error());
    } else if (archive_->hasEntry(entry.entryName)) {
        failure.message += "; its entry could not be removed: " + reason;
        failure.archived = entry;
    }
    return std::unexpected(std::move(failure));
}

std::vector<libzippp::ZipEntry> ZipArchiveWrapper::Entries() const {
    return archive_ || Reopen() ? archive_->getEntries() : std::vector<libzippp::ZipEntry>();
}

}  // namespace Shared::FileZip
