#include "agentcore.diagnostics-collectors-extensioncopier.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <set>
#include <unordered_map>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.filesystem-scan.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::Util::ToUtf8;

/// Files of one stem stay in the order in which they were found.
struct ByStem {
    bool operator()(const FileDescriptor& left, const FileDescriptor& right) const { return left.stem < right.stem; }
};

bool Matches(std::wstring_view fileName, const ExtensionScan& scan) {
    const NameParts parts(fileName);
    return !parts.stem.empty() && !parts.extension.empty() && ToUtf8(parts.extension) == scan.extension &&
           (scan.namePrefix.empty() || ToUtf8(parts.name).starts_with(scan.namePrefix));
}

/// The files of one run that have been copied, and what went wrong.
class Run {
public:
    Run(const ExtensionScan& scan, const std::filesystem::path& archiveFolder, Shared::FileZip::ZipArchiveWrapper& zip)
        : scan_(scan), archiveFolder_(archiveFolder), zip_(zip) {}

    void Report(std::string message) { status_.errors.push_back(std::move(message)); }

    void Copy(const FileDescriptor& file) {
        std::size_t& copied = copied_[file.baseName];
        if (copied == scan_.maxPerName) {
            Report(fmt::format("Skipped file {} as extension copier reached copyable limit.", ToUtf8(file.path)));
        } else if (CheckResult check = FileChecksPass(file.path, scan_.maxSize); !check) {
            Report(std::move(check.error().message));
        } else {
            CollectorStatus added = FromAdd(zip_.AddFileToFolder(archiveFolder_, file.path));
            copied += added.success ? 1 : 0;
            status_.success = status_.success || added.success;
            std::ranges::move(added.errors, std::back_inserter(status_.errors));
        }
    }

    [[nodiscard]] CollectorStatus Status() && { return std::move(status_); }

private:
    const ExtensionScan& scan_;
    const std::filesystem::path& archiveFolder_;
    Shared::FileZip::ZipArchiveWrapper& zip_;
    std::unordered_map<std::string, std::size_t> copied_;
    CollectorStatus status_;
};

CollectorStatus CopyMatches(const std::filesystem::path& folder, const ExtensionScan& scan, Run run) {
    using Shared::FileSystem::Depth;
    std::multiset<FileDescriptor, ByStem> files;
    const auto unreadable = Shared::FileSystem::ForEachEntry(folder, scan.recursive ? Depth::Tree : Depth::Folder,
                                                             [&](const Shared::FileSystem::DirectoryEntry& entry) {
                                                                 if (Matches(entry.Name(), scan)) {
                                                                     files.emplace(entry.path);
                                                                 }
                                                             });
    for (const auto& subfolder : unreadable) {
        std::string message = fmt::format("Cannot list the folder {}: {}", ToUtf8(subfolder.path),
                                          Shared::Exception::Win32Message(subfolder.error));
        Shared::Exception::LogWarning("{}", message);
        run.Report(std::move(message));
    }
    if (files.empty()) {
        Shared::Exception::LogInfo("No files with extension {} were found in directory {}.", scan.extension,
                                   ToUtf8(folder));
        return std::move(run).Status();
    }
    for (const FileDescriptor& file : files) {
        try {
            run.Copy(file);
        } catch (const std::exception& error) {
            Shared::Exception::LogError("Diagnostics failed copying extension-based file {}: {}", ToUtf8(file.path),
                                        error.what());
        }
    }
    return std::move(run).Status();
}

}  // namespace

CollectorStatus CopyByExtension(FolderProvider folder, const ExtensionScan& scan,
                                const std::filesystem::path& archiveFolder,
                                Shared::FileZip::ZipArchiveWrapper& zip) noexcept {
    try {
        try {
            return CopyMatches(folder(), scan, Run(scan, archiveFolder, zip));
        } catch (const std::exception& error) {
            Shared::Exception::LogError("Diagnostics failed copying extensions for {}: {}.", scan.extension,
                                        error.what());
        }
        return {};
    } catch (...) {
        // Nothing is left to say it with.
        return {};
    }
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
