#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "shared.registry-regkey.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

/// Whether a dump includes the subkeys, to any depth.
enum class Subkeys : std::uint8_t { Left, Followed };

/// The key as text: its name, then, when it has values, its default value and each value as one line. Subkeys follow
/// their key in the registry's order; those of a key without values are left out. Throws what the key's queries throw.
[[nodiscard]] std::wstring DumpKey(Shared::Registry::RegKey key, Subkeys subkeys);

/// Archives the dump of a key of HKEY_LOCAL_MACHINE as a UTF-8 text file with CR LF line ends. Throws when the key
/// cannot be opened (NotFoundException when there is none), read or converted; then nothing is archived.
[[nodiscard]] CollectorStatus ArchiveKeyDump(std::wstring_view keyPath, std::string_view fileName, Subkeys subkeys,
                                             const std::filesystem::path& entryDir,
                                             Shared::FileZip::ZipArchiveWrapper& zip);

/// "HKLM\{}", the text by which the manifest names a key.
[[nodiscard]] std::string MachineKeyName(std::wstring_view keyPath);

/// Logs the message as a warning and returns it.
[[nodiscard]] std::string Warned(std::string message);

}  // namespace AgentCore::Diagnostics::Collectors::Registry
