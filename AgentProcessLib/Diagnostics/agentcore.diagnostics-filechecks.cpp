#include "agentcore.diagnostics-filechecks.h"

#include <windows.h>

#include <fmt/format.h>

#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

using Shared::FileSystem::FileKind;
using Shared::FileSystem::FileStatus;
using Reason = CheckError::Reason;

std::unexpected<CheckError> Refuse(Reason reason, std::string message,
                                   const std::source_location& check = std::source_location::current()) {
    Shared::Exception::LogInfoAt({"{}", check}, message);
    return std::unexpected(CheckError{.message = std::move(message), .reason = reason});
}

CheckResult Check(const std::filesystem::path& file, const FileStatus& status, const std::filesystem::path& image,
                  std::uint64_t maxSize) {
    if (status.kind == FileKind::NotFound) {
        return Refuse(Reason::NotFound, fmt::format("The file '{}' does not exist.", Shared::Util::ToUtf8(file)));
    }
    if (status.kind != FileKind::Regular) {
        return Refuse(Reason::NotRegularFile,
                      fmt::format("The file '{}' is not a regular file.", Shared::Util::ToUtf8(file)));
    }
    if (status.size > maxSize) {
        return Refuse(Reason::TooLarge, fmt::format("Excluded file '{}' ({} MB) because it exceeds the maximum file "
                                                    "size limit of {} MB.",
                                                    Shared::Util::ToUtf8(file), status.size >> 20U, maxSize >> 20U));
    }
    DWORD binaryType = 0;
    if (GetBinaryTypeW(Shared::FileSystem::LongForm(image).c_str(), &binaryType) != FALSE) {
        return Refuse(Reason::Executable, fmt::format("The file '{}' is an executable binary and will be ignored.",
                                                      Shared::Util::ToUtf8(file)));
    }
    return {};
}

}  // namespace

CheckResult FileChecksPass(const std::filesystem::path& file, std::uint64_t maxSize) {
    return Check(file, Shared::FileSystem::QueryStatus(file, "status"), file, maxSize);
}

CheckResult FileChecksPass(const std::filesystem::path& file, const Shared::FileSystem::ConfinedFile& opened,
                           std::uint64_t maxSize) {
    return Check(file, opened.status, opened.path, maxSize);
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
    name = Shared::Util::ToUtf8(parts.name);
    stem = Shared::Util::ToUtf8(parts.stem);
    extension = Shared::Util::ToUtf8(parts.extension);
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
