#include "agentcore.diagnostics-collectors-filecopier.h"

#include <fmt/format.h>

#include <utility>

namespace AgentCore::Diagnostics::Collectors::FileSystem {

CollectorStatus CopyNamedFile(SourceProvider provider, std::string_view name, std::uint64_t maxSize,
                              const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            const auto source = provider();
            const auto file = source.Path() / Shared::Util::PathFromUtf8(name);
            const auto found = source.Open(file);
            if (!found && Shared::FileSystem::IsNotFound(found.error())) {
                return Unsuccessful();
            }
            CopyJob job(source, maxSize, destination);
            job.Copy(file, found, "exists");
            return std::move(job).Status();
        },
        [&](std::string_view reason) {
            return LogErrorAndReturn(fmt::format("FileCopier failed copying file {}: {}", name, reason));
        });
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
