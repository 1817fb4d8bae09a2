#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <source_location>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "shared.filesystem-confinedfolder.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// The largest file that the collectors take, in bytes.
inline constexpr std::uint64_t maxFileSize = 209715200;

/// The most files that one row archives: each add writes the archive's directory anew.
inline constexpr std::size_t maxFilesPerRow = 1000;

/// Why a file is not archived.
struct CheckError {
    // NOLINTNEXTLINE(performance-enum-size): 32 bits wide by contract
    enum class Reason : std::int32_t { NotFound, NotRegularFile, TooLarge, Executable };

    std::string message;
    Reason reason;
};

using CheckResult = std::expected<void, CheckError>;

/// The refusal of what is no regular file. It is logged.
[[nodiscard]] CheckError NotRegular(const std::filesystem::path& file,
                                    const std::source_location& check = std::source_location::current());

/// The message of a row that has left files because of its limits.
[[nodiscard]] std::string FilesLeft(std::size_t count, const std::filesystem::path& folder);

/// The gate of every collected file: it exists, is a regular file of at most `maxSize` bytes and no executable image.
/// A refusal is logged. Throws std::filesystem::filesystem_error of the operation "status" when the file's status
/// cannot be had.
[[nodiscard]] CheckResult FileChecksPass(const std::filesystem::path& file, std::uint64_t maxSize);

/// The same gate for a file that is held open. A file outside of its confined folder is no regular file. `file` is the
/// path for the message.
[[nodiscard]] CheckResult FileChecksPass(const std::filesystem::path& file,
                                         const Shared::FileSystem::ConfinedFile& opened, std::uint64_t maxSize);

/// Adds a file that has passed the gate; one that has outgrown `maxSize` since is refused as the gate would.
[[nodiscard]] std::expected<CollectorStatus, CheckError> AddWithinLimit(const std::filesystem::path& file,
                                                                        std::uint64_t maxSize,
                                                                        const Destination& destination);

/// Opens a file of a confined folder, passes it through the gate and adds it, all under one handle. Throws what
/// ConfinedFolder::Open throws.
[[nodiscard]] std::expected<CollectorStatus, CheckError> CopyConfined(const Shared::FileSystem::ConfinedFolder& folder,
                                                                      const std::filesystem::path& source,
                                                                      std::uint64_t maxSize,
                                                                      const Destination& destination);

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

/// Name, stem and extension as FileDescriptor holds them, for any name.
struct NameParts {
    explicit NameParts(std::wstring_view fileName);

    std::wstring_view name;
    std::wstring_view stem;
    std::wstring_view extension;
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
