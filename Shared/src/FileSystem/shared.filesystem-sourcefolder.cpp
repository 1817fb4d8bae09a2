#include "shared.filesystem-confinedfolder.h"

#include <winternl.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"

#ifdef _MSC_VER
// The Windows SDK declares it in a header for drivers only.
extern "C" NTSTATUS NTAPI NtQueryInformationFile(HANDLE file, PIO_STATUS_BLOCK status, PVOID buffer, ULONG size,
                                                 FILE_INFORMATION_CLASS informationClass);
#endif

namespace Shared::FileSystem {

namespace {

// FileHardLinkInformation of the documented file information classes; the user-mode header has only the first few.
constexpr auto hardLinkInformation = static_cast<FILE_INFORMATION_CLASS>(46);
constexpr NTSTATUS bufferOverflow = static_cast<NTSTATUS>(0x80000005);
struct LinkEntry {
    ULONG nextEntryOffset;
    LONGLONG parentFileId;
    ULONG nameLength;
};
struct LinksHeader {
    ULONG bytesNeeded;
    ULONG entriesReturned;
};

bool IsAtOrBelow(std::wstring_view path, std::wstring_view folder) {
    return path.size() >= folder.size() && IsSameName(path.substr(0, folder.size()), folder) &&
           (path.size() == folder.size() || folder.ends_with(L'\\') || path[folder.size()] == L'\\');
}

// Messages show paths without the long-path prefix of a drive's path.
std::wstring Readable(const std::wstring& path) {
    constexpr std::size_t prefixLength = 4;
    return path.size() > prefixLength + 1 && path[prefixLength + 1] == L':' ? path.substr(prefixLength) : path;
}

// The ids of the folders that hold the file's hard links; nothing when the file system does not support the query.
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

ConfinedFolder::ConfinedFolder(const std::filesystem::path& folder) : given_(folder) {
    const auto handle = OpenToQuery(folder, Links::Follow);
    if (!handle) {
        if (!IsNotFound(handle.error())) {
            ThrowFileSystemError("exists", folder, handle.error());
        }
        return;
    }
    auto path = FinalPath(handle->Get(), volumeNameForm_);
    if (!path && path.error() == ERROR_PATH_NOT_FOUND) {
        // A volume without a drive letter or mount point has no DOS name.
        volumeNameForm_ = VOLUME_NAME_GUID;
        path = FinalPath(handle->Get(), volumeNameForm_);
    }
    if (!path) {
        ThrowFileSystemError("exists", folder, path.error());
    }
    root_ = *std::move(path);
}

// Level by level, so that no link is followed: even to open the target of a link can have effects.
FileKind ConfinedFolder::KindOf(std::wstring_view name) const {
    if (root_.empty()) {
        return FileKind::NotFound;
    }
    for (std::size_t end = 0; end != std::wstring_view::npos;) {
        end = name.find(L'\\', end + 1);
        const std::wstring path = NameBelow(root_, name.substr(0, end));
        const auto level = OpenToQuery(path, Links::Open);
        if (!level) {
            if (!IsNotFound(level.error())) {
                ThrowFileSystemError("exists", path, level.error());
            }
            return FileKind::NotFound;
        }
        const auto facts = FactsOf(level->Get());
        if (!facts) {
            ThrowFileSystemError("exists", path, facts.error());
        }
        if (facts->isLink) {
            return FileKind::OutsideFolder;
        }
        if (end == std::wstring_view::npos || facts->kind == FileKind::Other) {
            return facts->kind;
        }
    }
    return FileKind::Regular;
}

std::expected<ConfinedFile, RefusedOpen> ConfinedFolder::Open(std::wstring_view name) const {
    ConfinedFile file;
    file.status.kind = KindOf(name);
    if (file.status.kind != FileKind::Regular && file.status.kind != FileKind::Directory) {
        return file;
    }
    const std::wstring expected = NameBelow(root_, name);
    const std::wstring native = NativeForm(expected);
    auto opened = SharedWait().Retry([&native] { return OpenUntrusted(native, FILE_GENERIC_READ, shareContent); });
    if (!opened) {
        if (!IsNotFound(opened.error())) {
            return std::unexpected(RefusedOpen{.kind = file.status.kind, .code = opened.error()});
        }
        file.status.kind = FileKind::NotFound;
        return file;
    }
    file.handle = *std::move(opened);
    file.status = Judge(file.handle.Get(), expected);
    file.path = Readable(expected);
    return file;
}

// The levels may have changed since they were checked. What was opened is fixed now, and its final path decides.
FileStatus ConfinedFolder::Judge(HANDLE file, std::wstring_view expectedPath) const {
    const auto finalPath = FinalPath(file, volumeNameForm_);
    const auto facts = FactsOf(file);
    if (!finalPath || !IsSameName(*finalPath, expectedPath) || !facts || facts->isLink) {
        return {.kind = FileKind::OutsideFolder};
    }
    if (facts->kind != FileKind::Regular) {
        return {.kind = facts->kind};
    }
    if (facts->links > 1 && !HasAllLinksBelow(file)) {
        return {.kind = FileKind::OutsideFolder};
    }
    if (facts->isStoredElsewhere) {
        return {.kind = FileKind::NotStoredHere};
    }
    return {.kind = FileKind::Regular, .size = facts->size};
}

bool ConfinedFolder::HasAllLinksBelow(HANDLE file) const {
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
        const auto path = parent ? FinalPath(parent.Get(), volumeNameForm_) : Util::LastError();
        if (!path || !IsAtOrBelow(*path, root_)) {
            return false;
        }
    }
    return !parents->empty();
}

std::wstring ConfinedFolder::NameOf(const std::filesystem::path& path) const {
    return path.lexically_relative(given_).native();
}

DirectoryListing ConfinedFolder::List(const std::filesystem::path& path) const {
    auto opened = Open(NameOf(path));
    DWORD error = ERROR_SUCCESS;
    if (!opened) {
        error = opened.error().code;
    } else if (opened->status.kind == FileKind::OutsideFolder) {
        error = ERROR_CANT_RESOLVE_FILENAME;
    } else if (opened->status.kind != FileKind::Directory) {
        error = opened->status.kind == FileKind::NotFound ? ERROR_PATH_NOT_FOUND : ERROR_DIRECTORY;
    }
    if (error != ERROR_SUCCESS) {
        ThrowFileSystemError("directory_iterator::directory_iterator", path, error);
    }
    return {path, std::move(opened->handle)};
}

}  // namespace Shared::FileSystem
