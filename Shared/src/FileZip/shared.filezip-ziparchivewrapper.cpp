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
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filezip-appendsource.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace Shared::FileZip {

namespace {

constexpr libzippp::libzippp_uint32 deflateLevel = 6;

std::string NotArchived(const std::filesystem::path& source, std::string_view reason) {
    return fmt::format("Cannot archive file {}: {}", Util::ToUtf8Lossy(source), reason);
}

std::unexpected<ZipArchiveWrapper::AddFailure> Failed(std::string message, bool isArchived = false) {
    return std::unexpected(ZipArchiveWrapper::AddFailure{.message = std::move(message), .isArchived = isArchived});
}

std::string Win32Reason(DWORD code) {
    switch (code) {
        case ERROR_CANT_RESOLVE_FILENAME:
            return "the name stands for a link";
        case ERROR_TOO_MANY_LINKS:
            return "the file has further names (hard links)";
        default:
            return fmt::format("{} ({})", Exception::Win32Message(code), code);
    }
}

std::uint64_t SizeOf(const Util::FileHandle& file) {
    LARGE_INTEGER size{};
    return GetFileSizeEx(file.Get(), &size) == FALSE ? 0 : static_cast<std::uint64_t>(size.QuadPart);
}

std::string Shrank(std::uint64_t before, std::uint64_t now) {
    return fmt::format("it shrank from {} to {} bytes while it was read", before, now);
}

/// Why the library could not read a file of that size to its end. It keeps its reason to itself, so the file is read
/// once more.
std::string ReadingFailure(const Util::FileHandle& file, std::uint64_t size) {
    if (const std::uint64_t now = SizeOf(file); now < size) {
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

/// Why no archive could be opened over the source.
std::string OpeningFailure(const AppendInPlaceSource& file, zip_source_t* source) {
    if (file.LastFailure() != ERROR_SUCCESS) {
        return Win32Reason(file.LastFailure());
    }
    zip_error_t error;
    zip_error_init(&error);
    zip_source_keep(source);
    if (zip_t* archive = zip_open_from_source(source, ZIP_RDONLY, &error); archive != nullptr) {
        zip_discard(archive);
    } else {
        zip_source_free(source);
    }
    std::string reason = zip_error_strerror(&error);
    zip_error_fini(&error);
    return reason;
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
    // Releasing must not write: what is worth writing has been by then.
    archive->discard();
    libzippp::ZipArchive::free(archive);
}

ZipArchiveWrapper::ZipArchiveWrapper(std::filesystem::path path, std::uint64_t maxArchiveSize, bool deleteOnClose)
    : path_(std::move(path)), maxArchiveSize_(maxArchiveSize), deleteOnClose_(deleteOnClose) {}

ZipArchiveWrapper::~ZipArchiveWrapper() {
    try {
        Close();
    } catch (const std::exception& failure) {
        Exception::LogError("{}", failure.what());
    }
    archive_.reset();
    if (deleteOnClose_ && !path_.empty()) {
        FileSystem::FileObjectRemover(path_).Clear();
    }
}

void ZipArchiveWrapper::Open() {
    if (const std::string trouble = TryOpen(); !trouble.empty()) {
        throw Exception::RuntimeException(trouble);
    }
}

std::string ZipArchiveWrapper::TryOpen() {
    if (path_.empty()) {
        return "Path to archive was empty";
    }
    archive_.reset();
    source_ = std::make_unique<AppendInPlaceSource>(std::make_unique<Win32ArchiveFile>(path_));
    std::string trouble = Reopen();
    if (!archive_) {
        source_.reset();
    }
    return trouble;
}

/// Opens the archive as it is on disk now. Returns the reason when that fails, and leaves no archive then.
std::string ZipArchiveWrapper::Reopen() {
    archive_.reset();
    std::string reason;
    if (const auto prepared = source_->Prepare(); !prepared) {
        reason = Win32Reason(prepared.error());
    } else if (zip_source_t* source = source_->NewSource(); source != nullptr) {
        archive_.reset(libzippp::ZipArchive::fromSource(source, libzippp::ZipArchive::Write));
        if (!archive_) {
            reason = OpeningFailure(*source_, source);
            zip_source_free(source);
        }
    } else {
        reason = Win32Reason(ERROR_NOT_ENOUGH_MEMORY);
    }
    return reason.empty() ? reason : fmt::format("Cannot open archive {}: {}", Util::ToUtf8Lossy(path_), reason);
}

void ZipArchiveWrapper::Close() {
    const bool failed = archive_ && archive_->close() != LIBZIPPP_OK;
    const std::string reason = failed ? WritingFailure() : std::string();
    archive_.reset();
    source_.reset();
    if (failed) {
        throw Exception::RuntimeException(reason);
    }
}

std::string ZipArchiveWrapper::WritingFailure() const {
    const DWORD code = source_->LastFailure();
    return fmt::format("archive {} could not be written: {}", Util::ToUtf8Lossy(path_),
                       code == ERROR_SUCCESS ? "the library gave no reason" : Win32Reason(code));
}

/// Goes back to what is on disk. Returns what to add to a message: nothing, or that this failed too.
std::string ZipArchiveWrapper::DropChanges() {
    const std::string trouble = Reopen();
    return trouble.empty() ? trouble : "; " + trouble;
}

ZipArchiveWrapper::AddResult ZipArchiveWrapper::AddFile(const std::string& entryName,
                                                        const std::filesystem::path& source) {
    try {
        if (const std::string trouble = archive_ ? std::string() : TryOpen(); !trouble.empty()) {
            return Failed(NotArchived(source, trouble));
        }
        return AddToOpenArchive(EntryName(entryName), source);
    } catch (const std::exception& failure) {
        Exception::LogError("{}", failure.what());
        const std::string trouble = source_ ? DropChanges() : std::string();
        return Failed(NotArchived(source, "it could not be added, see the log") + trouble);
    }
}

ZipArchiveWrapper::AddResult ZipArchiveWrapper::AddToOpenArchive(const std::string& entryName,
                                                                 const std::filesystem::path& source) {
    const std::filesystem::path longForm = FileSystem::LongForm(source);
    // Held open from here on, and kept from being renamed, so that the size is that of the very file which the library
    // reads.
    const Util::FileHandle file(CreateFileW(longForm.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file) {
        return Failed(NotArchived(source, Win32Reason(GetLastError())));
    }
    const std::uint64_t size = SizeOf(file);
    const std::optional<std::string> libraryPath = LibraryPath(longForm);
    if (!libraryPath) {
        return Failed(NotArchived(source, "its name is not valid UTF-16"));
    }

    // An entry that is replaced in place would keep the library's default compression.
    bool prepared = !archive_->hasEntry(entryName) || archive_->deleteEntry(entryName) == 1;
    prepared = prepared && archive_->addFile(entryName, *libraryPath);
    if (prepared) {
        libzippp::ZipEntry entry = archive_->getEntry(entryName);
        prepared =
            entry.setCompressionMethod(libzippp::CompressionMethod::DEFLATE) && entry.setCompressionLevel(deflateLevel);
    }
    if (!prepared || archive_->close() != LIBZIPPP_OK) {
        const std::string reason =
            source_->LastFailure() != ERROR_SUCCESS ? WritingFailure() : ReadingFailure(file, size);
        return Failed(NotArchived(source, reason) + DropChanges());
    }
    if (const std::string trouble = Reopen(); !trouble.empty()) {
        return Failed(fmt::format("File {} was archived, but then: {}", Util::ToUtf8Lossy(source), trouble), true);
    }
    return CheckAdded(entryName, source, size, SizeOf(file));
}

ZipArchiveWrapper::AddResult ZipArchiveWrapper::CheckAdded(const std::string& entryName,
                                                           const std::filesystem::path& source,
                                                           std::uint64_t sizeBefore, std::uint64_t sizeAfter) {
    if (maxArchiveSize_ != 0 && source_->FileSize() > maxArchiveSize_) {
        return Failed(fmt::format("Excluded file {} ({}) as it exceeds the maximum archive size ({}).",
                                  Util::ToUtf8Lossy(source), FormatSize(sizeBefore), FormatSize(maxArchiveSize_)) +
                      Remove(entryName));
    }
    const std::uint64_t archived = archive_->getEntry(entryName).getSize();
    if (archived < sizeBefore) {
        return Failed(fmt::format("File {}: {}; what was read is archived", Util::ToUtf8Lossy(source),
                                  Shrank(sizeBefore, archived)),
                      true);
    }
    if (sizeAfter > archived) {
        return Failed(fmt::format("File {} grew to {} bytes while it was read: its first {} bytes are archived",
                                  Util::ToUtf8Lossy(source), sizeAfter, archived),
                      true);
    }
    return {};
}

/// Takes an entry out of the file on disk. Returns what to add to a message: nothing, or what went wrong.
std::string ZipArchiveWrapper::Remove(const std::string& entryName) {
    std::string trouble;
    if (archive_->deleteEntry(entryName) != 1 || archive_->close() != LIBZIPPP_OK) {
        trouble = "; its entry could not be removed: " + WritingFailure();
    }
    return trouble + DropChanges();
}

ZipArchiveWrapper::AddResult ZipArchiveWrapper::AddFileToFolder(const std::filesystem::path& entryFolder,
                                                                const std::filesystem::path& source) {
    const std::filesystem::path name = source.filename();
    std::string entryName = EntryName(Util::ToUtf8Lossy(entryFolder / name));
    if (Util::ConvertStringType(std::string_view(Util::ToUtf8Lossy(name))) != name.native()) {
        // Faulty names look alike once they are UTF-8; none may replace another.
        const std::string first = entryName;
        for (int number = 2; archive_ && archive_->hasEntry(entryName); ++number) {
            entryName = fmt::format("{} ({})", first, number);
        }
    }
    return AddFile(entryName, source);
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
