#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "shared.filesystem-scan.h"
#include "shared.filesystem-sourcefolder.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"
#include "shared.util-win32result.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

// What all collectors of files work with.
using Shared::FileSystem::DirectoryEntry;
using Shared::FileSystem::DirectoryListing;
using Shared::FileSystem::FileKind;
using Shared::FileSystem::SourceFile;
using Shared::FileSystem::SourceFolder;
using Shared::Util::ToUtf8Lossy;
using Shared::Util::Win32Result;

/// Why a file is not archived.
struct CheckError {
    // NOLINTNEXTLINE(performance-enum-size): 32 bits wide by contract
    enum class Reason : std::int32_t { NotFound, NotRegularFile, TooLarge, Executable };

    std::string message;
    Reason reason;
};

using CheckResult = std::expected<void, CheckError>;

/// The gate of every collected file: it exists, is a regular file of at most `maxSize` bytes and no executable image.
/// A refusal is logged. Throws std::filesystem::filesystem_error of the operation "status" when the file's status
/// cannot be had.
[[nodiscard]] CheckResult FileChecksPass(const std::filesystem::path& file, std::uint64_t maxSize);

/// The same gate for what a source folder has found; `file` is the path for the messages. Throws
/// std::filesystem::filesystem_error of the given operation.
[[nodiscard]] CheckResult CheckFound(const std::filesystem::path& file, const Win32Result<SourceFile>& found,
                                     std::uint64_t maxSize, const char* operation);

/// The refusals by which the gate, and what comes after it, names a file's kind, and its size. They are logged.
[[nodiscard]] CheckError NotRegular(const std::filesystem::path& file);
[[nodiscard]] CheckError SizeExceeded(const std::filesystem::path& file, std::uint64_t size, std::uint64_t maxSize);

/// The refusal of what a confined folder does not open, by the code of the failure; nothing for other codes.
[[nodiscard]] std::optional<CheckError> RefusalOf(const std::filesystem::path& file, DWORD code);

/// The name parts of a file, as UTF-8. An alternate-stream suffix (":...") belongs to none of them.
struct FileDescriptor {
    /// Throws RuntimeException for a name without a dot.
    explicit FileDescriptor(std::filesystem::path file);

    /// The text before the first dot. Throws RuntimeException "No extension detected in {}." when there is no dot.
    [[nodiscard]] static std::string Extract(std::string_view fileName);

    std::string name;
    /// The name without its last extension; a leading dot starts no extension.
    std::string stem;
    /// The last extension with its dot, or nothing.
    std::string extension;
    std::filesystem::path path;
    std::string baseName;
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
