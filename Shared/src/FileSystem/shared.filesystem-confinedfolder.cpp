#include "shared.filesystem-confinedfolder.h"

#include <winternl.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <optional>
#include <vector>

#include "shared.filesystem-longpath.h"

namespace Shared::FileSystem {

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// Of a verbatim path; the system's own form of it begins with another one of that length.
constexpr std::size_t prefixLength = 4;
constexpr DWORD notThroughLink = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;

// FileHardLinkInformation of the documented file information classes; the user-mode header has only the first few.
constexpr auto hardLinkInformation = static_cast<FILE_INFORMATION_CLASS>(46);
constexpr NTSTATUS bufferOverflow = static_cast<NTSTATUS>(0x80000005);
// The file was opened, but whoever holds an oplock on it has yet to give way: reading would wait for that.
constexpr auto oplockBreakInProgress = static_cast<NTSTATUS>(0x108);
struct LinkEntry {
    ULONG nextEntryOffset;
    LONGLONG parentFileId;
    ULONG nameLength;
};
struct LinksHeader {
    ULONG bytesNeeded;
    ULONG entriesReturned;
};

std::optional<std::wstring> FinalPath(HANDLE handle, DWORD volumeNameForm) {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetFinalPathNameByHandleW(handle, path.data(), static_cast<DWORD>(path.size()),
                                                       FILE_NAME_NORMALIZED | volumeNameForm);
        if (length == 0) {
            return std::nullopt;
        }
        const bool fits = length < path.size();
        path.resize(length);
        if (fits) {
            return path;
        }
    }
}

bool SameName(std::wstring_view left, std::wstring_view right) {
    return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

bool IsAtOrBelow(std::wstring_view path, std::wstring_view folder) {
    return path.size() >= folder.size() && SameName(path.substr(0, folder.size()), folder) &&
           (path.size() == folder.size() || folder.ends_with(L'\\') || path[folder.size()] == L'\\');
}

// Messages show paths; the prefix of a drive's path is not for readers.
std::wstring Readable(const std::wstring& path) {
    return path.size() > prefixLength + 1 && path[prefixLength + 1] == L':' ? path.substr(prefixLength) : path;
}

bool IsLinkHandle(HANDLE handle) {
    FILE_ATTRIBUTE_TAG_INFO tag{};
    return GetFileInformationByHandleEx(handle, FileAttributeTagInfo, &tag, sizeof tag) == FALSE ||
           IsLink(tag.FileAttributes, tag.ReparseTag);
}

// Opens a verbatim path for reading. Without delete sharing: that is what fastens the name to the file. A user who
// never gives up an oplock on his file must not keep the program waiting: he counts as one who has locked it. Scanners
// give theirs up within moments.
DWORD OpenForReading(const std::wstring& verbatim, Util::FileHandle& file) {
    std::wstring path = LR"(\??\)" + verbatim.substr(prefixLength);
    if (path.size() * sizeof(wchar_t) > std::numeric_limits<USHORT>::max()) {
        return ERROR_FILENAME_EXCED_RANGE;
    }
    const auto length = static_cast<USHORT>(path.size() * sizeof(wchar_t));
    UNICODE_STRING text{.Length = length, .MaximumLength = length, .Buffer = path.data()};
    OBJECT_ATTRIBUTES attributes{};
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    constexpr int attempts = 20;
    constexpr DWORD pause = 50;
    for (int attempt = 1;; ++attempt) {
        IO_STATUS_BLOCK status{};
        HANDLE handle = INVALID_HANDLE_VALUE;
        const NTSTATUS result =
            NtOpenFile(&handle, FILE_GENERIC_READ, &attributes, &status, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       FILE_OPEN_REPARSE_POINT | FILE_OPEN_FOR_BACKUP_INTENT | FILE_SYNCHRONOUS_IO_NONALERT |
                           FILE_COMPLETE_IF_OPLOCKED);
        if (result < 0) {
            return RtlNtStatusToDosError(result);
        }
        file.Reset(handle);
        if (result != oplockBreakInProgress) {
            return ERROR_SUCCESS;
        }
        file.Reset();
        if (attempt == attempts) {
            return ERROR_SHARING_VIOLATION;
        }
        Sleep(pause);
    }
}

// The folders that hold the file's names, by their ids; nothing when the file system does not tell.
std::optional<std::vector<LONGLONG>> ParentIds(HANDLE file) {
    std::vector<std::byte> buffer(4096);
    IO_STATUS_BLOCK status{};
    NTSTATUS result = bufferOverflow;
    while ((result = NtQueryInformationFile(file, &status, buffer.data(), static_cast<ULONG>(buffer.size()),
                                            hardLinkInformation)) == bufferOverflow &&
           buffer.size() < (1U << 22U)) {
        buffer.resize(buffer.size() * 4);
    }
    if (result != 0) {
        return std::nullopt;
    }
    LinksHeader header{};
    std::memcpy(&header, buffer.data(), sizeof header);
    std::vector<LONGLONG> ids;
    std::size_t offset = sizeof header;
    for (ULONG index = 0; index < header.entriesReturned; ++index) {
        LinkEntry entry{};
        if (offset + sizeof entry > buffer.size()) {
            return std::nullopt;
        }
        std::memcpy(&entry, buffer.data() + offset, sizeof entry);
        ids.push_back(entry.parentFileId);
        offset += entry.nextEntryOffset;
    }
    return ids;
}

}  // namespace

ConfinedFolder::ConfinedFolder(const std::filesystem::path& folder) {
    const Util::FileHandle handle(CreateFileW(LongForm(folder).c_str(), FILE_READ_ATTRIBUTES, shareAll, nullptr,
                                              OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle) {
        if (const DWORD error = GetLastError(); !IsNotFound(error)) {
            ThrowFileSystemError("exists", folder, error);
        }
        return;
    }
    volumeNameForm_ = VOLUME_NAME_DOS;
    auto path = FinalPath(handle.Get(), volumeNameForm_);
    if (!path && GetLastError() == ERROR_PATH_NOT_FOUND) {
        // A volume that is mounted nowhere has no DOS name.
        volumeNameForm_ = VOLUME_NAME_GUID;
        path = FinalPath(handle.Get(), volumeNameForm_);
    }
    if (!path) {
        ThrowFileSystemError("exists", folder, GetLastError());
    }
    root_ = *std::move(path);
}

// Level by level, so that no link is followed at all: even to open what a user points at can have effects.
FileKind ConfinedFolder::LookAlong(std::wstring_view name) const {
    for (std::size_t end = 0; end != std::wstring_view::npos;) {
        end = name.find(L'\\', end + 1);
        const std::wstring path = NameBelow(root_, name.substr(0, end));
        const Util::FileHandle level(
            CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, shareAll, nullptr, OPEN_EXISTING, notThroughLink, nullptr));
        if (!level) {
            if (const DWORD error = GetLastError(); !IsNotFound(error)) {
                ThrowFileSystemError("exists", path, error);
            }
            return FileKind::NotFound;
        }
        if (IsLinkHandle(level.Get())) {
            return FileKind::Foreign;
        }
        if (GetFileType(level.Get()) != FILE_TYPE_DISK) {
            return FileKind::Other;
        }
    }
    return FileKind::Regular;
}

std::expected<ConfinedFile, DWORD> ConfinedFolder::Open(std::wstring_view name) const {
    ConfinedFile file;
    file.status.kind = root_.empty() ? FileKind::NotFound : LookAlong(name);
    if (file.status.kind != FileKind::Regular) {
        return file;
    }

    const std::wstring expected = NameBelow(root_, name);
    if (const DWORD error = OpenForReading(expected, file.handle); error != ERROR_SUCCESS) {
        if (!IsNotFound(error)) {
            return std::unexpected(error);
        }
        file.status.kind = FileKind::NotFound;
        return file;
    }
    // The levels may have changed since they were looked at. What was opened is fixed now, and where it really lies
    // decides.
    const auto finalPath = FinalPath(file.handle.Get(), volumeNameForm_);
    BY_HANDLE_FILE_INFORMATION information{};
    if (!finalPath || !SameName(*finalPath, expected) || IsLinkHandle(file.handle.Get()) ||
        GetFileInformationByHandle(file.handle.Get(), &information) == FALSE) {
        file.status.kind = FileKind::Foreign;
        return file;
    }
    if ((information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        file.status.kind = FileKind::Directory;
    } else if (information.nNumberOfLinks > 1 && !HasAllNamesBelow(file.handle.Get())) {
        file.status.kind = FileKind::Foreign;
        return file;
    } else {
        file.status.size = (std::uint64_t{information.nFileSizeHigh} << 32U) | information.nFileSizeLow;
    }
    file.path = Readable(expected);
    return file;
}

bool ConfinedFolder::HasAllNamesBelow(HANDLE file) const {
    const auto parents = ParentIds(file);
    if (!parents) {
        return false;
    }
    for (const LONGLONG id : *parents) {
        FILE_ID_DESCRIPTOR descriptor{};
        descriptor.dwSize = sizeof descriptor;
        descriptor.Type = FileIdType;
        descriptor.FileId.QuadPart = id;
        const Util::FileHandle parent(
            OpenFileById(file, &descriptor, FILE_READ_ATTRIBUTES, shareAll, nullptr, FILE_FLAG_BACKUP_SEMANTICS));
        const auto path = parent ? FinalPath(parent.Get(), volumeNameForm_) : std::nullopt;
        if (!path || !IsAtOrBelow(*path, root_)) {
            return false;
        }
    }
    return !parents->empty();
}

}  // namespace Shared::FileSystem
