#include "agentcli-core-archivemove.h"

#include <windows.h>

#include <fmt/format.h>

#include <string>

#include "shared.concurrency-interrupt.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"
#include "shared.util-win32result.h"

namespace AgentCLI::Core::Commands::Agent {

namespace fs = std::filesystem;
using namespace Shared::FileSystem;
using Shared::FileZip::ZipArchiveWrapper;
using Shared::Util::ToUtf8Lossy;
using Shared::Util::Win32Result;

namespace {

bool IsFolder(const fs::path& path) {
    const DWORD attributes = GetFileAttributesW(LongForm(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsMissing(const fs::path& path) {
    return GetFileAttributesW(LongForm(path).c_str()) == INVALID_FILE_ATTRIBUTES && IsNotFound(GetLastError());
}

// Removes what exists at the destination, since the archive is never written through a link. A folder, or a link to
// one, stays, and the copy fails. A console that is being closed leaves no time for the copy, which is given up.
Win32Result<void> Copy(ZipArchiveWrapper& zip, const fs::path& destination) {
    const auto removed = IsFolder(destination) ? Win32Result<void>() : RemoveName(destination);
    return removed ? zip.CopyTo(destination, &Shared::Concurrency::IsConsoleClosing) : removed;
}

[[noreturn]] void ThrowCopyFailure(const fs::path& source, const fs::path& destination, DWORD code) {
    std::string operation = "copy_file";
    if (IsFolder(destination)) {
        operation += " (it is a folder)";
    } else if (const fs::path folder = destination.parent_path(); IsMissing(folder)) {
        operation += fmt::format(" (the folder {} does not exist)", ToUtf8Lossy(folder));
    }
    ThrowFileSystemError(operation, FullPath(source), destination, code);
}

}  // namespace

fs::path DestinationPath(std::string_view given) {
    fs::path path = FullPath(Shared::Util::PathFromUtf8(given));
    const std::wstring& text = path.native();
    // "\\.\NUL" and "\\?\NUL"; a file has a drive or a share first.
    if (text.starts_with(LR"(\\.\)") || (text.starts_with(LR"(\\?\)") && text.find(L'\\', 4) == std::wstring::npos)) {
        throw Shared::Exception::RuntimeException(
            fmt::format("The path '{}' is that of a device, not of a file.", given));
    }
    return path;
}

void MoveArchive(ZipArchiveWrapper& zip, const fs::path& destination) {
    const fs::path source = zip.Path();
    // Copying a file onto itself would empty it, and removing the source would lose it.
    if (IsSameFile(source, destination)) {
        zip.SetPath(destination);
        return;
    }
    const auto copied = Copy(zip, destination);
    if (copied) {
        RemoveOrThrow(source);
    } else if (copied.error() != ERROR_REQUEST_ABORTED || !Shared::Concurrency::IsConsoleClosing()) {
        ThrowCopyFailure(source, destination, copied.error());
    }
}

}  // namespace AgentCLI::Core::Commands::Agent
