#include "agentcore.diagnostics-collectors-filechecks.h"

#include <windows.h>

#include <fmt/format.h>

#include <optional>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::FileSystem::FileKind;
using Shared::FileSystem::FileStatus;
using Shared::Util::ToUtf8Lossy;
using Reason = CheckError::Reason;

CheckError Refusal(Reason reason, std::string message, const std::source_location& check) {
    Shared::Exception::LogInfoAt({"{}", check}, message);
    return {.message = std::move(message), .reason = reason};
}

std::unexpected<CheckError> Refuse(Reason reason, std::string message,
                                   const std::source_location& check = std::source_location::current()) {
    return std::unexpected(Refusal(reason, std::move(message), check));
}

std::unexpected<CheckError> TooLarge(const std::filesystem::path& file, std::uint64_t size, std::uint64_t maxSize) {
    return Refuse(Reason::TooLarge,
                  fmt::format("Excluded file '{}' ({} MB) because it exceeds the maximum file size limit of {} MB.",
                              ToUtf8Lossy(file), size >> 20U, maxSize >> 20U));
}

// `image` is the path at which the file's first bytes are read.
CheckResult Check(const std::filesystem::path& file, const FileStatus& status, const std::filesystem::path& image,
                  std::uint64_t maxSize) {
    switch (status.kind) {
        case FileKind::Regular:
            break;
        case FileKind::NotFound:
            return Refuse(Reason::NotFound, fmt::format("The file '{}' does not exist.", ToUtf8Lossy(file)));
        case FileKind::NotStoredHere:
            return Refuse(
                Reason::NotRegularFile,
                fmt::format("The content of the file '{}' is not stored on this machine.", ToUtf8Lossy(file)));
        default:
            return std::unexpected(NotRegular(file));
    }
    if (status.size > maxSize) {
        return TooLarge(file, status.size, maxSize);
    }
    DWORD binaryType = 0;
    if (GetBinaryTypeW(Shared::FileSystem::LongForm(image).c_str(), &binaryType) != FALSE) {
        return Refuse(Reason::Executable,
                      fmt::format("The file '{}' is an executable binary and will be ignored.", ToUtf8Lossy(file)));
    }
    return {};
}

}  // namespace

CheckError NotRegular(const std::filesystem::path& file, const std::source_location& check) {
    return Refusal(Reason::NotRegularFile, fmt::format("The file '{}' is not a regular file.", ToUtf8Lossy(file)),
                   check);
}

std::string FilesLeft(std::size_t count, const std::filesystem::path& folder) {
    return fmt::format(
        "{} further files of the folder {} were left out: at most {} files are taken, and of a user's folder the "
        "newest ones up to 1 GiB.",
        count, ToUtf8Lossy(folder), maxFilesPerRow);
}

CheckResult FileChecksPass(const std::filesystem::path& file, std::uint64_t maxSize) {
    return Check(file, Shared::FileSystem::QueryStatus(file, "status"), file, maxSize);
}

CheckResult FileChecksPass(const std::filesystem::path& file, const Shared::FileSystem::ConfinedFile& opened,
                           std::uint64_t maxSize) {
    return Check(file, opened.status, opened.path, maxSize);
}

std::expected<CollectorStatus, CheckError> AddWithinLimit(const std::filesystem::path& file, std::uint64_t maxSize,
                                                          const Destination& destination) {
    auto added = destination.zip.AddFileToFolder(destination.folder, file, maxSize);
    if (const std::optional<std::uint64_t> size = added ? std::nullopt : added.error().tooLarge; size) {
        return TooLarge(file, *size, maxSize);
    }
    return StatusOf(std::move(added));
}

std::expected<CollectorStatus, CheckError> CopyConfined(const Shared::FileSystem::ConfinedFolder& folder,
                                                        const std::filesystem::path& source, std::uint64_t maxSize,
                                                        const Destination& destination) {
    const auto opened = folder.Open(folder.NameOf(source));
    if (!opened) {
        return Unsuccessful(fmt::format("Cannot archive file {}: {} ({})", ToUtf8Lossy(source),
                                        Shared::Exception::Win32Message(opened.error().code), opened.error().code));
    }
    if (CheckResult check = FileChecksPass(source, *opened, maxSize); !check) {
        return std::unexpected(std::move(check.error()));
    }
    return AddWithinLimit(opened->path, maxSize, destination);
}

NameParts::NameParts(std::wstring_view fileName) : name(fileName.substr(0, fileName.find(L':'))), stem(name) {
    const std::size_t dot = name.rfind(L'.');
    if (dot != std::wstring_view::npos && dot != 0 && name != L"..") {
        stem = name.substr(0, dot);
        extension = name.substr(dot);
    }
}

FileDescriptor::FileDescriptor(std::filesystem::path file) : path(std::move(file)) {
    const std::filesystem::path fileName = path.filename();
    const NameParts parts(fileName.native());
    name = ToUtf8Lossy(parts.name);
    stem = ToUtf8Lossy(parts.stem);
    extension = ToUtf8Lossy(parts.extension);
    baseName = Extract(name);
}

std::string FileDescriptor::Extract(std::string_view fileName) {
    const std::size_t dot = fileName.find('.');
    if (dot == std::string_view::npos) {
        throw Shared::Exception::RuntimeException(fmt::format("No extension detected in {}.", fileName));
    }
    return std::string(fileName.substr(0, dot));
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
