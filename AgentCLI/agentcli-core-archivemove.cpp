#include "agentcli-core-archivemove.h"

#include <windows.h>

#include <fmt/format.h>

#include <expected>
#include <string>

#include "shared.concurrency-interrupt.h"
#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace AgentCLI::Core::Commands::Agent {

namespace fs = std::filesystem;
using namespace Shared::FileSystem;
using Shared::Exception::Win32Exception;
using Shared::FileZip::ZipArchiveWrapper;
using Shared::Util::ToUtf8Lossy;
using Shared::Util::Win32Result;

namespace {

/// Removes a file or a link to a file: the archive is never written through a link. A folder stays, linked or not; the
/// copy then fails.
Win32Result<void> RemoveFile(const fs::path& path) {
    const DWORD attributes = GetFileAttributesW(LongForm(path).c_str());
    const bool isFolder = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return isFolder ? Win32Result<void>() : RemoveName(path);
}

/// Cancels the copy when the console is being closed, which leaves no time for it. The system then removes the partial
/// file.
DWORD CALLBACK CancelOnClosing(LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, DWORD, DWORD, HANDLE, HANDLE,
                               LPVOID) {
    return Shared::Concurrency::IsConsoleClosing() ? PROGRESS_CANCEL : PROGRESS_CONTINUE;
}

/// Other processes can only read the archive meanwhile.
Win32Result<void> Copy(const ZipArchiveWrapper& zip, const fs::path& destination) {
    try {
        const Shared::Util::FileHandle held = zip.ReopenToCopy();
        if (auto removed = RemoveFile(destination); !removed) {
            return removed;
        }
        return RetryWhileHeld([from = LongForm(zip.Path()), to = LongForm(destination)] {
            return Shared::Util::ResultOf(
                CopyFileExW(from.c_str(), to.c_str(), &CancelOnClosing, nullptr, nullptr,
                            COPY_FILE_FAIL_IF_EXISTS | COPY_FILE_ALLOW_DECRYPTED_DESTINATION));
        });
    } catch (const Win32Exception& error) {
        return std::unexpected<DWORD>(error.Code());
    }
}

[[noreturn]] void ThrowCopyFailure(const fs::path& source, const fs::path& destination, DWORD code) {
    const fs::path folder = destination.parent_path();
    std::string operation = "copy_file";
    if (GetFileAttributesW(LongForm(folder).c_str()) == INVALID_FILE_ATTRIBUTES && IsNotFound(GetLastError())) {
        operation = fmt::format("copy_file (the folder {} does not exist)", ToUtf8Lossy(folder));
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
    const bool isThere = IsSameFile(source, destination);
    zip.Close();
    if (!isThere) {
        const auto copied = Copy(zip, destination);
        if (!copied && copied.error() == ERROR_REQUEST_ABORTED && Shared::Concurrency::IsConsoleClosing()) {
            return;
        }
        if (!copied) {
            ThrowCopyFailure(source, destination, copied.error());
        }
        RemoveOrThrow(source);
    }
    zip.SetPath(destination);
    try {
        zip.Open(ZipArchiveWrapper::Creation::Never);
    } catch (const Win32Exception& error) {
        if (!IsHeld(error.Code(), FileOwner::Program)) {
            throw;
        }
        Shared::Exception::LogWarning("The archive is at {}, where another process holds it.",
                                      ToUtf8Lossy(destination));
    }
}

}  // namespace AgentCLI::Core::Commands::Agent
