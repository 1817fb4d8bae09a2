#include "agentcli-core-archivemove.h"

#include <windows.h>

#include <fmt/format.h>

#include <string>

#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace AgentCLI::Core::Commands::Agent {

namespace fs = std::filesystem;
using namespace Shared::FileSystem;
using Shared::FileZip::ZipArchiveWrapper;
using Shared::Util::FileHandle;
using Shared::Util::ToUtf8Lossy;
using Shared::Util::Win32Result;

namespace {

/// Whether two handles are of one file. File systems without file ids give zeros for both.
bool IsOneFile(const FileHandle& left, const FileHandle& right) {
    BY_HANDLE_FILE_INFORMATION one{};
    BY_HANDLE_FILE_INFORMATION other{};
    return GetFileInformationByHandle(left.Get(), &one) != FALSE &&
           GetFileInformationByHandle(right.Get(), &other) != FALSE &&
           one.dwVolumeSerialNumber == other.dwVolumeSerialNumber && one.nFileIndexHigh == other.nFileIndexHigh &&
           one.nFileIndexLow == other.nFileIndexLow;
}

/// Closes the archive and holds its file: while the handle is open, other processes can only read it.
Win32Result<FileHandle> CloseAndHold(ZipArchiveWrapper& zip) {
    const auto written = OpenToQuery(zip.Path(), Links::Open);
    if (!written) {
        return std::unexpected(written.error());
    }
    zip.Close();
    auto held = RetryWhileHeld(
        [name = NativeForm(zip.Path())] { return OpenUntrusted(name, FILE_GENERIC_READ, FILE_SHARE_READ); });
    if (held && !IsOneFile(*written, *held)) {
        return std::unexpected<DWORD>(ERROR_FILE_INVALID);
    }
    return held;
}

/// Removes a file or a link to a file, which the archive shall not be written through. A folder stays, linked or not:
/// the copy then fails.
Win32Result<void> RemoveFile(const fs::path& path) {
    const DWORD attributes = GetFileAttributesW(LongForm(path).c_str());
    const bool isFolder = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return isFolder ? Win32Result<void>() : RemoveName(path);
}

Win32Result<void> Copy(const fs::path& source, const fs::path& destination) {
    return RetryWhileHeld([from = LongForm(source), to = LongForm(destination)] {
        return Shared::Util::ResultOf(CopyFileExW(from.c_str(), to.c_str(), nullptr, nullptr, nullptr,
                                                  COPY_FILE_FAIL_IF_EXISTS | COPY_FILE_ALLOW_DECRYPTED_DESTINATION));
    });
}

[[noreturn]] void ThrowCopyFailure(const fs::path& source, const fs::path& destination, DWORD code) {
    const fs::path folder = destination.parent_path();
    std::string operation = "copy_file";
    if (GetFileAttributesW(LongForm(folder).c_str()) == INVALID_FILE_ATTRIBUTES && IsNotFound(GetLastError())) {
        operation = fmt::format("copy_file (the folder {} does not exist)", ToUtf8Lossy(folder));
    }
    ThrowFileSystemError(operation, FullPath(source), destination, code);
}

void MoveFileTo(ZipArchiveWrapper& zip, const fs::path& destination) {
    const fs::path source = zip.Path();
    {
        const auto held = CloseAndHold(zip);
        auto moved = held ? RemoveFile(destination) : std::unexpected(held.error());
        moved = moved ? Copy(source, destination) : moved;
        if (!moved) {
            ThrowCopyFailure(source, destination, moved.error());
        }
    }
    FreeName(source);
}

/// Whether another process keeps the file from being opened as an archive is.
bool IsHeldFromArchive(const fs::path& path) {
    const auto opened = RetryWhileHeld(
        [name = NativeForm(path)] { return OpenUntrusted(name, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, 0); });
    return !opened && IsHeld(opened.error(), FileOwner::Program);
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
    // Copying a file onto itself would empty it, and removing the source would lose it.
    if (IsSameFile(zip.Path(), destination)) {
        zip.Close();
    } else {
        MoveFileTo(zip, destination);
    }
    zip.SetPath(destination);
    if (IsHeldFromArchive(destination)) {
        Shared::Exception::LogWarning("The archive is at {}, where another process holds it.",
                                      ToUtf8Lossy(destination));
        return;
    }
    zip.Open();
}

}  // namespace AgentCLI::Core::Commands::Agent
