#pragma once

#include <filesystem>

#include "shared.filesystem-sourcefolder.h"

// Where the monitoring agent and the products beside it keep their files. The install folders come from the registry:
// Registry::RegistryException when the agent's key or value is not there, RuntimeException "The install path '{}' is
// not absolute." when the value is relative to the current directory.

namespace Shared::AppSettings {

/// The monitoring agent's install folder, without trailing backslashes.
[[nodiscard]] std::filesystem::path GetAoxmInstallPath();

}  // namespace Shared::AppSettings

namespace Shared::PV {

/// The VPN client's install folder, a neighbour of the agent's.
[[nodiscard]] std::filesystem::path GetPVInstallPath();

/// The access agent's command-line tool, in a folder beside the monitoring agent's; whether it exists is not asked.
[[nodiscard]] std::filesystem::path GetLacliPath();

/// The access agent's log folder. Throws ComException when there is no ProgramData folder.
[[nodiscard]] std::filesystem::path GetLumoraAccessAgentLogPath();

/// The log folder of data-loss prevention. Throws ComException when there is no ProgramData folder.
[[nodiscard]] std::filesystem::path GetDlpLogPath();

}  // namespace Shared::PV

namespace Shared::FileSystem {

template <>
struct TrustOf<&AppSettings::GetAoxmInstallPath> : TrustedFolder {};
template <>
struct TrustOf<&PV::GetPVInstallPath> : TrustedFolder {};
/// By default every user may create files and folders below ProgramData, which these folders are three levels below.
struct ProgramDataFolder {
    [[nodiscard]] static SourceFolder Source(const std::filesystem::path& folder) {
        return SourceFolder::Confined(folder.parent_path().parent_path().parent_path(), folder);
    }
};
template <>
struct TrustOf<&PV::GetLumoraAccessAgentLogPath> : ProgramDataFolder {};
template <>
struct TrustOf<&PV::GetDlpLogPath> : ProgramDataFolder {};

}  // namespace Shared::FileSystem
