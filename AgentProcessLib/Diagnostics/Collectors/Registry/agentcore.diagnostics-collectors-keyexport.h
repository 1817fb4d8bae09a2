#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

// Keys of HKEY_LOCAL_MACHINE as UTF-8 text files with CR LF line ends: the key's name, then, when it has values, its
// default value and each value as one line. A key that cannot be opened, read or converted is a failure, of which
// nothing is archived.

/// Archives the values of one of the monitoring agent's own keys, without its subkeys. A missing key has a message of
/// its own.
[[nodiscard]] CollectorStatus CollectAgentKey(std::wstring_view keyPath, std::string_view fileName,
                                              const Destination& destination) noexcept;

inline constexpr Shared::Util::FixedString accessAgentKey = L"SOFTWARE\\Velqor\\Lumora Access Agent";

/// Archives the access agent's key. Subkeys follow their key in the registry's order; those of a key without values are
/// left out. A missing key is a failed export like any other.
[[nodiscard]] CollectorStatus CollectAccessAgentKey(const Destination& destination) noexcept;

/// "HKLM\{}", the text by which the manifest names a key.
[[nodiscard]] std::string MachineKeyName(std::wstring_view keyPath);

template <Shared::Util::FixedString FileName, Shared::Util::FixedString KeyPath, int Type>
struct AoxmRegistryKey {
    static constexpr int diagnosticType = Type;

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return CollectAgentKey(KeyPath, FileName, {archiveFolder, zip});
    }
};

template <int Type>
struct LumoraAccessAgentRegistryKey : FunctionCollector<&CollectAccessAgentKey, Type> {
    static constexpr auto keyPath = accessAgentKey;
};

}  // namespace AgentCore::Diagnostics::Collectors::Registry
