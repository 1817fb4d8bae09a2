#include "agentcore.diagnostics-collectors-commandtofile.h"

#include <fmt/format.h>

#include <cstdint>
#include <optional>

#include "shared.concurrency-cmdrunner.h"
#include "shared.exception.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Cmd {

namespace {

using Shared::Concurrency::CmdRunStatus;
using Shared::FileSystem::GeneratedFile;

std::string Failure(std::string_view fileName, std::string_view reason) {
    return Logged(fmt::format("Collector {} failed: {}", fileName, reason));
}

// The output goes to the file without a copy: it can be huge.
void Write(GeneratedFile& file, const CmdRunStatus& run) {
    file.WriteText(
        fmt::format("Command: {}\nExit code: {}\nOutput:\n", Shared::Util::ToUtf8(run.command), run.exitCode));
    file.WriteBytes(run.output);
    file.WriteText("\n");
}

}  // namespace

CollectorStatus CollectCommand(std::wstring (*source)(), std::string_view fileName,
                               const std::filesystem::path& entryDir,
                               Shared::FileZip::ZipArchiveWrapper& zip) noexcept {
    std::optional<std::uint32_t> exitCode;
    CollectorStatus status = WithinBoundary(
        [&] {
            GeneratedFile file(Shared::Util::PathFromUtf8(fileName));
            std::optional<std::string> writeFailure;
            {
                const CmdRunStatus run =
                    Shared::Concurrency::Execute<Shared::Concurrency::EmptyParser>(source(), commandTimeout);
                exitCode = run.exitCode;
                try {
                    Write(file, run);
                } catch (const Shared::Exception::Win32Exception& error) {
                    writeFailure = Failure(fileName, error.what());
                }
            }
            CollectorStatus added = FromAdd(zip.AddFileToFolder(entryDir, file.Path()));
            if (writeFailure) {
                added.errors.insert(added.errors.begin(), *std::move(writeFailure));
            }
            return added;
        },
        [fileName](std::string_view reason) { return Failure(fileName, reason); });
    if (exitCode) {
        status.diagnostic.set_raw_process_exit_code(*exitCode);
    }
    return status;
}

}  // namespace AgentCore::Diagnostics::Collectors::Cmd
