#include "agentcore.diagnostics-collectors-filecopier.h"

#include <fmt/format.h>

#include <utility>

#include "shared.filesystem-status.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::FileSystem::FileKind;

std::expected<CollectorStatus, CheckError> CopyTrusted(const std::filesystem::path& source, std::uint64_t maxSize,
                                                       const Destination& destination) {
    if (Shared::FileSystem::QueryStatus(source, "exists").kind == FileKind::NotFound) {
        return Unsuccessful();
    }
    if (CheckResult check = FileChecksPass(source, maxSize); !check) {
        return std::unexpected(std::move(check.error()));
    }
    return AddWithinLimit(source, maxSize, destination);
}

std::expected<CollectorStatus, CheckError> CopyUntrusted(const Shared::FileSystem::ConfinedFolder& folder,
                                                         const std::filesystem::path& source, std::uint64_t maxSize,
                                                         const Destination& destination) {
    if (folder.KindOf(folder.NameOf(source)) == FileKind::NotFound) {
        return Unsuccessful();
    }
    return CopyConfined(folder, source, maxSize, destination);
}

}  // namespace

std::optional<Shared::FileSystem::ConfinedFolder> SourceFolder::ConfinedTo(std::filesystem::path resolved) const {
    if (untrustedLevels == 0) {
        return std::nullopt;
    }
    for (int level = 0; level < untrustedLevels; ++level) {
        resolved = resolved.parent_path();
    }
    return Shared::FileSystem::ConfinedFolder(resolved);
}

CollectorStatus CopyNamedFile(const SourceFolder& folder, std::string_view name, std::uint64_t maxSize,
                              const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            const std::filesystem::path resolved = folder.folder();
            const std::filesystem::path source = resolved / Shared::Util::PathFromUtf8(name);
            const auto confined = folder.ConfinedTo(resolved);
            auto copied = confined ? CopyUntrusted(*confined, source, maxSize, destination)
                                   : CopyTrusted(source, maxSize, destination);
            return copied ? *std::move(copied) : Unsuccessful(std::move(copied.error().message));
        },
        [&](std::string_view reason) {
            return LogErrorAndReturn(fmt::format("FileCopier failed copying file {}: {}", name, reason));
        });
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
