#include "shared.filesystem-sourcefolder.h"

#include <string_view>
#include <utility>

#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"

namespace Shared::FileSystem {

namespace {

using Util::FileHandle;
using Util::Win32Result;

// Messages show paths without the long-path prefix of a drive's path.
std::filesystem::path Readable(const std::filesystem::path& path) {
    constexpr std::size_t prefixLength = 4;
    const std::wstring& text = path.native();
    const bool isLongDrivePath = text.starts_with(LR"(\\?\)") && text.substr(prefixLength + 1).starts_with(L':');
    return isLongDrivePath ? text.substr(prefixLength) : text;
}

// The facts of what an unprivileged user may have made. Refuses links and content that would be fetched from elsewhere.
Win32Result<FileFacts> UntrustedFacts(HANDLE file) {
    auto facts = FactsOfOnlyName(file);
    if (facts && facts->isStoredElsewhere) {
        return std::unexpected<DWORD>(ERROR_FILE_OFFLINE);
    }
    return facts;
}

}  // namespace

SourceFolder::SourceFolder(std::filesystem::path folder, std::optional<Root> root)
    : folder_(std::move(folder)), root_(std::move(root)) {}

SourceFolder SourceFolder::Trusted(std::filesystem::path folder) {
    return SourceFolder(std::move(folder));
}

SourceFolder SourceFolder::Confined(std::filesystem::path root, std::filesystem::path folder) {
    const auto handle = OpenTrusted(root, queryAccess);
    auto path = handle ? FinalPath(handle->Get()) : std::unexpected(handle.error());
    // The path of a volume without a drive letter is "not found", although the folder is there.
    if (!path && (handle || !IsNotFound(path.error()))) {
        ThrowFileSystemError("exists", root, path.error());
    }
    return SourceFolder(std::move(folder), Root{.given = std::move(root), .path = std::move(path).value_or(L"")});
}

// Checks each folder above the last name by itself: even to open the target of a link can have effects.
Win32Result<std::filesystem::path> SourceFolder::Resolve(const std::filesystem::path& path) const {
    if (!root_) {
        return path;
    }
    if (root_->path.empty()) {
        return std::unexpected<DWORD>(ERROR_PATH_NOT_FOUND);
    }
    const std::wstring name = path.lexically_relative(root_->given).native();
    for (auto end = name.find(L'\\'); end != std::wstring::npos; end = name.find(L'\\', end + 1)) {
        const auto level = OpenUntrusted(NativeForm(NameBelow(root_->path, std::wstring_view(name).substr(0, end))),
                                         queryAccess, shareContent);
        const auto facts = level ? UntrustedFacts(level->Get()) : std::unexpected(level.error());
        if (!facts) {
            return std::unexpected(facts.error());
        }
    }
    return NameBelow(root_->path, name);
}

Win32Result<SourceFile> SourceFolder::Open(const std::filesystem::path& path) const {
    auto resolved = Resolve(path);
    if (!resolved) {
        return std::unexpected(resolved.error());
    }
    const auto open = [&](DWORD access) {
        return root_ ? OpenUntrusted(NativeForm(*resolved), access, shareContent) : OpenTrusted(*resolved, access);
    };
    auto handle = SharedWait().Retry([&] { return open(FILE_GENERIC_READ); });
    const DWORD error = handle ? ERROR_SUCCESS : handle.error();
    if (!handle && !IsNotFound(error)) {
        handle = open(queryAccess);
    }
    const auto facts = handle ? Judge(handle->Get(), *resolved) : std::unexpected(handle.error());
    if (!facts) {
        return std::unexpected(facts.error());
    }
    return SourceFile{.opened = {.path = Readable(*resolved), .handle = *std::move(handle), .facts = *facts},
                      .error = error};
}

// The levels may have changed since they were checked. What was opened is fixed now, and its final path decides.
Win32Result<FileFacts> SourceFolder::Judge(HANDLE file, const std::filesystem::path& resolved) const {
    if (!IsConfined()) {
        return FactsOf(file);
    }
    const auto finalPath = FinalPath(file);
    if (!finalPath || !IsSameName(*finalPath, resolved.native())) {
        return std::unexpected<DWORD>(ERROR_CANT_RESOLVE_FILENAME);
    }
    return UntrustedFacts(file);
}

Win32Result<DirectoryListing> ListingOf(const std::filesystem::path& path, Win32Result<SourceFile> found) {
    if (!found) {
        return std::unexpected(found.error());
    }
    if (found->opened.facts.kind != FileKind::Directory) {
        return std::unexpected<DWORD>(ERROR_DIRECTORY);
    }
    if (found->error != ERROR_SUCCESS) {
        return std::unexpected(found->error);
    }
    return DirectoryListing(path, std::move(found->opened.handle));
}

DirectoryListing ListOrThrow(const std::filesystem::path& path, Win32Result<SourceFile> found) {
    auto listing = ListingOf(path, std::move(found));
    if (!listing) {
        ThrowFileSystemError("directory_iterator::directory_iterator", path, listing.error());
    }
    return *std::move(listing);
}

}  // namespace Shared::FileSystem
