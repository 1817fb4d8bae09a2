#include "shared.filesystem-removal.h"

#include <utility>
#include <vector>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-scan.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"

namespace Shared::FileSystem {

namespace {

using Util::Win32Result;

constexpr ACCESS_MASK removalAccess = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

// FileDispositionInfoEx, which not every header has under its name.
constexpr auto dispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

Win32Result<void> Delete(HANDLE handle) {
    // At once, although other processes have the file open, and read-only files as well, without changing the
    // attribute, which all hard links share. File systems that do not support this support the plain form.
    FILE_DISPOSITION_INFO_EX posix{};
    posix.Flags = FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_POSIX_SEMANTICS |
                  FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE;
    if (SetFileInformationByHandle(handle, dispositionInfoEx, &posix, sizeof posix) != FALSE) {
        return {};
    }
    FILE_DISPOSITION_INFO plain{};
    plain.DeleteFile = TRUE;
    return Util::ResultOf(SetFileInformationByHandle(handle, FileDispositionInfo, &plain, sizeof plain));
}

Win32Result<void> SucceedIfMissing(Win32Result<void> result) {
    const bool missing = !result && (result.error() == ERROR_FILE_NOT_FOUND || result.error() == ERROR_PATH_NOT_FOUND);
    return missing ? Win32Result<void>() : result;
}

Win32Result<void> RemoveNative(const std::wstring& name) noexcept {
    return SucceedIfMissing(RetryWhileHeld([&name]() -> Win32Result<void> {
        const auto entry = OpenUntrusted(name, removalAccess, shareAll);
        return entry ? Delete(entry->Get()) : std::unexpected(entry.error());
    }));
}

// Removes a folder tree through handles, without following a path twice: another process cannot redirect the removal by
// replacing a folder with a link. Depth first with a stack of its own, since the depth of the tree is unbounded. Each
// folder is listed once, so that files which are added meanwhile cannot keep the removal busy.
class TreeRemoval {
public:
    Win32Result<void> Run(const std::wstring& root) {
        Win32Result<void> result = Remove(root, nullptr);
        while (result && !levels_.empty()) {
            Level& level = levels_.back();
            if (level.names.empty()) {
                result = Delete(level.folder.Handle());
                levels_.pop_back();
                continue;
            }
            const std::wstring name = std::move(level.names.back());
            level.names.pop_back();
            result = SucceedIfMissing(Remove(name, level.folder.Handle()));
        }
        return result;
    }

private:
    // An open folder on the way down, and what is still to be removed from it.
    struct Level {
        DirectoryListing folder;
        std::vector<std::wstring> names;
    };

    // Removes a file or link, and begins with the contents of a folder.
    Win32Result<void> Remove(const std::wstring& name, HANDLE folder) {
        auto entry = OpenUntrusted(name, removalAccess | FILE_LIST_DIRECTORY, shareAll, folder);
        if (!entry) {
            return std::unexpected(entry.error());
        }
        const auto facts = FactsOf(entry->Get());
        if (!facts || facts->kind != FileKind::Directory || facts->isLink) {
            return Delete(entry->Get());
        }
        Level level{.folder = {{}, *std::move(entry)}, .names = {}};
        Win32Result<const DirectoryEntry*> found;
        while ((found = level.folder.Next()) && *found != nullptr) {
            level.names.emplace_back((*found)->Name());
        }
        if (!found) {
            return std::unexpected(found.error());
        }
        levels_.push_back(std::move(level));
        return {};
    }

    std::vector<Level> levels_;
};

}  // namespace

Util::Win32Result<void> RemoveName(const std::filesystem::path& path) {
    return RemoveNative(NativeForm(path));
}

void RemoveOrThrow(const std::filesystem::path& path) {
    if (const auto removed = RemoveName(path); !removed) {
        ThrowFileSystemError("remove", path, removed.error());
    }
}

FileObjectRemover::FileObjectRemover(std::filesystem::path path) {
    if (!path.empty()) {
        std::wstring name = NativeForm(path);
        target_ = std::make_unique<Target>(Target{.path = std::move(path), .name = std::move(name)});
    }
}

FileObjectRemover& FileObjectRemover::operator=(FileObjectRemover&& other) noexcept {
    Clear();
    target_ = std::move(other.target_);
    return *this;
}

FileObjectRemover::~FileObjectRemover() {
    Clear();
}

void FileObjectRemover::Clear() noexcept {
    const auto target = std::move(target_);
    if (!target) {
        return;
    }
    try {
        Win32Result<void> removed = RemoveNative(target->name);
        if (!removed && removed.error() == ERROR_DIR_NOT_EMPTY) {
            removed = TreeRemoval().Run(target->name);
        }
        if (!removed) {
            Exception::LogWarning("Failed removing file {}: {}", Util::ToUtf8Lossy(target->path),
                                  Exception::Win32Message(removed.error()));
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): without memory there is no message either
    }
}

}  // namespace Shared::FileSystem
