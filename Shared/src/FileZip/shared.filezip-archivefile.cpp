#include "shared.filezip-archivefile.h"

#include <fmt/xchar.h>

#include <algorithm>
#include <limits>

#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"

namespace Shared::FileZip {

namespace {

/// Scanners and viewers hold a fresh file for moments; waiting for them beats losing evidence.
template <class Operation>
DWORD PatientlyDo(const Operation& operation) {
    constexpr int attempts = 20;
    constexpr DWORD pause = 50;
    for (int attempt = 1;; ++attempt) {
        const DWORD code = operation();
        const bool busy = code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION ||
                          code == ERROR_USER_MAPPED_FILE || code == ERROR_DELETE_PENDING;
        if (!busy || attempt == attempts) {
            return code;
        }
        Sleep(pause);
    }
}

FileResult<void> ResultOf(DWORD code) {
    if (code != ERROR_SUCCESS) {
        return std::unexpected(code);
    }
    return {};
}

Util::FileHandle OpenFile(const std::filesystem::path& path, DWORD disposition) {
    return Util::FileHandle(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                        disposition, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

OVERLAPPED At(std::uint64_t offset) {
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(offset & std::numeric_limits<DWORD>::max());
    position.OffsetHigh = static_cast<DWORD>(offset >> 32U);
    return position;
}

}  // namespace

Win32ArchiveFile::Win32ArchiveFile(const std::filesystem::path& path) : path_(FileSystem::LongForm(path)) {}

Win32ArchiveFile::~Win32ArchiveFile() {
    handle_.Reset();
    if (temporary_) {
        // A file that stays behind does no harm, and there is nobody to tell.
        static_cast<void>(FileSystem::RemoveName(path_));
    }
}

FileResult<void> Win32ArchiveFile::Open() {
    if (handle_) {
        return {};
    }
    return ResultOf(PatientlyDo([this]() -> DWORD {
        Util::FileHandle file = OpenFile(path_, OPEN_EXISTING);
        if (!file) {
            return GetLastError();
        }
        if (const auto plain = FileSystem::CheckPlainFile(file.Get()); !plain) {
            return plain.error();
        }
        handle_ = std::move(file);
        return ERROR_SUCCESS;
    }));
}

FileResult<void> Win32ArchiveFile::Create() {
    handle_ = OpenFile(path_, CREATE_NEW);
    return ResultOf(handle_ ? ERROR_SUCCESS : GetLastError());
}

void Win32ArchiveFile::Close() noexcept {
    handle_.Reset();
}

FileResult<std::uint64_t> Win32ArchiveFile::Size() const {
    LARGE_INTEGER size{};
    if (GetFileSizeEx(handle_.Get(), &size) == FALSE) {
        return std::unexpected(GetLastError());
    }
    return static_cast<std::uint64_t>(size.QuadPart);
}

FileResult<std::size_t> Win32ArchiveFile::Read(std::uint64_t offset, std::span<std::byte> to) const {
    std::size_t total = 0;
    while (total < to.size()) {
        OVERLAPPED position = At(offset + total);
        const auto wanted =
            static_cast<DWORD>(std::min<std::size_t>(to.size() - total, std::numeric_limits<DWORD>::max()));
        DWORD read = 0;
        if (ReadFile(handle_.Get(), to.data() + total, wanted, &read, &position) == FALSE &&
            GetLastError() != ERROR_HANDLE_EOF) {
            return std::unexpected(GetLastError());
        }
        if (read == 0) {
            break;
        }
        total += read;
    }
    return total;
}

FileResult<void> Win32ArchiveFile::Write(std::uint64_t offset, std::span<const std::byte> from) {
    while (!from.empty()) {
        OVERLAPPED position = At(offset);
        const auto wanted = static_cast<DWORD>(std::min<std::size_t>(from.size(), std::numeric_limits<DWORD>::max()));
        DWORD written = 0;
        if (WriteFile(handle_.Get(), from.data(), wanted, &written, &position) == FALSE) {
            return std::unexpected(GetLastError());
        }
        if (written == 0) {
            return std::unexpected<DWORD>(ERROR_DISK_FULL);
        }
        from = from.subspan(written);
        offset += written;
    }
    return {};
}

FileResult<void> Win32ArchiveFile::Truncate(std::uint64_t size) {
    return ResultOf(PatientlyDo([this, size]() -> DWORD {
        FILE_END_OF_FILE_INFO end{};
        end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
        return SetFileInformationByHandle(handle_.Get(), FileEndOfFileInfo, &end, sizeof end) == FALSE ? GetLastError()
                                                                                                       : ERROR_SUCCESS;
    }));
}

FileResult<std::unique_ptr<ArchiveFile>> Win32ArchiveFile::CreateSibling() {
    constexpr int attempts = 100;
    for (int attempt = 0;; ++attempt) {
        auto sibling = std::make_unique<Win32ArchiveFile>(
            fmt::format(L"{}.{:x}-{:x}-{}.tmp", path_.native(), GetCurrentProcessId(), GetTickCount64(), attempt));
        const auto created = sibling->Create();
        if (created) {
            sibling->temporary_ = true;
            return sibling;
        }
        if (created.error() != ERROR_FILE_EXISTS || attempt == attempts) {
            return std::unexpected(created.error());
        }
    }
}

FileResult<void> Win32ArchiveFile::ReplaceBy(ArchiveFile& sibling) {
    auto& other = static_cast<Win32ArchiveFile&>(sibling);
    other.Close();
    Close();
    auto replaced = ResultOf(PatientlyDo([&]() -> DWORD {
        if (MoveFileExW(other.path_.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE) {
            return ERROR_SUCCESS;
        }
        // What says that somebody has the file open that is to be replaced.
        const DWORD code = GetLastError();
        return code == ERROR_ACCESS_DENIED ? ERROR_SHARING_VIOLATION : code;
    }));
    if (replaced) {
        other.temporary_ = false;
    }
    return replaced;
}

}  // namespace Shared::FileZip
