#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors-copyjob.h"
#include "agentcore.diagnostics-collectors.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// What an extension copier takes.
struct ExtensionScan {
    /// With its dot; compared byte by byte, case and all.
    std::string_view extension;
    /// What the file's name must begin with; empty for any name.
    std::string_view namePrefix;
    /// Whether the whole tree below the folder is scanned. Links to folders are not followed.
    bool recursive;
    /// The most files that are copied of one base name (the text before the first dot).
    std::size_t maxPerName;
    std::uint64_t maxSize;
};

/// Copies the files that match, by stem in byte order, each under its own name, within the limits of CopyJob. What
/// cannot be listed below the folder is a message. When the scan itself fails the status has no messages; the log has
/// the reason.
[[nodiscard]] CollectorStatus CopyByExtension(SourceProvider provider, const ExtensionScan& scan,
                                              const Destination& destination) noexcept;

/// The files of one extension, and optionally of one beginning of the name, in a folder or a tree.
template <auto folder, Shared::Util::FixedString extension, Shared::Util::FixedString namePrefix, bool recursive,
          int type, std::size_t maxPerName = 10, std::uint64_t maxSize = maxFileSize>
struct ExtensionCopier {
    static constexpr int diagnosticType = type;

    [[nodiscard]] static std::string Name() { return std::string(namePrefix) + '*' + std::string(extension); }
    [[nodiscard]] static std::string Origin() { return OriginOf<folder>(); }

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return CopyByExtension(&SourceOf<folder>,
                               {.extension = extension,
                                .namePrefix = namePrefix,
                                .recursive = recursive,
                                .maxPerName = maxPerName,
                                .maxSize = maxSize},
                               {archiveFolder, zip});
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
