#include "shared.filezip-ziparchivewrapper.h"

#include <windows.h>

#include <fmt/format.h>
#include <zip.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-status.h"
#include "shared.filezip-appendsource.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace Shared::FileZip {

namespace {

/// Deflates logs at 49 MB/s where level 6 does 36, and a package manager's log at 160 where level 6 does 74, for 2.7
/// and 1.1 % more bytes.
constexpr libzippp_uint32 deflateLevel = 5;

using AddResult = ZipArchiveWrapper::AddResult;
using FileSystem::SizeOf;
using Util::Win32Result;

std::string NotArchived(const std::filesystem::path& source, std::string_view reason) {
    return fmt::format("Cannot archive file {}: {}", Util::ToUtf8Lossy(source), reason);
}

std::unexpected<ZipArchiveWrapper::AddFailure> Failed(std::string message, bool isArchived = false) {
    return std::unexpected(ZipArchiveWrapper::AddFailure{.message = std::move(message), .isArchived = isArchived});
}

AddResult TooLarge(const std::filesystem::path& source, std::uint64_t size) {
    return std::unexpected(ZipArchiveWrapper::AddFailure{
        .message = NotArchived(source, fmt::format("it is too large ({})", FormatSize(size))), .tooLarge = size});
}

std::string Win32Reason(DWORD code) {
    switch (code) {
        case ERROR_CANT_RESOLVE_FILENAME:
            return "it is a symbolic link, junction or mount point";
        case ERROR_TOO_MANY_LINKS:
            return "the file has further hard links";
        case ERROR_BAD_FORMAT:
            return "it is not a zip archive";
        default:
            return fmt::format("{} ({})", Exception::Win32Message(code), code);
    }
}

std::string Shrank(std::uint64_t before, std::uint64_t now) {
    return fmt::format("it shrank from {} to {} bytes while it was read", before, now);
}

/// Why the library could not read a file of that size to its end. The library does not report the reason, so the file
/// is read once more to find it.
std::string ReadingFailure(const Util::FileHandle& file, std::uint64_t size) {
    if (const std::uint64_t now = SizeOf(file.Get()); now < size) {
        return Shrank(size, now);
    }
    std::vector<char> buffer(std::size_t{256} * 1024);
    for (DWORD read = 1; read != 0;) {
        if (ReadFile(file.Get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr) == FALSE) {
            return Win32Reason(GetLastError());
        }
    }
    return "it could not be read or compressed";
}

/// The path as the library takes it. A name that is no valid UTF-16 has no UTF-8 form: then its short name serves,
/// where the volume keeps one.
std::optional<std::string> LibraryPath(const std::filesystem::path& longForm) {
    try {
        return Util::ConvertStringType(longForm.native());
    } catch (const Exception::Win32Exception&) {
        std::wstring name(32768, L'\0');
        const DWORD length = GetShortPathNameW(longForm.c_str(), name.data(), static_cast<DWORD>(name.size()));
        if (length == 0 || length >= name.size()) {
            return std::nullopt;
        }
        name.resize(length);
        try {
            return Util::ConvertStringType(name);
        } catch (const Exception::Win32Exception&) {
            return std::nullopt;
        }
    }
}

/// Lets the C library, with which libzip converts times, take the time zone from Windows. A variable TZ in the
/// environment would come first; child processes keep it.
void ForgetTimeZoneVariable() {
    std::wstring zone(GetEnvironmentVariableW(L"TZ", nullptr, 0), L'\0');
    if (!zone.empty()) {
        GetEnvironmentVariableW(L"TZ", zone.data(), static_cast<DWORD>(zone.size()));
        static_cast<void>(_wputenv_s(L"TZ", L""));
        SetEnvironmentVariableW(L"TZ", zone.c_str());
        _tzset();
    }
}

/// A moment as zip entries state it: local time, by Windows' rules, from 1980 to 2107. The first one stands for what is
/// out of that range.
struct DosTime {
    WORD date = 1U << 5U | 1U;
    WORD time = 0;
};

DosTime LastWriteTime(const Util::FileHandle& file) {
    FILETIME written{};
    FILETIME localWritten{};
    SYSTEMTIME utc{};
    SYSTEMTIME local{};
    DosTime time;
    const bool converted = GetFileTime(file.Get(), nullptr, nullptr, &written) != FALSE &&
                           FileTimeToSystemTime(&written, &utc) != FALSE &&
                           SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) != FALSE &&
                           SystemTimeToFileTime(&local, &localWritten) != FALSE &&
                           FileTimeToDosDateTime(&localWritten, &time.date, &time.time) != FALSE;
    return converted ? time : DosTime{};
}

std::string EntryName(std::string name) {
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
    // Every add has been written by then; the library's own destructor would write what failed.
    archive->discard();
    libzippp::ZipArchive::free(archive);
}

/// A file that is being added. It is held open from the first look at it, and kept from being renamed, so that its size
/// and its time are those of the very file which the library reads.
struct ZipArchiveWrapper::SourceFile {
    std::filesystem::path path;
    Util::FileHandle handle;
    std::string libraryPath;

    /// The reason when it cannot be opened.
    static std::expected<SourceFile, std::string> Open(const std::filesystem::path& path) {
        const std::filesystem::path longForm = FileSystem::LongForm(path);
        auto handle = FileSystem::SharedWait().Retry([&]() -> Win32Result<Util::FileHandle> {
            Util::FileHandle file(CreateFileW(longForm.c_str(), GENERIC_READ, FileSystem::shareContent, nullptr,
                                              OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
            return file ? Win32Result<Util::FileHandle>(std::move(file)) : Util::LastError();
        });
        if (!handle) {
            return std::unexpected(Win32Reason(handle.error()));
        }
        std::optional<std::string> libraryPath = LibraryPath(longForm);
        if (!libraryPath) {
            return std::unexpected("its name is not valid UTF-16");
        }
        return SourceFile{.path = path, .handle = *std::move(handle), .libraryPath = std::move(*libraryPath)};
    }
};

ZipArchiveWrapper::ZipArchiveWrapper(std::filesystem::path path, std::uint64_t maxArchiveSize, bool deleteOnClose)
    : path_(std::move(path)), maxArchiveSize_(maxArchiveSize), deleteOnClose_(deleteOnClose) {}

ZipArchiveWrapper::~ZipArchiveWrapper() = default;

void ZipArchiveWrapper::Open(Creation creation) {
    if (path_.empty()) {
        throw Exception::RuntimeException("Path to archive was empty");
    }
    if (const auto opened = TryOpen(creation); !opened) {
        throw Exception::Win32Exception(CannotOpen(opened.error()), opened.error());
    }
}

Win32Result<void> ZipArchiveWrapper::TryOpen(Creation creation) {
    ForgetTimeZoneVariable();
    archive_.reset();
    file_ = std::make_unique<Win32ArchiveFile>(path_);
    source_ = std::make_unique<AppendInPlaceSource>(*file_);
    auto opened = creation == Creation::New ? source_->Create() : source_->Prepare();
    if (!opened && opened.error() == ERROR_FILE_NOT_FOUND && creation == Creation::IfMissing) {
        opened = source_->Create();
    }
    opened = opened ? OpenLibrary() : opened;
    if (!opened) {
        source_.reset();
        file_.reset();
    } else if (deleteOnClose_) {
        remover_.Release();
        remover_ = FileSystem::FileObjectRemover(path_);
    }
    return opened;
}

/// Opens the archive as it is on disk now; leaves none when that fails.
Win32Result<void> ZipArchiveWrapper::Reopen() {
    archive_.reset();
    const auto prepared = source_->Prepare();
    return prepared ? OpenLibrary() : prepared;
}

Win32Result<void> ZipArchiveWrapper::OpenLibrary() {
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

void ZipArchiveWrapper::Close() {
    const bool failed = archive_ && archive_->close() != LIBZIPPP_OK;
    const std::string reason = failed ? WritingFailure() : std::string();
    if (file_) {
        identity_ = file_->Identity().value_or(FileIdentity());
    }
    archive_.reset();
    source_.reset();
    file_.reset();
    if (failed) {
        throw Exception::RuntimeException(reason);
    }
}

Util::FileHandle ZipArchiveWrapper::ReopenToCopy() const {
    auto file = Win32ArchiveFile::OpenToRead(path_, identity_);
    if (!file) {
        throw Exception::Win32Exception(CannotOpen(file.error()), file.error());
    }
    return *std::move(file);
}

std::string ZipArchiveWrapper::WritingFailure() const {
    const DWORD code = source_->LastFailure();
    return fmt::format("archive {} could not be written: {}", Util::ToUtf8Lossy(path_),
                       code == ERROR_SUCCESS ? "the library gave no reason" : Win32Reason(code));
}

/// Goes back to what is on disk. Returns what to add to a message: nothing, or that this failed too.
std::string ZipArchiveWrapper::DropChanges() {
    const auto reopened = Reopen();
    return reopened ? std::string() : "; " + CannotOpen(reopened.error());
}

/// Adds by the given function, with the archive open: the add before may have left it closed.
template <class Add>
AddResult ZipArchiveWrapper::WithOpenArchive(const std::filesystem::path& source, const Add& add) {
    try {
        if (!archive_) {
            if (const auto opened = source_ ? Reopen() : TryOpen(Creation::Never); !opened) {
                return Failed(NotArchived(source, CannotOpen(opened.error())));
            }
        }
        return add();
    } catch (const std::exception& failure) {
        Exception::LogError("{}", failure.what());
        const std::string error = source_ ? DropChanges() : std::string();
        return Failed(NotArchived(source, "it could not be added, see the log") + error);
    }
}

AddResult ZipArchiveWrapper::AddFile(const std::string& entryName, const std::filesystem::path& source,
                                     std::uint64_t maxSize) {
    return WithOpenArchive(source, [&] { return AddSource(EntryName(entryName), source, maxSize); });
}

AddResult ZipArchiveWrapper::AddFileToFolder(const std::filesystem::path& entryFolder,
                                             const std::filesystem::path& source, std::uint64_t maxSize) {
    return WithOpenArchive(source, [&] {
        const std::string folder = EntryName(Util::ToUtf8Lossy(entryFolder));
        return AddSource(FreeName(folder + '/', Util::ToUtf8Lossy(source.filename())), source, maxSize);
    });
}

/// The entry name, or that name with the first number with which no entry has it. Names that differ only in
/// the case of ASCII letters count as one: they are one file name where the archive is unpacked.
std::string ZipArchiveWrapper::FreeName(const std::string& folder, const std::string& name) const {
    // A dot at the beginning of a name begins no extension.
    const std::size_t dot = name.find_last_of('.');
    const std::size_t stem = dot == 0 ? std::string::npos : dot;
    const std::string extension = stem == std::string::npos ? std::string() : name.substr(stem);
    std::string entryName = folder + name;
    for (int number = 2; archive_->hasEntry(entryName, false, false); ++number) {
        entryName = fmt::format("{}{} ({}){}", folder, name.substr(0, stem), number, extension);
    }
    return entryName;
}

AddResult ZipArchiveWrapper::AddSource(const std::string& entryName, const std::filesystem::path& source,
                                       std::uint64_t maxSize) {
    if (entryName.empty() || entryName.ends_with('/')) {
        return Failed(NotArchived(source, "the entry has no name"));
    }
    const auto opened = SourceFile::Open(source);
    if (!opened) {
        return Failed(NotArchived(source, opened.error()));
    }
    const std::uint64_t size = SizeOf(opened->handle.Get());
    AddResult added = AddOpened(entryName, *opened, maxSize);
    const bool isDecided = added || added.error().isArchived || added.error().tooLarge;
    // A log that was begun anew meanwhile can be read to its new end.
    const bool mayBeReadNow = !isDecided && archive_ && SizeOf(opened->handle.Get()) != size;
    return mayBeReadNow ? AddOpened(entryName, *opened, maxSize) : added;
}

AddResult ZipArchiveWrapper::AddOpened(const std::string& entryName, const SourceFile& source, std::uint64_t maxSize) {
    const std::uint64_t size = SizeOf(source.handle.Get());
    if (maxSize != 0 && size > maxSize) {
        return TooLarge(source.path, size);
    }
    if (!Write(entryName, source, size)) {
        const std::string reason =
            source_->LastFailure() != ERROR_SUCCESS ? WritingFailure() : ReadingFailure(source.handle, size);
        return Failed(NotArchived(source.path, reason) + DropChanges());
    }
    if (const auto reopened = Reopen(); !reopened) {
        return Failed(fmt::format("File {} was archived, but then: {}", Util::ToUtf8Lossy(source.path),
                                  CannotOpen(reopened.error())),
                      true);
    }
    return CheckAdded(entryName, source, size, maxSize);
}

bool ZipArchiveWrapper::Write(const std::string& entryName, const SourceFile& source, std::uint64_t size) {
    // An entry that is replaced in place would keep the library's default compression.
    if (archive_->hasEntry(entryName) && archive_->deleteEntry(entryName) != 1) {
        return false;
    }
    // Of a file without a size the library reads whatever is there, for as long as the file grows.
    if (!(size == 0 ? archive_->addData(entryName, "", 0) : archive_->addFile(entryName, source.libraryPath))) {
        return false;
    }
    libzippp::ZipEntry entry = archive_->getEntry(entryName);
    if (entry.isNull() || !entry.setCompressionMethod(libzippp::DEFLATE) || !entry.setCompressionLevel(deflateLevel)) {
        return false;
    }
    const DosTime written = LastWriteTime(source.handle);
    return zip_file_set_dostime(archive_->getZipHandle(), entry.getIndex(), written.time, written.date, 0) == 0 &&
           archive_->close() == LIBZIPPP_OK;
}

AddResult ZipArchiveWrapper::CheckAdded(const std::string& entryName, const SourceFile& source, std::uint64_t size,
                                        std::uint64_t maxSize) {
    const std::uint64_t archived = archive_->getEntry(entryName).getSize();
    if (maxSize != 0 && archived > maxSize) {
        AddResult excluded = TooLarge(source.path, archived);
        excluded.error().message += Remove(entryName);
        return excluded;
    }
    if (maxArchiveSize_ != 0 && source_->FileSize() > maxArchiveSize_) {
        return Failed(fmt::format("Excluded file {} ({}) as it exceeds the maximum archive size ({}).",
                                  Util::ToUtf8Lossy(source.path), FormatSize(size), FormatSize(maxArchiveSize_)) +
                      Remove(entryName));
    }
    if (archived < size) {
        return Failed(fmt::format("File {}: {}; what was read is archived", Util::ToUtf8Lossy(source.path),
                                  Shrank(size, archived)),
                      true);
    }
    if (const std::uint64_t now = SizeOf(source.handle.Get()); now > archived) {
        return Failed(fmt::format("File {} grew to {} bytes while it was read: its first {} bytes are archived",
                                  Util::ToUtf8Lossy(source.path), now, archived),
                      true);
    }
    return {};
}

/// Takes an entry out of the file on disk. Returns what to add to a message: nothing, or what went wrong.
std::string ZipArchiveWrapper::Remove(const std::string& entryName) {
    std::string error;
    if (archive_->deleteEntry(entryName) != 1 || archive_->close() != LIBZIPPP_OK) {
        error = "; its entry could not be removed: " + WritingFailure();
    }
    return error + DropChanges();
}

void ZipArchiveWrapper::SetPath(std::filesystem::path path) {
    path_ = std::move(path);
}

const std::filesystem::path& ZipArchiveWrapper::Path() const noexcept {
    return path_;
}

std::vector<libzippp::ZipEntry> ZipArchiveWrapper::Entries() const {
    return archive_ ? archive_->getEntries() : std::vector<libzippp::ZipEntry>();
}

}  // namespace Shared::FileZip
