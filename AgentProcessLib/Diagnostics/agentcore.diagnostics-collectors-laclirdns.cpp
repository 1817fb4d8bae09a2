#include "agentcore.diagnostics-collectors-laclirdns.h"

#include <windows.h>

#include <fmt/format.h>
#include <fmt/xchar.h>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-lacli.h"
#include "shared.concurrency-cmdrunner.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace AgentCore::Diagnostics::Collectors::Cmd {

namespace {

using Shared::Util::FileHandle;

// Opens what bears the name, never what a link points to; an empty handle when nothing does. While the handle is open
// nobody can put something else under the name.
FileHandle Open(const std::filesystem::path& path) {
    FileHandle file(CreateFileW(Shared::FileSystem::LongForm(path).c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    const DWORD error = GetLastError();
    if (!file && !Shared::FileSystem::IsNotFound(error)) {
        Shared::FileSystem::ThrowFileSystemError("exists", path, error);
    }
    return file;
}

CollectorStatus ExportAndAdd(const std::filesystem::path& entryDir, Shared::FileZip::ZipArchiveWrapper& zip) {
    using Shared::FileSystem::FileKind;
    if (Shared::FileSystem::QueryStatus(Shared::PV::GetLacliPath(), "exists").kind == FileKind::NotFound) {
        return Unsuccessful();
    }
    const std::filesystem::path path(rdnsFileName);
    if (const DWORD error = Shared::FileSystem::RemoveName(path); error != ERROR_SUCCESS) {
        throw Shared::Exception::Win32Exception("Cannot remove the old file " + Shared::Util::ToUtf8(path), error);
    }
    const Shared::FileSystem::FileObjectRemover remover(path);

    const std::wstring command = ToolCommandLine(fmt::format(L"{} {}", rdnsArguments, rdnsFileName));
    static_cast<void>(Shared::Concurrency::Execute<Shared::Concurrency::EmptyParser>(command, commandTimeout));

    const FileHandle file = Open(path);
    if (!file) {
        return Unsuccessful();
    }
    if (Shared::FileSystem::ObjectionTo(file.Get()) != ERROR_SUCCESS) {
        throw Shared::Exception::RuntimeException(
            fmt::format("The file '{}' is not a regular file.", Shared::Util::ToUtf8(path)));
    }
    return FromAdd(zip.AddFileToFolder(entryDir, path));
}

}  // namespace

CollectorStatus CollectRdnsExport(const std::filesystem::path& entryDir,
                                  Shared::FileZip::ZipArchiveWrapper& zip) noexcept {
    return WithinBoundary(
        [&] { return ExportAndAdd(entryDir, zip); },
        [](std::string_view reason) {
            return Logged(fmt::format("Collector{} failed: {}", Shared::Util::ToUtf8(rdnsFileName), reason));
        });
}

}  // namespace AgentCore::Diagnostics::Collectors::Cmd
