#include "agentcore.diagnostics-collectors-extensioncopier.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "shared.concurrency-interrupt.h"
#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.filesystem-confinedfolder.h"
#include "shared.filesystem-scan.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::FileSystem::ConfinedFolder;
using Shared::FileSystem::DirectoryEntry;
using Shared::Util::ToUtf8Lossy;

/// Files of one stem stay in the order in which they were found.
struct ByStem {
    bool operator()(const FileDescriptor& left, const FileDescriptor& right) const { return left.stem < right.stem; }
};
using Matches = std::multiset<FileDescriptor, ByStem>;

bool IsMatch(std::wstring_view fileName, const ExtensionScan& scan) {
    const NameParts parts(fileName);
    return !parts.stem.empty() && !parts.extension.empty() && ToUtf8Lossy(parts.extension) == scan.extension &&
           (scan.namePrefix.empty() || ToUtf8Lossy(parts.name).starts_with(scan.namePrefix));
}

/// One run: the folder that it scans, and what it has copied and met.
class Run {
public:
    Run(std::filesystem::path folder, std::optional<ConfinedFolder> confined, const ExtensionScan& scan,
        const Destination& destination)
        : folder_(std::move(folder)),
          confined_(std::move(confined)),
          scan_(scan),
          destination_(destination),
          room_(maxFilesPerRow - std::min(maxFilesPerRow, destination.CountFiles())) {}

    [[nodiscard]] Matches Find() {
        using Shared::FileSystem::Depth;
        Matches files;
        const auto visit = [&](const DirectoryEntry& entry) {
            if (IsMatch(entry.Name(), scan_)) {
                files.emplace(entry.path);
            } else if (confined_ && scan_.recursive && entry.IsDirectory() && !entry.IsRealDirectory()) {
                status_.errors.push_back(NotRegular(entry.path).message);
            }
            return !Shared::Concurrency::IsInterrupted();
        };
        const auto open = [this](const std::filesystem::path& path) {
            return confined_ ? confined_->List(path) : Shared::FileSystem::DirectoryListing(path);
        };
        for (const auto& subfolder :
             Shared::FileSystem::ForEachEntry(folder_, scan_.recursive ? Depth::Tree : Depth::Folder, visit, open)) {
            status_.errors.push_back(
                subfolder.error == ERROR_CANT_RESOLVE_FILENAME
                    ? NotRegular(subfolder.path).message
                    : LogWarningAndReturn(fmt::format("Cannot list the folder {}: {}", ToUtf8Lossy(subfolder.path),
                                                      Shared::Exception::Win32Message(subfolder.error))));
        }
        return files;
    }

    void Copy(const FileDescriptor& file) {
        std::size_t& copiedOfName = copied_[file.baseName];
        if (copiedOfName == scan_.maxPerName) {
            status_.errors.push_back(
                fmt::format("Skipped file {} as extension copier reached copyable limit.", ToUtf8Lossy(file.path)));
            return;
        }
        if (room_ == 0) {
            ++left_;
            return;
        }
        auto copied = TryCopy(file.path);
        if (!copied) {
            status_.errors.push_back(std::move(copied.error().message));
            return;
        }
        const std::size_t count = copied->success ? 1 : 0;
        copiedOfName += count;
        room_ -= count;
        status_.success = status_.success || copied->success;
        std::ranges::move(copied->errors, std::back_inserter(status_.errors));
    }

    [[nodiscard]] CollectorStatus Status() && {
        if (left_ != 0) {
            status_.errors.push_back(FilesLeft(left_, folder_));
        }
        return std::move(status_);
    }

private:
    [[nodiscard]] std::expected<CollectorStatus, CheckError> TryCopy(const std::filesystem::path& file) const {
        if (confined_) {
            return CopyConfined(*confined_, file, scan_.maxSize, destination_);
        }
        if (CheckResult check = FileChecksPass(file, scan_.maxSize); !check) {
            return std::unexpected(std::move(check.error()));
        }
        return AddWithinLimit(file, scan_.maxSize, destination_);
    }

    std::filesystem::path folder_;
    std::optional<ConfinedFolder> confined_;
    const ExtensionScan& scan_;
    const Destination& destination_;
    std::size_t room_;
    std::size_t left_ = 0;
    std::unordered_map<std::string, std::size_t> copied_;
    CollectorStatus status_;
};

CollectorStatus CopyMatches(const std::filesystem::path& folder, std::optional<ConfinedFolder> confined,
                            const ExtensionScan& scan, const Destination& destination) {
    if (confined) {
        const auto opened = confined->Open(confined->NameOf(folder));
        if (opened && opened->status.kind == Shared::FileSystem::FileKind::OutsideFolder) {
            return Unsuccessful(NotRegular(folder).message);
        }
    }
    Run run(folder, std::move(confined), scan, destination);
    const Matches files = run.Find();
    if (files.empty() && !Shared::Concurrency::IsInterrupted()) {
        Shared::Exception::LogInfo("No files with extension {} were found in directory {}.", scan.extension,
                                   ToUtf8Lossy(folder));
    }
    for (const FileDescriptor& file : files) {
        if (Shared::Concurrency::IsInterrupted()) {
            break;
        }
        try {
            run.Copy(file);
        } catch (const std::exception& error) {
            Shared::Exception::LogError("Diagnostics failed copying extension-based file {}: {}",
                                        ToUtf8Lossy(file.path), error.what());
        }
    }
    return std::move(run).Status();
}

}  // namespace

CollectorStatus CopyByExtension(const SourceFolder& folder, const ExtensionScan& scan,
                                const Destination& destination) noexcept {
    try {
        try {
            const std::filesystem::path resolved = folder.folder();
            return CopyMatches(resolved, folder.ConfinedTo(resolved), scan, destination);
        } catch (const std::exception& error) {
            Shared::Exception::LogError("Diagnostics failed copying extensions for {}: {}.", scan.extension,
                                        error.what());
        }
        return {};
    } catch (...) {
        // Without memory there is no message either.
        return {};
    }
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
