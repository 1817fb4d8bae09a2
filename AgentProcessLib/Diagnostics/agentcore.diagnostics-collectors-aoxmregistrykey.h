#pragma once

#include <fmt/format.h>

#include <filesystem>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "agentcore.diagnostics-keydump.h"
#include "shared.exception.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

/// Archives the values of one of the monitoring agent's own keys, without its subkeys. A missing key has a message of
/// its own.
template <Shared::Util::FixedString FileName, Shared::Util::FixedString KeyPath, int Type>
class AoxmRegistryKey {
public:
    static constexpr int type = Type;

    CollectorStatus Collect(const std::filesystem::path& entryDir,
                            Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return WithinBoundary(
            [&] {
                try {
                    return ArchiveKeyDump(KeyPath, FileName, Subkeys::Left, entryDir, zip);
                } catch (const Shared::Exception::NotFoundException&) {
                    return Unsuccessful(Warned(fmt::format("Not dumping the AOXM registry key {} as it wasn't found.",
                                                           Shared::Util::ToUtf8(KeyPath.ToView()))));
                }
            },
            [](std::string_view error) {
                return Warned(fmt::format("Failed exporting AOXM registry key {}: {}",
                                          Shared::Util::ToUtf8(KeyPath.ToView()), error));
            });
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::Registry
