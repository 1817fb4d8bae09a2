#include "agentcore.diagnostics-collectors-userfilecopier.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <tuple>
#include <vector>

#include "shared.concurrency-interrupt.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

std::string FailedCopying(const std::filesystem::path& file, const std::exception& error) {
    return LogErrorAndReturn(
        fmt::format("UserFileCopier failed copying the file {}: {}", ToUtf8Lossy(file), error.what()));
}

// Copies the files of a folder, the newest first; one that has been removed since it was listed needs no message.
void CopyListed(DirectoryListing listing, CopyJob& job) {
    std::vector<DirectoryEntry> files;
    job.Scan(std::move(listing), CopyJob::Depth::Folder, [&](const DirectoryEntry& entry) {
        if (entry.IsDirectory()) {
            job.SkipFolder(entry.path, ERROR_CANT_RESOLVE_FILENAME);
        } else {
            files.push_back(entry);
        }
    });
    std::ranges::sort(files, [](const DirectoryEntry& left, const DirectoryEntry& right) {
        return std::tie(right.lastWritten, left.path) < std::tie(left.lastWritten, right.path);
    });
    for (const DirectoryEntry& file : files) {
        if (Shared::Concurrency::IsInterrupted()) {
            break;
        }
        try {
            job.Copy(file.path, CopyJob::IfMissing::Ignore);
        } catch (const std::exception& error) {
            static_cast<void>(FailedCopying(file.path, error));
        }
    }
}

}  // namespace

CollectorStatus ProfileCopier::Collect(const std::filesystem::path& archiveFolder,
                                       Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
    return WithinBoundary(
        [&] {
            const auto source = SourceFolder::Confined(profile_, profile_ / Shared::Util::PathFromUtf8(relativePath_));
            auto found = source.Open(source.Path());
            if (!found && Shared::FileSystem::IsNotFound(found.error())) {
                return Unsuccessful();
            }
            const FileKind kind = found ? found->opened.facts.kind : FileKind::Regular;
            if (kind == FileKind::Other) {
                return Unsuccessful(
                    fmt::format("{} is neither a directory or a valid file to copy", ToUtf8Lossy(source.Path())));
            }
            CopyJob job(source, maxSize_, {archiveFolder, zip});
            if (kind == FileKind::Directory) {
                CopyListed(ListOrThrow(source.Path(), std::move(found)), job);
            } else {
                job.Copy(source.Path(), found, "exists");
            }
            return std::move(job).Status();
        },
        [](std::string_view reason) {
            return LogErrorAndReturn(fmt::format("User based collector failed: {}", reason));
        });
}

CollectorStatus ProfileCopier::CopyFile(const std::filesystem::path& source, const std::filesystem::path& archiveFolder,
                                        Shared::FileZip::ZipArchiveWrapper& zip) const {
    try {
        const auto folder = SourceFolder::Confined(profile_, source);
        CopyJob job(folder, maxSize_, {archiveFolder, zip});
        job.Copy(source, CopyJob::IfMissing::Report);
        return std::move(job).Status();
    } catch (const std::exception& error) {
        return Unsuccessful(FailedCopying(source, error));
    }
}

CollectorStatus ProfileCopier::CopyDirectory(const std::filesystem::path& source,
                                             const std::filesystem::path& archiveFolder,
                                             Shared::FileZip::ZipArchiveWrapper& zip) const {
    const auto folder = SourceFolder::Confined(profile_, source);
    CopyJob job(folder, maxSize_, {archiveFolder, zip});
    CopyListed(ListOrThrow(source, folder.Open(source)), job);
    return std::move(job).Status();
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
