#include "shared.filezip-ziparchivewrapper.h"

#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace Shared::FileZip {

namespace {

constexpr libzippp::libzippp_uint32 deflateLevel = 6;

std::string NotArchived(const std::filesystem::path& source, std::string_view reason) {
    return fmt::format("Cannot archive file {}: {}", Util::ToUtf8(source), reason);
}

std::string Win32Reason(DWORD code) {
    return fmt::format("{} ({})", Exception::Win32Message(code), code);
}

std::uint64_t SizeOf(const Util::FileHandle& file) {
    LARGE_INTEGER size{};
    return GetFileSizeEx(file.Get(), &size) == FALSE ? 0 : static_cast<std::uint64_t>(size.QuadPart);
}

/// The first failure that reading the whole file meets; the library's own reason does not come through.
DWORD ReadingFailure(const Util::FileHandle& file) {
    std::vector<char> buffer(std::size_t{256} * 1024);
    const LARGE_INTEGER start{};
    if (SetFilePointerEx(file.Get(), start, nullptr, FILE_BEGIN) == FALSE) {
        return GetLastError();
    }
    for (DWORD read = 1; read != 0;) {
        if (ReadFile(file.Get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr) == FALSE) {
            return GetLastError();
        }
    }
    return ERROR_SUCCESS;
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

/// The size of the file of that name; 0 when there is none.
std::uint64_t FileSize(const std::filesystem::path& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (GetFileAttributesExW(FileSystem::LongForm(path).c_str(), GetFileExInfoStandard, &data) == FALSE) {
        return 0;
    }
    return (std::uint64_t{data.nFileSizeHigh} << 32U) | data.nFileSizeLow;
}

/// Why the library could not take in a source of that size.
std::string FailureOfAdd(const Util::FileHandle& source, std::uint64_t size) {
    if (const std::uint64_t now = SizeOf(source); now < size) {
        return fmt::format("it shrank from {} to {} bytes while it was read", size, now);
    }
    if (const DWORD code = ReadingFailure(source); code != ERROR_SUCCESS) {
        return Win32Reason(code);
    }
    return "the archive could not be written";
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
        if (const DWORD error = FileSystem::RemoveName(path_); error != ERROR_SUCCESS) {
            Exception::LogWarning("Failed removing file {}: {}", Util::ToUtf8(path_), Exception::Win32Message(error));
        }
    }
}

void ZipArchiveWrapper::Open() {
    if (path_.empty()) {
        throw Exception::RuntimeException("Path to archive was empty");
    }
    archive_.reset();
    Reopen();
}

void ZipArchiveWrapper::Reopen() {
    archive_.reset(new libzippp::ZipArchive(Util::ConvertStringType(FileSystem::LongForm(path_).native())));
    if (!archive_->open(libzippp::ZipArchive::Write)) {
        archive_.reset();
        openFailure_ = "the library cannot open it";
        throw Exception::RuntimeException(fmt::format("Cannot open archive {}: {}", Util::ToUtf8(path_), openFailure_));
    }
}

void ZipArchiveWrapper::Close() {
    if (archive_ && archive_->close() != LIBZIPPP_OK) {
        throw Exception::RuntimeException(fmt::format("Cannot write archive {}", Util::ToUtf8(path_)));
    }
    archive_.reset();
}

std::string ZipArchiveWrapper::DropChanges() {
    if (archive_) {
        archive_->discard();
    }
    try {
        Reopen();
        return {};
    } catch (const std::exception& failure) {
        Exception::LogError("{}", failure.what());
        return fmt::format("; the archive could not be opened again: {}", openFailure_);
    }
}

ZipArchiveWrapper::AddResult ZipArchiveWrapper::AddFile(const std::string& entryName,
                                                        const std::filesystem::path& source) {
    try {
        if (!archive_) {
            Open();
        }
        return AddToOpenArchive(EntryName(entryName), source);
    } catch (const std::exception& failure) {
        Exception::LogError("{}", failure.what());
        return std::unexpected(NotArchived(source, archive_ ? "it could not be added" : openFailure_) + DropChanges());
    }
}

ZipArchiveWrapper::AddResult ZipArchiveWrapper::AddToOpenArchive(const std::string& entryName,
                                                                 const std::filesystem::path& source) {
    const std::filesystem::path longForm = FileSystem::LongForm(source);
    // Held open from here on, so that the size is that of the very file which the library reads.
    const Util::FileHandle file(CreateFileW(longForm.c_str(), GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                            OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file) {
        return std::unexpected(NotArchived(source, Win32Reason(GetLastError())));
    }
    const std::uint64_t size = SizeOf(file);
    const std::optional<std::string> libraryPath = LibraryPath(longForm);
    if (!libraryPath) {
        return std::unexpected(NotArchived(source, "its name is not valid UTF-16"));
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
        const std::string reason = FailureOfAdd(file, size);
        return std::unexpected(NotArchived(source, reason) + DropChanges());
    }
    Reopen();

    const std::uint64_t archived = archive_->getEntry(entryName).getSize();
    if (archived < size) {
        return std::unexpected(
            NotArchived(source, fmt::format("it shrank from {} to {} bytes while it was read", size, archived)) +
            Remove(entryName));
    }
    if (maxArchiveSize_ != 0 && FileSize(path_) > maxArchiveSize_) {
        const std::string trouble = Remove(entryName);
        return std::unexpected(fmt::format("Excluded file {} ({}) as it exceeds the maximum archive size ({}).",
                                           Util::ToUtf8(source), FormatSize(size), FormatSize(maxArchiveSize_)) +
                               trouble);
    }
    if (const std::uint64_t grown = SizeOf(file); grown > archived) {
        return std::unexpected(
            fmt::format("File {} grew to {} bytes while it was read: its first {} bytes are archived",
                        Util::ToUtf8(source), grown, archived));
    }
    return {};
}

std::string ZipArchiveWrapper::Remove(const std::string& entryName) {
    if (archive_->deleteEntry(entryName) == 1 && archive_->close() == LIBZIPPP_OK) {
        Reopen();
        return {};
    }
    return "; its entry could not be removed from the archive" + DropChanges();
}

ZipArchiveWrapper::AddResult ZipArchiveWrapper::AddFileToFolder(const std::filesystem::path& entryFolder,
                                                                const std::filesystem::path& source) {
    const std::filesystem::path name = source.filename();
    std::string entryName = EntryName(Util::ToUtf8(entryFolder / name));
    if (Util::ConvertStringType(Util::ToUtf8(name)) != name.native()) {
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
