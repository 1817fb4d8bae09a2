#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "shared.exception.h"
#include "shared.registry-regkey.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

/// Whether a dump includes the subkeys, to any depth.
enum class Subkeys : std::uint8_t { Excluded, Included };

/// The key as text: its name, then, when it has values, its default value and each value as one line. Subkeys follow
/// their key in the registry's order; those of a key without values are left out. Throws what the key's queries throw.
[[nodiscard]] std::wstring DumpKey(Shared::Registry::RegKey key, Subkeys subkeys);

/// Archives the dump of a key of HKEY_LOCAL_MACHINE as a UTF-8 text file with CR LF line ends. Throws when the key
/// cannot be opened (NotFoundException when there is none), read or converted; then nothing is archived.
[[nodiscard]] CollectorStatus ArchiveKeyDump(std::wstring_view keyPath, std::string_view fileName, Subkeys subkeys,
                                             const Destination& destination);

/// "HKLM\{}", the text by which the manifest names a key.
[[nodiscard]] std::string MachineKeyName(std::wstring_view keyPath);

/// Archives the values of one of the monitoring agent's own keys, without its subkeys. A missing key has a message of
/// its own.
template <Shared::Util::FixedString FileName, Shared::Util::FixedString KeyPath, int Type>
class AoxmRegistryKey {
public:
    static constexpr int diagnosticType = Type;

    CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                            Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        const auto path = [] { return Shared::Util::ToUtf8Lossy(std::wstring_view(KeyPath)); };
        return WithinBoundary(
            [&] {
                try {
                    return ArchiveKeyDump(KeyPath, FileName, Subkeys::Excluded, {archiveFolder, zip});
                } catch (const Shared::Exception::NotFoundException&) {
                    return Unsuccessful(LogWarningAndReturn(
                        fmt::format("Not dumping the AOXM registry key {} as it wasn't found.", path())));
                }
            },
            [&path](std::string_view error) {
                return LogWarningAndReturn(fmt::format("Failed exporting AOXM registry key {}: {}", path(), error));
            });
    }
};

/// Archives the access agent's key with all its subkeys. A missing key is a failed export like any other.
template <int Type>
class LumoraAccessAgentRegistryKey {
public:
    static constexpr int diagnosticType = Type;
    static constexpr Shared::Util::FixedString keyPath = L"SOFTWARE\\Velqor\\Lumora Access Agent";

    CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                            Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return WithinBoundary(
            [&] { return ArchiveKeyDump(keyPath, "lumora-access-agent.txt", Subkeys::Included, {archiveFolder, zip}); },
            [](std::string_view error) {
                return LogWarningAndReturn(fmt::format("Failed exporting Lumora Access Agent key {}: {}",
                                                       Shared::Util::ToUtf8Lossy(std::wstring_view(keyPath)), error));
            });
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::Registry
