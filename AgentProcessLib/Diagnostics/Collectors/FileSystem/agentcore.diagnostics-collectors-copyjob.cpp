#include "agentcore.diagnostics-collectors-copyjob.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "agentcore.diagnostics-collectors-filechecks.h"
#include "shared.exception-messages.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

using Shared::FileSystem::SourceFile;
using Shared::Util::ToUtf8Lossy;
using Shared::Util::Win32Result;

CopyJob::CopyJob(const Shared::FileSystem::SourceFolder& source, std::uint64_t maxSize, const Destination& destination)
    : source_(source),
      maxSize_(maxSize),
      destination_(destination),
      room_(maxFilesPerRow - std::min(maxFilesPerRow, destination.CountFiles())) {}

bool CopyJob::Copy(const std::filesystem::path& file, IfMissing ifMissing, const char* operation) {
    const auto found = source_.Open(file);
    if (ifMissing == IfMissing::Ignore && !found && Shared::FileSystem::IsNotFound(found.error())) {
        return false;
    }
    return Copy(file, found, operation);
}

bool CopyJob::Copy(const std::filesystem::path& file, const Win32Result<SourceFile>& found, const char* operation) {
    if (CheckResult check = CheckFound(file, found, maxSize_, operation); !check) {
        AddMessage(std::move(check.error().message));
        return false;
    }
    if (found->error != ERROR_SUCCESS) {
        AddMessage(fmt::format("Cannot archive file {}: {} ({})", ToUtf8Lossy(file),
                               Shared::Exception::Win32Message(found->error), found->error));
        return false;
    }
    if (room_ == 0) {
        Leave(1);
        return false;
    }
    auto added = destination_.zip.AddFileToFolder(destination_.folder, found->opened, maxSize_);
    if (!added && added.error().tooLarge) {
        // It has grown since it passed the gate.
        AddMessage(SizeExceeded(file, *added.error().tooLarge, maxSize_).message);
        return false;
    }
    CollectorStatus status = StatusOf(std::move(added));
    std::ranges::move(status.errors, std::back_inserter(status_.errors));
    room_ -= status.success ? 1 : 0;
    status_.success = status_.success || status.success;
    return status.success;
}

CollectorStatus CopyJob::Status() && {
    if (left_ != 0) {
        AddMessage(
            fmt::format("{} further files of the folder {} were left out: at most {} files are taken, and of a "
                        "user's folder the newest ones up to 1 GiB.",
                        left_, ToUtf8Lossy(source_.Path()), maxFilesPerRow));
    }
    return std::move(status_);
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
