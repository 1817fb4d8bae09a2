#pragma once

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "agentcore.diagnostics-filechecks.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// Yields the folder that a collector reads; may throw.
using FolderProvider = std::filesystem::path (*)();

/// The folder that a template argument stands for: what a callable returns, or a wide FixedString.
template <auto folder>
[[nodiscard]] std::filesystem::path ResolveFolder() {
    if constexpr (std::invocable<decltype(folder)>) {
        return folder();
    } else {
        return std::filesystem::path(std::wstring_view(folder));
    }
}

/// Copies the file of the given name. A missing file is no success and no message.
[[nodiscard]] CollectorStatus CopyNamedFile(FolderProvider provider, std::string_view name, std::uint64_t maxSize,
                                            const std::filesystem::path& archiveFolder,
                                            Shared::FileZip::ZipArchiveWrapper& zip) noexcept;

/// One file with a fixed name, in a folder that is found at run time.
template <auto provider, Shared::Util::FixedString name, int type, std::uint64_t maxSize = maxFileSize>
struct FileCopier {
    static constexpr int diagnosticType = type;

    [[nodiscard]] static std::string Name() { return std::string(std::string_view(name)); }
    [[nodiscard]] static std::string Origin() { return Shared::Util::ToUtf8(ResolveFolder<provider>()); }

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return CopyNamedFile(&ResolveFolder<provider>, name, maxSize, archiveFolder, zip);
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
