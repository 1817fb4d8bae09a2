#include "agentcore.diagnostics-collectors-userfilecopier.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <iterator>

#include "shared.exception-messages.h"
#include "shared.filesystem-scan.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::FileSystem::ConfinedFile;
using Shared::FileSystem::ConfinedFolder;
using Shared::FileSystem::FileKind;
using Shared::Util::ToUtf8;

std::string FailedCopying(const std::filesystem::path& file, const std::exception& error) {
    return Logged(fmt::format("UserFileCopier failed copying the file {}: {}", ToUtf8(file), error.what()));
}

}  // namespace

CollectorStatus ProfileCopier::Collect(std::string_view relativePath, const std::filesystem::path& archiveFolder,
                                       Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
    return WithinBoundary(
        [&] {
            const std::filesystem::path source = profile_ / Shared::Util::PathFromUtf8(relativePath);
            const ConfinedFolder profile(profile_);
            const Opened opened = profile.Open(NameOf(source));
            if (!opened) {
                const bool folder = Shared::FileSystem::QueryStatus(source, "status").kind == FileKind::Directory;
                return folder ? CopyEntries(profile, source, opened, archiveFolder, zip)
                              : CopyOpened(source, opened, archiveFolder, zip);
            }
            switch (opened->status.kind) {
                case FileKind::NotFound:
                    return Unsuccessful();
                case FileKind::Directory:
                    return CopyEntries(profile, source, opened, archiveFolder, zip);
                case FileKind::Regular:
                case FileKind::Foreign:
                    return CopyOpened(source, opened, archiveFolder, zip);
                case FileKind::Other:
                    break;
            }
            return Unsuccessful(fmt::format("{} is neither a directory or a valid file to copy", ToUtf8(source)));
        },
        [](std::string_view reason) { return Logged(fmt::format("User based collector failed: {}", reason)); });
}

CollectorStatus ProfileCopier::CopyFile(const std::filesystem::path& source, const std::filesystem::path& archiveFolder,
                                        Shared::FileZip::ZipArchiveWrapper& zip) const {
    try {
        return CopyOpened(source, ConfinedFolder(profile_).Open(NameOf(source)), archiveFolder, zip);
    } catch (const std::exception& error) {
        return Unsuccessful(FailedCopying(source, error));
    }
}

CollectorStatus ProfileCopier::CopyDirectory(const std::filesystem::path& source,
                                             const std::filesystem::path& archiveFolder,
                                             Shared::FileZip::ZipArchiveWrapper& zip) const {
    const ConfinedFolder profile(profile_);
    return CopyEntries(profile, source, profile.Open(NameOf(source)), archiveFolder, zip);
}

std::wstring ProfileCopier::NameOf(const std::filesystem::path& source) const {
    return source.lexically_relative(profile_).native();
}

CollectorStatus ProfileCopier::CopyOpened(const std::filesystem::path& source, const Opened& opened,
                                          const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const {
    if (!opened) {
        return Unsuccessful(fmt::format("Cannot archive file {}: {} ({})", ToUtf8(source),
                                        Shared::Exception::Win32Message(opened.error()), opened.error()));
    }
    if (CheckResult check = FileChecksPass(source, *opened, maxSize_); !check) {
        return Unsuccessful(std::move(check.error().message));
    }
    return FromAdd(zip.AddFileToFolder(archiveFolder, opened->path));
}

CollectorStatus ProfileCopier::CopyEntries(const ConfinedFolder& profile, const std::filesystem::path& source,
                                           const Opened& opened, const std::filesystem::path& archiveFolder,
                                           Shared::FileZip::ZipArchiveWrapper& zip) const {
    if (!opened || opened->status.kind == FileKind::NotFound) {
        Shared::FileSystem::ThrowFileSystemError("directory_iterator::directory_iterator", source,
                                                 opened ? ERROR_PATH_NOT_FOUND : opened.error());
    }
    if (opened->status.kind != FileKind::Directory) {
        return CopyOpened(source, opened, archiveFolder, zip);
    }
    CollectorStatus status;
    const std::wstring folderName = NameOf(source) + L'\\';
    Shared::FileSystem::DirectoryListing listing(opened->path);
    while (const auto* entry = listing.Next()) {
        const std::filesystem::path file = source.native() + L'\\' + std::wstring(entry->Name());
        try {
            // A subfolder is refused by its looks: to open it could only fail for reasons that are beside the point.
            const Opened found = entry->IsDirectory()
                                     ? ConfinedFile{.status = {.kind = FileKind::Directory}, .path = {}, .handle = {}}
                                     : profile.Open(folderName + std::wstring(entry->Name()));
            if (found && found->status.kind == FileKind::NotFound) {
                continue;
            }
            CollectorStatus copied = CopyOpened(file, found, archiveFolder, zip);
            status.success = status.success || copied.success;
            std::ranges::move(copied.errors, std::back_inserter(status.errors));
        } catch (const std::exception& error) {
            static_cast<void>(FailedCopying(file, error));
        }
    }
    return status;
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
