#include "agentcore.diagnostics-collectors-userfilecopier.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <ranges>
#include <set>
#include <tuple>
#include <vector>

#include "agentcore.diagnostics-collectors-filechecks.h"
#include "shared.concurrency-interrupt.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::Concurrency::IsInterrupted;
using Shared::FileSystem::Depth;
using Shared::FileSystem::DirectoryEntry;
using Shared::FileSystem::DirectoryListing;
using Shared::FileSystem::FileKind;
using Shared::FileSystem::SourceFolder;
using Shared::Util::ToUtf8Lossy;

// The most bytes that are taken of one user's folder.
constexpr std::uint64_t maxFolderSize = std::uint64_t{1} << 30U;

std::string FailedCopying(const std::filesystem::path& file, const std::exception& error) {
    return LogErrorAndReturn(
        fmt::format("UserFileCopier failed copying the file {}: {}", ToUtf8Lossy(file), error.what()));
}

// The files of a folder that are taken: the newest ones within the limits, in directory order.
class NewestFiles {
public:
    explicit NewestFiles(std::uint64_t maxSize) : maxSize_(maxSize) {}

    void Offer(const DirectoryEntry& entry) {
        const std::size_t order = offered_++;
        newest_.emplace(entry.lastWritten, order, entry.size, entry.path);
        if (newest_.size() > maxFilesPerRow) {
            newest_.erase(newest_.begin());
        }
    }

    [[nodiscard]] std::vector<std::filesystem::path> Take() {
        std::vector<std::pair<std::size_t, std::filesystem::path>> taken;
        std::uint64_t total = 0;
        for (const auto& [lastWritten, order, size, path] : std::views::reverse(newest_)) {
            // A file over the limit is refused by the gate, with a message of its own.
            const std::uint64_t counted = size > maxSize_ ? 0 : size;
            if (total + counted <= maxFolderSize) {
                total += counted;
                taken.emplace_back(order, path);
            }
        }
        left_ = offered_ - taken.size();
        std::ranges::sort(taken);
        std::vector<std::filesystem::path> paths;
        std::ranges::transform(taken, std::back_inserter(paths), [](auto& file) { return std::move(file.second); });
        return paths;
    }

    [[nodiscard]] std::size_t Left() const { return left_; }

private:
    std::uint64_t maxSize_;
    std::size_t offered_ = 0;
    std::size_t left_ = 0;
    // Time of the last write, place in directory order, size, path.
    std::set<std::tuple<std::int64_t, std::size_t, std::uint64_t, std::filesystem::path>> newest_;
};

// Copies the files of a folder; one that has been removed since it was listed needs no message.
void CopyListed(const SourceFolder& folder, DirectoryListing listing, std::uint64_t maxSize, CopyJob& job) {
    NewestFiles files(maxSize);
    std::size_t subfolders = 0;
    ForEachEntry(folder, std::move(listing), Depth::Folder, [&](const DirectoryEntry& entry) {
        if (!entry.IsDirectory()) {
            files.Offer(entry);
        } else if (++subfolders <= maxFilesPerRow) {
            job.AddMessage(NotRegular(entry.path).message);
        }
        return !IsInterrupted();
    });
    for (const std::filesystem::path& file : files.Take()) {
        if (IsInterrupted()) {
            break;
        }
        try {
            job.Copy(file, IfMissing::Ignore);
        } catch (const std::exception& error) {
            static_cast<void>(FailedCopying(file, error));
        }
    }
    job.Leave(files.Left());
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
                CopyListed(source, ListOrThrow(source.Path(), std::move(found)), maxSize_, job);
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
        job.Copy(source, IfMissing::Report);
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
    CopyListed(folder, ListOrThrow(source, folder.Open(source)), maxSize_, job);
    return std::move(job).Status();
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
