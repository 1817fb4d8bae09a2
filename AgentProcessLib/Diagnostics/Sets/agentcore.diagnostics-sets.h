#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

#include "agentcore.diagnostics-rows.h"
#include "shared.filesystem-sourcefolder.h"
#include "shared.util-fixedstring.h"

// The collector sets: each function returns the table of a set's rows, in run order.

namespace AgentCore::Diagnostics::Logs {

/// Folders that are the same on every machine.
inline constexpr auto windowsFolder = [] { return std::filesystem::path(LR"(C:\WINDOWS)"); };
inline constexpr auto system32Folder = [] { return std::filesystem::path(LR"(C:\WINDOWS\system32)"); };
inline constexpr Shared::Util::FixedString setupFolder = LR"(C:\WINDOWS\inf)";

}  // namespace AgentCore::Diagnostics::Logs

template <>
struct Shared::FileSystem::TrustOf<AgentCore::Diagnostics::Logs::windowsFolder> : TrustedFolder {};
template <>
struct Shared::FileSystem::TrustOf<AgentCore::Diagnostics::Logs::system32Folder> : TrustedFolder {};
template <>
struct Shared::FileSystem::TrustOf<AgentCore::Diagnostics::Logs::setupFolder> : TrustedFolder {};

namespace AgentCore::Diagnostics {

/// The origin of rows whose folder comes from this value, when it cannot be read.
inline constexpr std::string_view installPathValue = R"(HKLM\SOFTWARE\Velqor\OXM\Path)";

/// The machine's logs, then four rows for each profile folder.
[[nodiscard]] std::vector<CollectorRow> LogSet();

/// The registry state of the VPN client, the monitoring agent and the access agent.
[[nodiscard]] std::vector<CollectorRow> ConfigurationSet();

/// What the system's own commands say about the machine, and its network bindings. The name and the origin of a
/// command's row are the command.
[[nodiscard]] std::vector<CollectorRow> SampleSet();

/// What the access agent's tool says about its state. A row's name is the arguments, its origin the command line.
[[nodiscard]] std::vector<CollectorRow> ToolSet();

/// ToolSet where the tool is installed, and nothing where the monitoring agent's registry record or the tool is
/// missing. When the tool's path cannot be told, or when any user could have created the tool, one row says why it is
/// not asked. Throws std::filesystem::filesystem_error of the operation "exists" when the tool's status cannot be
/// queried.
[[nodiscard]] std::vector<CollectorRow> InstalledToolSet();

/// The machine's crash dumps, then two rows for each profile folder.
[[nodiscard]] std::vector<CollectorRow> CrashReportSet();

}  // namespace AgentCore::Diagnostics
