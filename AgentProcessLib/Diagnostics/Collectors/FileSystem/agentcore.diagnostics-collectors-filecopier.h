#pragma once

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors-filechecks.h"
#include "agentcore.diagnostics-collectors.h"
#include "shared.filesystem-confinedfolder.h"
#include "shared.system-installpaths.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// Yields a folder; may throw.
using FolderProvider = std::filesystem::path (*)();

/// Where a machine-wide collector reads.
struct SourceFolder {
    FolderProvider folder;
    /// How many of the folder's last components unprivileged users may have created: what is read there must lie below
    /// the components before them. 0 for a folder that only administrators can write to.
    int untrustedLevels;

    /// The folder above the untrusted levels of the resolved folder; nothing without untrusted levels.
    [[nodiscard]] std::optional<Shared::FileSystem::ConfinedFolder> ConfinedTo(std::filesystem::path resolved) const;
};

/// The folder that a template argument stands for: what a callable returns, or a wide FixedString.
template <auto folder>
[[nodiscard]] std::filesystem::path ResolveFolder() {
    if constexpr (std::invocable<decltype(folder)>) {
        return folder();
    } else {
        return std::filesystem::path(std::wstring_view(folder));
    }
}

/// By default every user may create files and folders below ProgramData, which these folders are three levels below.
template <auto folder>
inline constexpr int untrustedLevels = 0;
template <>
inline constexpr int untrustedLevels<&Shared::PV::GetLumoraAccessAgentLogPath> = 3;
template <>
inline constexpr int untrustedLevels<&Shared::PV::GetDlpLogPath> = 3;

template <auto folder>
inline constexpr SourceFolder sourceFolder{.folder = &ResolveFolder<folder>,
                                           .untrustedLevels = untrustedLevels<folder>};

/// Copies the file of the given name. A missing file is no success and no message.
[[nodiscard]] CollectorStatus CopyNamedFile(const SourceFolder& folder, std::string_view name, std::uint64_t maxSize,
                                            const Destination& destination) noexcept;

/// One file with a fixed name, in a folder that is found at run time.
template <auto provider, Shared::Util::FixedString name, int type, std::uint64_t maxSize = maxFileSize>
struct FileCopier {
    static constexpr int diagnosticType = type;

    [[nodiscard]] static std::string Name() { return std::string(std::string_view(name)); }
    [[nodiscard]] static std::string Origin() { return Shared::Util::ToUtf8Lossy(ResolveFolder<provider>()); }

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return CopyNamedFile(sourceFolder<provider>, name, maxSize, {archiveFolder, zip});
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
