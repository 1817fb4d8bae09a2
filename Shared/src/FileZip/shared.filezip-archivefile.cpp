#include "shared.filezip-archivefile.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-privatefile.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"

namespace Shared::FileZip {

namespace {

constexpr DWORD access = GENERIC_READ | GENERIC_WRITE;

template <class Open>
Win32ArchiveFile::Result Hold(const Open& open) {
    Win32Result<Util::FileHandle> handle = FileSystem::RetryWhileHeld(open);
    if (!handle) {
        return std::unexpected(handle.error());
    }
    return std::make_unique<Win32ArchiveFile>(*std::move(handle));
}

Win32Result<void> CopyContents(const ArchiveFile& from, ArchiveFile& to, bool (*isCancelled)()) {
    std::vector<std::byte> buffer(std::size_t{1} << 20U);
    for (std::uint64_t offset = 0;;) {
        if (isCancelled()) {
            return std::unexpected<DWORD>(ERROR_REQUEST_ABORTED);
        }
        const auto read = from.Read(offset, buffer);
        if (!read || *read == 0) {
            return read ? Win32Result<void>() : std::unexpected(read.error());
        }
        if (auto written = to.Write(offset, std::span(buffer).first(*read)); !written) {
            return written;
        }
        offset += *read;
    }
}

// Returns when the disk or the server has the data. Some redirectors have no such request.
Win32Result<void> Flush(HANDLE file) {
    auto flushed = Util::ResultOf(FlushFileBuffers(file));
    if (!flushed && (flushed.error() == ERROR_INVALID_FUNCTION || flushed.error() == ERROR_NOT_SUPPORTED)) {
        return {};
    }
    return flushed;
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

Win32ArchiveFile::Result Win32ArchiveFile::Open(const std::filesystem::path& path) {
    return Hold([name = FileSystem::NativeForm(path)]() -> Win32Result<Util::FileHandle> {
        auto file = FileSystem::OpenUntrusted(name, access | SYNCHRONIZE, 0);
        const auto plain = file ? FileSystem::CheckPlainFile(file->Get()) : Win32Result<void>();
        return plain ? std::move(file) : std::unexpected(plain.error());
    });
}

Win32ArchiveFile::Result Win32ArchiveFile::Create(const std::filesystem::path& path) {
    return Hold([&] { return FileSystem::CreatePrivateFile(path, access, 0); });
}

Win32ArchiveFile::Result Win32ArchiveFile::CopyTo(const std::filesystem::path& path, bool (*isCancelled)()) const {
    auto copy = Hold([name = FileSystem::LongForm(path)]() -> Win32Result<Util::FileHandle> {
        Util::FileHandle file(CreateFileW(name.c_str(), access, 0, nullptr, CREATE_NEW,
                                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
        return file ? Win32Result<Util::FileHandle>(std::move(file)) : Util::LastError();
    });
    if (!copy) {
        return copy;
    }
    FileSystem::FileObjectRemover remover(path);
    auto copied = CopyContents(*this, **copy, isCancelled);
    if (copied) {
        // A network share may fail only now; the caller removes the original next.
        copied = Flush((*copy)->handle_.Get());
    }
    if (!copied) {
        copy = std::unexpected(copied.error());  // closes the file, which is then removed
        return copy;
    }
    remover.Release();
    return copy;
}

Win32Result<std::uint64_t> Win32ArchiveFile::Size() const {
    LARGE_INTEGER size{};
    if (GetFileSizeEx(handle_.Get(), &size) == FALSE) {
        return Util::LastError();
    }
    return static_cast<std::uint64_t>(size.QuadPart);
}

Win32Result<std::size_t> Win32ArchiveFile::Read(std::uint64_t offset, std::span<std::byte> to) const {
    OVERLAPPED position = At(offset);
    DWORD read = 0;
    if (ReadFile(handle_.Get(), to.data(), LengthOfTransfer(to.size()), &read, &position) == FALSE &&
        GetLastError() != ERROR_HANDLE_EOF) {
        return Util::LastError();
    }
    return read;
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
    // A filter driver may have the file mapped for a moment.
    return FileSystem::RetryWhileHeld(
        [&] { return Util::ResultOf(SetFileInformationByHandle(handle_.Get(), FileEndOfFileInfo, &end, sizeof end)); });
}

}  // namespace Shared::FileZip
