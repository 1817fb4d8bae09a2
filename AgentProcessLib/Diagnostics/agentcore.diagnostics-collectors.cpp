#include "agentcore.diagnostics-collectors.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>

#include "shared.exception-guardedlog.h"
#include "shared.exception-text.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

CollectorStatus StatusOf(Shared::FileZip::ZipArchiveWrapper::AddResult added, const std::filesystem::path& origin) {
    CollectorStatus status;
    if (const auto archived = added ? std::optional(*added) : added.error().archived) {
        status.success = true;
        ::Diagnostics::File& file = *status.diagnostic.add_files();
        file.set_name(archived->entryName);
        // Never throws: the file is archived, and the row must say so.
        file.set_origin(Shared::Exception::Narrow(origin.native()));
        file.set_size(static_cast<std::uint32_t>(archived->size));
    }
    if (!added) {
        status.errors.push_back(std::move(added.error().message));
    }
    return status;
}

void Merge(CollectorStatus& status, CollectorStatus&& other) {
    status.success = status.success || other.success;
    status.diagnostic.MergeFrom(other.diagnostic);
    std::ranges::move(other.errors, std::back_inserter(status.errors));
}

CollectorStatus Destination::Add(const std::filesystem::path& file) const {
    return StatusOf(zip.AddFileToFolder(folder, file), {});
}

CollectorStatus Destination::Add(const Shared::FileSystem::GeneratedFile& file) const {
    return StatusOf(zip.AddFile(Shared::Util::ToUtf8Lossy(folder / file.Name()), file.Path()), {});
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
