#include "agentcore.diagnostics-collectors-lacli.h"

#include <windows.h>

#include <fmt/format.h>
#include <fmt/xchar.h>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "shared.concurrency-childfolder.h"
#include "shared.concurrency-cmdrunner.h"
#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-status.h"
#include "shared.system-installpaths.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Cmd {

namespace {

// Adds the export while it is held open, so that no process can put another file in its place.
CollectorStatus AddExport(const std::filesystem::path& path, const Destination& destination) {
    using namespace Shared::FileSystem;
    const auto file =
        RetryWhileHeld([name = NativeForm(path)] { return OpenUntrusted(name, FILE_GENERIC_READ, shareContent); });
    if (!file && IsNotFound(file.error())) {
        return Unsuccessful();
    }
    if (!file) {
        ThrowFileSystemError("exists", path, file.error());
    }
    if (!CheckPlainFile(file->Get())) {
        throw Shared::Exception::RuntimeException(
            fmt::format("The file '{}' is not a regular file.", Shared::Util::ToUtf8Lossy(rdnsFileName)));
    }
    return destination.Add(path);
}

CollectorStatus ExportAndAdd(const Destination& destination) {
    using namespace Shared::FileSystem;
    if (QueryStatus(Shared::PV::GetLacliPath(), "exists").kind == FileKind::NotFound) {
        return Unsuccessful();
    }
    const Shared::Concurrency::ChildFolder folder;
    static_cast<void>(Shared::Concurrency::Execute<Shared::Concurrency::EmptyParser>(RdnsCommandLine(), commandTimeout,
                                                                                     folder.Path()));
    return AddExport(folder.Path() / rdnsFileName, destination);
}

}  // namespace

std::wstring ToolCommandLine(std::wstring_view arguments) {
    return fmt::format(L"\"{}\" {}", Shared::PV::GetLacliPath().native(), arguments);
}

std::wstring RdnsCommandLine() {
    return ToolCommandLine(fmt::format(L"{} {}", rdnsArguments, rdnsFileName));
}

CollectorStatus CollectRdnsExport(const Destination& destination) noexcept {
    return WithinBoundary([&] { return ExportAndAdd(destination); },
                          [](std::string_view reason) {
                              return LogErrorAndReturn(fmt::format("Collector{} failed: {}",
                                                                   Shared::Util::ToUtf8Lossy(rdnsFileName), reason));
                          });
}

}  // namespace AgentCore::Diagnostics::Collectors::Cmd
