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
    return LogErrorAndReturn(fmt::format("Collector {} failed: {}", fileName, reason));
}

// Writes the output to the file without a copy, since it can be large. Returns the failure to write as a message.
std::expected<void, std::string> Write(GeneratedFile& file, std::string_view fileName, const CmdRunStatus& run) {
    try {
        file.WriteText(
            fmt::format("Command: {}\nExit code: {}\nOutput:\n", Shared::Util::ToUtf8Lossy(run.command), run.exitCode));
        file.WriteBytes(run.output);
        file.WriteText("\n");
        return {};
    } catch (const Shared::Exception::Win32Exception& error) {
        return std::unexpected(Failure(fileName, error.what()));
    }
}

}  // namespace

CollectorStatus CollectCommand(std::wstring (*source)(), std::string_view fileName,
                               const Destination& destination) noexcept {
    std::optional<std::uint32_t> exitCode;
    CollectorStatus status = WithinBoundary(
        [&] {
            GeneratedFile file(Shared::Util::PathFromUtf8(fileName));
            std::expected<void, std::string> written;
            {
                const CmdRunStatus run =
                    Shared::Concurrency::Execute<Shared::Concurrency::EmptyParser>(source(), commandTimeout);
                exitCode = run.exitCode;
                written = Write(file, fileName, run);
            }
            CollectorStatus added = destination.Add(file);
            if (!written) {
                added.errors.insert(added.errors.begin(), written.error());
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
