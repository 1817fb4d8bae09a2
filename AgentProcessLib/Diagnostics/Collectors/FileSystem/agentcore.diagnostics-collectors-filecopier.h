#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors-copyjob.h"
#include "agentcore.diagnostics-collectors.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// Copies the file of the given name. A missing file is no success and no message.
[[nodiscard]] CollectorStatus CopyNamedFile(SourceProvider provider, std::string_view name, std::uint64_t maxSize,
                                            const Destination& destination) noexcept;

/// One file with a fixed name, in a folder that is found at run time.
template <auto provider, Shared::Util::FixedString name, int type, std::uint64_t maxSize = maxFileSize>
struct FileCopier {
    static constexpr int diagnosticType = type;

    [[nodiscard]] static std::string Name() { return std::string(std::string_view(name)); }
    [[nodiscard]] static std::string Origin() { return OriginOf<provider>(); }

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return CopyNamedFile(&SourceOf<provider>, name, maxSize, {archiveFolder, zip});
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
