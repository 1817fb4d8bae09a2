#include "agentcore.diagnostics-collectors-extensioncopier.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "shared.concurrency-interrupt.h"
#include "shared.exception-guardedlog.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

bool IsMatch(const FileDescriptor& file, const ExtensionScan& scan) {
    return !file.stem.empty() && file.extension == scan.extension && file.name.starts_with(scan.namePrefix);
}

std::vector<FileDescriptor> Find(const SourceFolder& source, DirectoryListing listing, const ExtensionScan& scan,
                                 CopyJob& job) {
    std::vector<FileDescriptor> files;
    const auto visit = [&](const DirectoryEntry& entry) {
        const std::wstring_view name = entry.Name();
        if (name.substr(0, name.find(L':')).contains(L'.')) {
            if (FileDescriptor file(entry.path); IsMatch(file, scan)) {
                files.push_back(std::move(file));
            }
        }
    };
    const bool isWhole =
        job.Scan(std::move(listing), scan.recursive ? CopyJob::Depth::Tree : CopyJob::Depth::Folder, visit);
    if (files.empty() && isWhole) {
        Shared::Exception::LogInfo("No files with extension {} were found in directory {}.", scan.extension,
                                   ToUtf8Lossy(source.Path()));
    }
    std::ranges::sort(files, {}, [](const FileDescriptor& file) { return std::tie(file.stem, file.path); });
    return files;
}

void CopyMatches(const std::vector<FileDescriptor>& files, std::size_t maxPerName, CopyJob& job) {
    std::unordered_map<std::string, std::size_t> copied;
    for (const FileDescriptor& file : files) {
        if (Shared::Concurrency::IsInterrupted()) {
            break;
        }
        std::size_t& copiedOfName = copied[file.baseName];
        if (copiedOfName == maxPerName) {
            job.AddMessage(
                fmt::format("Skipped file {} as extension copier reached copyable limit.", ToUtf8Lossy(file.path)));
            continue;
        }
        try {
            copiedOfName += job.Copy(file.path, CopyJob::IfMissing::Report) ? 1 : 0;
        } catch (const std::exception& error) {
            Shared::Exception::LogError("Diagnostics failed copying extension-based file {}: {}",
                                        ToUtf8Lossy(file.path), error.what());
        }
    }
}

}  // namespace

CollectorStatus CopyByExtension(SourceProvider provider, const ExtensionScan& scan,
                                const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            const SourceFolder source = provider();
            auto folder = source.Open(source.Path());
            if (auto refusal = folder ? std::nullopt : RefusalOf(source.Path(), folder.error())) {
                return Unsuccessful(std::move(refusal->message));
            }
            CopyJob job(source, scan.maxSize, destination);
            CopyMatches(Find(source, ListOrThrow(source.Path(), std::move(folder)), scan, job), scan.maxPerName, job);
            return std::move(job).Status();
        },
        [&](std::string_view reason) {
            Shared::Exception::LogError("Diagnostics failed copying extensions for {}: {}.", scan.extension, reason);
            return Unsuccessful();
        });
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
