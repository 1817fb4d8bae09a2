#include "agentcore.diagnostics-collectors-filechecks.h"

#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <source_location>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Reason = CheckError::Reason;

CheckError Refusal(Reason reason, std::string message,
                   const std::source_location& check = std::source_location::current()) {
    Shared::Exception::LogInfoAt({"{}", check}, message);
    return {.message = std::move(message), .reason = reason};
}

}  // namespace

CheckError NotRegular(const std::filesystem::path& file) {
    return Refusal(Reason::NotRegularFile, fmt::format("The file '{}' is not a regular file.", ToUtf8Lossy(file)));
}

CheckError SizeExceeded(const std::filesystem::path& file, std::uint64_t size, std::uint64_t maxSize) {
    return Refusal(Reason::TooLarge,
                   fmt::format("Excluded file '{}' ({} MB) because it exceeds the maximum file size limit of {} MB.",
                               ToUtf8Lossy(file), size >> 20U, maxSize >> 20U));
}

std::optional<CheckError> RefusalOf(const std::filesystem::path& file, DWORD code) {
    switch (code) {
        case ERROR_CANT_RESOLVE_FILENAME:
        case ERROR_TOO_MANY_LINKS:
            return NotRegular(file);
        case ERROR_FILE_OFFLINE:
            return Refusal(
                Reason::NotRegularFile,
                fmt::format("The content of the file '{}' is not stored on this machine.", ToUtf8Lossy(file)));
        default:
            return std::nullopt;
    }
}

CheckResult FileChecksPass(const std::filesystem::path& file, std::uint64_t maxSize) {
    return CheckFound(file, SourceFolder::Trusted(file).Open(file), maxSize, "status");
}

CheckResult CheckFound(const std::filesystem::path& file, const Win32Result<SourceFile>& found, std::uint64_t maxSize,
                       const char* operation) {
    if (!found && Shared::FileSystem::IsNotFound(found.error())) {
        return std::unexpected(
            Refusal(Reason::NotFound, fmt::format("The file '{}' does not exist.", ToUtf8Lossy(file))));
    }
    if (!found) {
        if (auto refusal = RefusalOf(file, found.error())) {
            return std::unexpected(*std::move(refusal));
        }
        Shared::FileSystem::ThrowFileSystemError(operation, file, found.error());
    }
    const auto& [path, handle, facts] = found->opened;
    if (facts.kind != FileKind::Regular) {
        return std::unexpected(NotRegular(file));
    }
    if (facts.size > maxSize) {
        return std::unexpected(SizeExceeded(file, facts.size, maxSize));
    }
    // What cannot be read is not opened by its path again: it may be another file by now, or under an oplock.
    DWORD binaryType = 0;
    if (found->error == ERROR_SUCCESS &&
        GetBinaryTypeW(Shared::FileSystem::LongForm(path).c_str(), &binaryType) != FALSE) {
        return std::unexpected(
            Refusal(Reason::Executable,
                    fmt::format("The file '{}' is an executable binary and will be ignored.", ToUtf8Lossy(file))));
    }
    return {};
}

FileDescriptor::FileDescriptor(std::filesystem::path file) : path(std::move(file)) {
    name = ToUtf8Lossy(path.filename());
    name.erase(std::min(name.find(':'), name.size()));
    baseName = Extract(name);
    const std::size_t dot = name == ".." ? 0 : name.rfind('.');
    stem = name.substr(0, dot == 0 ? std::string::npos : dot);
    extension = name.substr(stem.size());
}

std::string FileDescriptor::Extract(std::string_view fileName) {
    const std::size_t dot = fileName.find('.');
    if (dot == std::string_view::npos) {
        throw Shared::Exception::RuntimeException(fmt::format("No extension detected in {}.", fileName));
    }
    return std::string(fileName.substr(0, dot));
}

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
