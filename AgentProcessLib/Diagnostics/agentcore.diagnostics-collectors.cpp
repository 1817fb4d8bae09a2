#include "agentcore.diagnostics-collectors.h"

#include "shared.exception-guardedlog.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

CollectorStatus StatusOf(Shared::FileZip::ZipArchiveWrapper::AddResult added) {
    CollectorStatus status;
    status.success = added || added.error().archived;
    if (!added) {
        status.errors.push_back(std::move(added.error().message));
    }
    return status;
}

CollectorStatus Destination::Add(const std::filesystem::path& file) const {
    return StatusOf(zip.AddFileToFolder(folder, file));
}

CollectorStatus Destination::Add(const Shared::FileSystem::GeneratedFile& file) const {
    return StatusOf(zip.AddFile(Shared::Util::ToUtf8Lossy(folder / file.Name()), file.Path()));
}

CollectorStatus Unsuccessful() {
    return {};
}

CollectorStatus Unsuccessful(std::string message) {
    CollectorStatus status;
    status.errors.push_back(std::move(message));
    return status;
}

std::string LogErrorAndReturn(std::string message, const std::source_location& where) {
    Shared::Exception::LogError({"{}", where}, message);
    return message;
}

std::string LogWarningAndReturn(std::string message) {
    Shared::Exception::LogWarning("{}", message);
    return message;
}

}  // namespace AgentCore::Diagnostics
