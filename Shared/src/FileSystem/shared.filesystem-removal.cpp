#include "shared.filesystem-removal.h"

#include <winternl.h>

#include <array>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.filesystem-longpath.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace Shared::FileSystem {

namespace {

bool IsMissing(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD linkItself = FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS;

// FileDispositionInfoEx, which not every header has under its name.
constexpr auto dispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

DWORD Delete(HANDLE handle) {
    // Read-only files as well, without changing the attribute, which a file's further names share; and at once, though
    // others have the file open. File systems that do not know this know the plain form.
    FILE_DISPOSITION_INFO_EX thorough{};
    thorough.Flags = FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_POSIX_SEMANTICS |
                     FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE;
    FILE_DISPOSITION_INFO plain{};
    plain.DeleteFile = TRUE;
    return SetFileInformationByHandle(handle, dispositionInfoEx, &thorough, sizeof thorough) != FALSE ||
                   SetFileInformationByHandle(handle, FileDispositionInfo, &plain, sizeof plain) != FALSE
               ? ERROR_SUCCESS
               : GetLastError();
}

DWORD RemoveLongName(const std::wstring& name) {
    const DWORD attributes = GetFileAttributesW(name.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD error = GetLastError();
        return IsMissing(error) ? ERROR_SUCCESS : error;
    }
    const bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if ((folder ? RemoveDirectoryW(name.c_str()) : DeleteFileW(name.c_str())) != FALSE) {
        return ERROR_SUCCESS;
    }
    DWORD error = GetLastError();
    if (error == ERROR_ACCESS_DENIED && (attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        const Util::FileHandle entry(
            CreateFileW(name.c_str(), DELETE, shareAll, nullptr, OPEN_EXISTING, linkItself, nullptr));
        error = entry ? Delete(entry.Get()) : GetLastError();
    }
    return IsMissing(error) ? ERROR_SUCCESS : error;
}

constexpr ACCESS_MASK removalAccess = DELETE | FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

// What bears the name in an open folder, never what a link points to. No path is walked, so that nobody can lead the
// removal elsewhere by turning a folder above into a link.
DWORD OpenChild(HANDLE folder, std::wstring& name, Util::FileHandle& child) {
    const auto length = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    UNICODE_STRING text{.Length = length, .MaximumLength = length, .Buffer = name.data()};
    OBJECT_ATTRIBUTES attributes{};
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, folder, nullptr);
    IO_STATUS_BLOCK status{};
    HANDLE handle = INVALID_HANDLE_VALUE;
    const NTSTATUS result =
        NtOpenFile(&handle, removalAccess, &attributes, &status, shareAll,
                   FILE_OPEN_REPARSE_POINT | FILE_OPEN_FOR_BACKUP_INTENT | FILE_SYNCHRONOUS_IO_NONALERT);
    if (result < 0) {
        return RtlNtStatusToDosError(result);
    }
    child.Reset(handle);
    return ERROR_SUCCESS;
}

bool IsRealFolder(HANDLE handle) {
    BY_HANDLE_FILE_INFORMATION information{};
    return GetFileInformationByHandle(handle, &information) != FALSE &&
           (information.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ==
               FILE_ATTRIBUTE_DIRECTORY;
}

DWORD ListChildren(HANDLE folder, std::vector<std::wstring>& names) {
    alignas(FILE_ID_BOTH_DIR_INFO) std::array<std::byte, std::size_t{16} * 1024> buffer{};
    while (GetFileInformationByHandleEx(folder, FileIdBothDirectoryInfo, buffer.data(),
                                        static_cast<DWORD>(buffer.size())) != FALSE) {
        const std::byte* at = buffer.data();
        for (ULONG step = 0;; at += step) {
            const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(at);
            std::wstring name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
            if (name != L"." && name != L"..") {
                names.push_back(std::move(name));
            }
            step = entry->NextEntryOffset;
            if (step == 0) {
                break;
            }
        }
    }
    const DWORD error = GetLastError();
    return error == ERROR_NO_MORE_FILES ? ERROR_SUCCESS : error;
}

// A folder on the way down, held open, and what is still to be removed from it.
struct Level {
    Util::FileHandle folder;
    std::vector<std::wstring> names;
};

// Depth first with a stack of its own: the depth of a folder tree is not ours to trust. Each folder is listed once, so
// that nobody can keep the walk busy by filling it again.
DWORD RemoveTree(const std::wstring& root) {
    std::vector<Level> levels;
    const auto removeOrDescend = [&levels](Util::FileHandle entry) {
        if (!IsRealFolder(entry.Get())) {
            return Delete(entry.Get());
        }
        levels.push_back({.folder = std::move(entry), .names = {}});
        return ListChildren(levels.back().folder.Get(), levels.back().names);
    };
    Util::FileHandle top(
        CreateFileW(root.c_str(), removalAccess, shareAll, nullptr, OPEN_EXISTING, linkItself, nullptr));
    DWORD error = top ? removeOrDescend(std::move(top)) : GetLastError();
    while (error == ERROR_SUCCESS && !levels.empty()) {
        Level& level = levels.back();
        if (level.names.empty()) {
            error = Delete(level.folder.Get());
            levels.pop_back();
            continue;
        }
        std::wstring name = std::move(level.names.back());
        level.names.pop_back();
        Util::FileHandle child;
        error = OpenChild(level.folder.Get(), name, child);
        if (error == ERROR_SUCCESS) {
            error = removeOrDescend(std::move(child));
        } else if (IsMissing(error)) {
            error = ERROR_SUCCESS;
        }
    }
    return error;
}

}  // namespace

DWORD RemoveName(const std::filesystem::path& path) noexcept {
    try {
        return RemoveLongName(LongForm(path).native());
    } catch (...) {
        return ERROR_BAD_PATHNAME;
    }
}

FileObjectRemover::FileObjectRemover(std::filesystem::path path) noexcept : path_(std::move(path)) {}

FileObjectRemover::FileObjectRemover(FileObjectRemover&& other) noexcept : path_(std::exchange(other.path_, {})) {}

FileObjectRemover& FileObjectRemover::operator=(FileObjectRemover&& other) noexcept {
    if (this != &other) {
        Clear();
        path_ = std::exchange(other.path_, {});
    }
    return *this;
}

FileObjectRemover::~FileObjectRemover() {
    Clear();
}

void FileObjectRemover::Clear() noexcept {
    const std::filesystem::path path = std::exchange(path_, {});
    if (path.empty()) {
        return;
    }
    try {
        const std::wstring name = LongForm(path).native();
        DWORD error = RemoveLongName(name);
        if (error == ERROR_DIR_NOT_EMPTY) {
            error = RemoveTree(name);
        }
        if (error != ERROR_SUCCESS) {
            Exception::LogWarning("Failed removing file {}: {}", Util::ToUtf8(path), Exception::Win32Message(error));
        }
    } catch (const std::exception& error) {
        Exception::LogWarning("Failed removing file {}: {}", Util::ToUtf8(path), error.what());
    }
}

}  // namespace Shared::FileSystem
