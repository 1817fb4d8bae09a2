#include "agentcore.diagnostics-collectors-filecopier.h"

#include <fmt/format.h>

#include <utility>

#include "shared.filesystem-status.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

CollectorStatus CopyNamedFile(FolderProvider provider, std::string_view name, std::uint64_t maxSize,
                              const std::filesystem::path& archiveFolder,
                              Shared::FileZip::ZipArchiveWrapper& zip) noexcept {
    using Shared::FileSystem::FileKind;
    return WithinBoundary(
        [&] {
            const std::filesystem::path source = provider() / Shared::Util::PathFromUtf8(name);
            if (Shared::FileSystem::QueryStatus(source, "exists").kind == FileKind::NotFound) {
                return Unsuccessful();
            }
            if (CheckResult check = FileChecksPass(source, maxSize); !check) {
                return Unsuccessful(std::move(check.error().message));
            }
            return FromAdd(zip.AddFileToFolder(archiveFolder, source));
        },
        [&](std::string_view reason) {
            return Logged(fmt::format("FileCopier failed copying file {}: {}", name, reason));
        });
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
