#include "shared.filezip-archivefile.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-status.h"

namespace Shared::FileZip {

namespace {

// A file is renamed, over the archive, through its handle.
constexpr DWORD writeAccess = GENERIC_READ | GENERIC_WRITE | DELETE;

Win32Result<Util::FileHandle> OpenPlainFile(const std::filesystem::path& path, DWORD access, DWORD sharing) {
    return FileSystem::RetryWhileHeld([&, name = FileSystem::NativeForm(path)]() -> Win32Result<Util::FileHandle> {
        auto file = FileSystem::OpenUntrusted(name, access | SYNCHRONIZE, sharing);
        const auto plain = file ? FileSystem::CheckPlainFile(file->Get()) : Win32Result<void>();
        return plain ? std::move(file) : std::unexpected(plain.error());
    });
}

Win32Result<FileIdentity> IdentityOf(const Util::FileHandle& file) {
    BY_HANDLE_FILE_INFORMATION information{};
    if (GetFileInformationByHandle(file.Get(), &information) == FALSE) {
        return Util::LastError();
    }
    return FileIdentity{.volume = information.dwVolumeSerialNumber,
                        .index = std::uint64_t{information.nFileIndexHigh} << 32U | information.nFileIndexLow};
}

Win32Result<void> RenameOver(const Util::FileHandle& file, const std::filesystem::path& path) {
    const std::size_t length = path.native().size() * sizeof(wchar_t);
    std::vector<std::byte> buffer(sizeof(FILE_RENAME_INFO) + length);
    auto* const information = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    information->ReplaceIfExists = TRUE;
    information->FileNameLength = static_cast<DWORD>(length);
    std::memcpy(information->FileName, path.c_str(), length);
    return Util::ResultOf(
        SetFileInformationByHandle(file.Get(), FileRenameInfo, information, static_cast<DWORD>(buffer.size())));
}

OVERLAPPED At(std::uint64_t offset) {
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(offset & std::numeric_limits<DWORD>::max());
    position.OffsetHigh = static_cast<DWORD>(offset >> 32U);
    return position;
}

DWORD LengthOfTransfer(std::size_t size) {
    return static_cast<DWORD>(std::min<std::size_t>(size, std::numeric_limits<DWORD>::max()));
}

}  // namespace

Win32ArchiveFile::Win32ArchiveFile(const std::filesystem::path& path) : path_(FileSystem::LongForm(path)) {}

Win32ArchiveFile::Win32ArchiveFile(FileSystem::NamedFile file)
    : path_(std::move(file.path)), remover_(path_), handle_(std::move(file.handle)) {}

Win32Result<void> Win32ArchiveFile::Open() {
    if (handle_) {
        return {};
    }
    auto opened = OpenPlainFile(path_, writeAccess, 0);
    if (!opened) {
        return std::unexpected(opened.error());
    }
    handle_ = *std::move(opened);
    return {};
}

Win32Result<void> Win32ArchiveFile::Create() {
    auto created = FileSystem::RetryWhileHeld([&] { return FileSystem::CreatePrivateFile(path_, writeAccess, 0); });
    if (!created) {
        return std::unexpected(created.error());
    }
    handle_ = *std::move(created);
    return {};
}

Win32Result<std::uint64_t> Win32ArchiveFile::Size() const {
    LARGE_INTEGER size{};
    if (GetFileSizeEx(handle_.Get(), &size) == FALSE) {
        return Util::LastError();
    }
    return static_cast<std::uint64_t>(size.QuadPart);
}

Win32Result<std::size_t> Win32ArchiveFile::Read(std::uint64_t offset, std::span<std::byte> to) const {
    std::size_t total = 0;
    while (total < to.size()) {
        OVERLAPPED position = At(offset + total);
        DWORD read = 0;
        if (ReadFile(handle_.Get(), to.data() + total, LengthOfTransfer(to.size() - total), &read, &position) ==
                FALSE &&
            GetLastError() != ERROR_HANDLE_EOF) {
            return Util::LastError();
        }
        if (read == 0) {
            break;
        }
        total += read;
    }
    return total;
}

Win32Result<void> Win32ArchiveFile::Write(std::uint64_t offset, std::span<const std::byte> from) {
    while (!from.empty()) {
        OVERLAPPED position = At(offset);
        DWORD written = 0;
        if (WriteFile(handle_.Get(), from.data(), LengthOfTransfer(from.size()), &written, &position) == FALSE) {
            return Util::LastError();
        }
        if (written == 0) {
            return std::unexpected<DWORD>(ERROR_DISK_FULL);
        }
        from = from.subspan(written);
        offset += written;
    }
    return {};
}

Win32Result<void> Win32ArchiveFile::Truncate(std::uint64_t size) {
    FILE_END_OF_FILE_INFO end{};
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    return Util::ResultOf(SetFileInformationByHandle(handle_.Get(), FileEndOfFileInfo, &end, sizeof end));
}

Win32Result<std::unique_ptr<ArchiveFile>> Win32ArchiveFile::CreateSibling() {
    auto created = FileSystem::CreateUniqueFile(path_, writeAccess, 0);
    if (!created) {
        return std::unexpected(created.error());
    }
    return std::unique_ptr<ArchiveFile>(new Win32ArchiveFile(*std::move(created)));
}

Win32Result<void> Win32ArchiveFile::ReplaceBy(ArchiveFile& sibling) {
    auto& other = static_cast<Win32ArchiveFile&>(sibling);
    handle_.Reset();
    auto renamed = FileSystem::RetryWhileHeld([&] { return RenameOver(other.handle_, path_); });
    if (renamed) {
        handle_ = std::move(other.handle_);
        other.remover_.Release();
    }
    return renamed;
}

Win32Result<FileIdentity> Win32ArchiveFile::Identity() const {
    return IdentityOf(handle_);
}

Win32Result<Util::FileHandle> Win32ArchiveFile::OpenToRead(const std::filesystem::path& path,
                                                           const FileIdentity& identity) {
    auto file = OpenPlainFile(path, GENERIC_READ, FILE_SHARE_READ);
    if (!file) {
        return file;
    }
    const auto found = IdentityOf(*file);
    if (!found || *found != identity) {
        return std::unexpected<DWORD>(found ? ERROR_FILE_INVALID : found.error());
    }
    return file;
}

}  // namespace Shared::FileZip
