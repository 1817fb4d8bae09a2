#pragma once

#include <fmt/format.h>

#include <filesystem>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "agentcore.diagnostics-keydump.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

/// Archives the access agent's key with all its subkeys. A missing key is a failed export like any other.
template <int Type>
class LumoraAccessAgentRegistryKey {
public:
    static constexpr int type = Type;
    static constexpr Shared::Util::FixedString keyPath = L"SOFTWARE\\Velqor\\Lumora Access Agent";

    CollectorStatus Collect(const std::filesystem::path& entryDir,
                            Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return WithinBoundary(
            [&] { return ArchiveKeyDump(keyPath, "lumora-access-agent.txt", Subkeys::Followed, entryDir, zip); },
            [](std::string_view error) {
                return Warned(fmt::format("Failed exporting Lumora Access Agent key {}: {}",
                                          Shared::Util::ToUtf8(keyPath.ToView()), error));
            });
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::Registry
