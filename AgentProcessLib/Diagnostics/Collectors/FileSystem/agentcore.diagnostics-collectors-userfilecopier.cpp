#include "agentcore.diagnostics-collectors-userfilecopier.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <ranges>
#include <set>
#include <tuple>
#include <vector>

#include "shared.concurrency-interrupt.h"
#include "shared.filesystem-confinedfolder.h"
#include "shared.filesystem-scan.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::FileSystem::ConfinedFolder;
using Shared::FileSystem::DirectoryEntry;
using Shared::FileSystem::FileKind;
using Shared::Util::ToUtf8Lossy;

/// The most bytes that are taken of one user's folder.
constexpr std::uint64_t maxFolderSize = std::uint64_t{1} << 30U;

std::string FailedCopying(const std::filesystem::path& file, const std::exception& error) {
    return LogErrorAndReturn(
        fmt::format("UserFileCopier failed copying the file {}: {}", ToUtf8Lossy(file), error.what()));
}

/// The files of a folder that are taken: the newest ones within the limits, in directory order.
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
    /// Time of the last write, place in directory order, size, path.
    std::set<std::tuple<std::int64_t, std::size_t, std::uint64_t, std::filesystem::path>> newest_;
};

/// Adds one file of a folder's listing; one that has been removed since needs no message.
void CopyListed(const ConfinedFolder& profile, const std::filesystem::path& file, std::uint64_t maxSize,
                const Destination& destination, CollectorStatus& status) {
    try {
        auto copied = CopyConfined(profile, file, maxSize, destination);
        if (copied) {
            status.success = status.success || copied->success;
            std::ranges::move(copied->errors, std::back_inserter(status.errors));
        } else if (copied.error().reason != CheckError::Reason::NotFound) {
            status.errors.push_back(std::move(copied.error().message));
        }
    } catch (const std::exception& error) {
        static_cast<void>(FailedCopying(file, error));
    }
}

}  // namespace

CollectorStatus ProfileCopier::Collect(std::string_view relativePath, const Destination& destination) const noexcept {
    return WithinBoundary(
        [&] {
            const std::filesystem::path source = profile_ / Shared::Util::PathFromUtf8(relativePath);
            const ConfinedFolder profile(profile_);
            switch (profile.KindOf(profile.NameOf(source))) {
                case FileKind::NotFound:
                    return Unsuccessful();
                case FileKind::Directory:
                    return CopyDirectory(source, destination);
                case FileKind::Other:
                    return Unsuccessful(
                        fmt::format("{} is neither a directory or a valid file to copy", ToUtf8Lossy(source)));
                default:
                    return CopyFile(source, destination);
            }
        },
        [](std::string_view reason) {
            return LogErrorAndReturn(fmt::format("User based collector failed: {}", reason));
        });
}

CollectorStatus ProfileCopier::CopyFile(const std::filesystem::path& source, const Destination& destination) const {
    try {
        auto copied = CopyConfined(ConfinedFolder(profile_), source, maxSize_, destination);
        return copied ? *std::move(copied) : Unsuccessful(std::move(copied.error().message));
    } catch (const std::exception& error) {
        return Unsuccessful(FailedCopying(source, error));
    }
}

CollectorStatus ProfileCopier::CopyDirectory(const std::filesystem::path& source,
                                             const Destination& destination) const {
    const ConfinedFolder profile(profile_);
    CollectorStatus status;
    NewestFiles files(maxSize_);
    auto listing = profile.List(source);
    while (const auto* entry = Shared::Concurrency::IsInterrupted() ? nullptr : listing.Next()) {
        if (!entry->IsDirectory()) {
            files.Offer(*entry);
        } else if (status.errors.size() < maxFilesPerRow) {
            status.errors.push_back(NotRegular(entry->path).message);
        }
    }
    for (const std::filesystem::path& file : files.Take()) {
        if (Shared::Concurrency::IsInterrupted()) {
            break;
        }
        CopyListed(profile, file, maxSize_, destination, status);
    }
    if (files.Left() != 0) {
        status.errors.push_back(FilesLeft(files.Left(), source));
    }
    return status;
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
