#include "agentcore.diagnostics-collectors-copyjob.h"

#include <fmt/format.h>

#include "shared.concurrency-interrupt.h"
#include "shared.exception-messages.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::Concurrency::IsInterrupted;

// Each add writes the archive's directory anew.
constexpr std::size_t maxFiles = 1000;
// Limits of folders that users can write to.
constexpr std::uint64_t maxBytes = std::uint64_t{1} << 30U;
constexpr std::size_t maxEntries = 100'000;
constexpr std::size_t maxLevels = 64;

}  // namespace

CopyJob::CopyJob(const SourceFolder& source, std::uint64_t maxSize, const Destination& destination)
    : source_(source), maxSize_(maxSize), destination_(destination) {
    const std::string row = ToUtf8Lossy(destination.folder) + '/';
    for (const libzippp::ZipEntry& entry : destination.zip.Entries()) {
        if (entry.isFile() && entry.getName().starts_with(row)) {
            ++files_;
            bytes_ += entry.getSize();
        }
    }
}

bool CopyJob::Scan(DirectoryListing listing, Depth depth, const std::function<void(const DirectoryEntry&)>& visit) {
    const char* const operation =
        depth == Depth::Tree ? "recursive_directory_iterator::operator++" : "directory_iterator::operator++";
    // A stack of its own, since the depth of a trusted tree is unbounded.
    std::vector<DirectoryListing> levels;
    levels.push_back(std::move(listing));
    bool isCut = false;
    for (std::size_t entries = 1; !levels.empty() && !isCut && !IsInterrupted(); ++entries) {
        const DirectoryEntry* const entry = levels.back().NextOrThrow(operation);
        if (entry == nullptr) {
            levels.pop_back();
            continue;
        }
        visit(*entry);
        // A confined folder refuses links by itself.
        if (depth == Depth::Tree && (source_.IsConfined() ? entry->IsDirectory() : entry->IsPlainDirectory())) {
            Descend(entry->path, levels);
        }
        isCut = source_.IsConfined() && (entries >= maxEntries || levels.size() > maxLevels);
    }
    if (isCut) {
        AddMessage(LogWarningAndReturn(fmt::format("The scan of the folder {} was cut at {} entries or {} levels.",
                                                   ToUtf8Lossy(source_.Path()), maxEntries, maxLevels)));
    }
    return !isCut && !IsInterrupted();
}

void CopyJob::Descend(const std::filesystem::path& folder, std::vector<DirectoryListing>& levels) {
    auto listing = ListingOf(folder, source_.Open(folder));
    if (listing) {
        levels.push_back(*std::move(listing));
    } else if (!Shared::FileSystem::IsNotFound(listing.error())) {
        SkipFolder(folder, listing.error());
    }
}

bool CopyJob::Copy(const std::filesystem::path& file, IfMissing ifMissing) {
    if (files_ >= maxFiles) {
        ++left_;
        return false;
    }
    const auto found = source_.Open(file);
    if (ifMissing == IfMissing::Ignore && !found && Shared::FileSystem::IsNotFound(found.error())) {
        return false;
    }
    return Copy(file, found, "status");
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
    const std::uint64_t size = found->opened.facts.size;
    if (files_ >= maxFiles || (source_.IsConfined() && bytes_ + size > maxBytes)) {
        ++left_;
        return false;
    }
    auto added = destination_.zip.AddFileToFolder(destination_.folder, found->opened, maxSize_);
    if (const auto tooLarge = added ? std::nullopt : added.error().tooLarge) {
        // It has grown since it passed the gate.
        AddMessage(SizeExceeded(file, *tooLarge, maxSize_).message);
        return false;
    }
    CollectorStatus status = StatusOf(std::move(added), file);
    const bool isArchived = status.success;
    files_ += isArchived ? 1 : 0;
    bytes_ += isArchived ? size : 0;
    Merge(status_, std::move(status));
    return isArchived;
}

void CopyJob::SkipFolder(const std::filesystem::path& folder, DWORD reason) {
    if (++skipped_ > maxFiles) {
        ++left_;
    } else if (auto refusal = RefusalOf(folder, reason)) {
        AddMessage(std::move(refusal->message));
    } else {
        AddMessage(LogWarningAndReturn(fmt::format("Cannot list the folder {}: {}", ToUtf8Lossy(folder),
                                                   Shared::Exception::Win32Message(reason))));
    }
}

CollectorStatus CopyJob::Status() && {
    if (left_ != 0) {
        AddMessage(fmt::format("{} further entries of the folder {} were left out: at most {} files{} are taken.",
                               left_, ToUtf8Lossy(source_.Path()), maxFiles, source_.IsConfined() ? " and 1 GiB" : ""));
    }
    return std::move(status_);
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
