#include "agentcore.diagnostics-collectors-filecopier.h"

#include <fmt/format.h>

#include <utility>

namespace AgentCore::Diagnostics::Collectors::FileSystem {

CollectorStatus CopyNamedFile(SourceProvider provider, std::string_view name, std::uint64_t maxSize,
                              const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            const auto source = provider();
            CopyJob job(source, maxSize, destination);
            job.Copy(source.Path() / Shared::Util::PathFromUtf8(name), IfMissing::Ignore, "exists");
            return std::move(job).Status();
        },
        [&](std::string_view reason) {
            return LogErrorAndReturn(fmt::format("FileCopier failed copying file {}: {}", name, reason));
        });
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
