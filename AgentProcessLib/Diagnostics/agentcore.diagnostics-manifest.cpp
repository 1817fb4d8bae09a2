#include "agentcore.diagnostics-manifest.h"

#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.protobuf.util.h"

namespace AgentCore::Diagnostics {

void WriteManifest(std::span<const CollectorStatus> statuses, Shared::FileZip::ZipArchiveWrapper& zip,
                   const ::Diagnostics::Run& run) {
    ::Diagnostics::DiagnosticResponse response;
    for (const CollectorStatus& status : statuses) {
        *response.add_diagnostics() = status.diagnostic;
    }
    *response.mutable_run() = run;
    Shared::FileSystem::RenewSharedWait();
    const std::string json = Shared::Protobuf::GenerateJSONFrom(response);
    auto file = Shared::FileSystem::GeneratedFile::Unique(L"manifest.json");
    file.WriteText(json);
    if (const auto added = zip.AddFile("manifest.json", file.Path()); !added && !added.error().archived) {
        throw Shared::Exception::RuntimeException(added.error().message);
    }
}

}  // namespace AgentCore::Diagnostics
