#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Shared::PV {

/// The access agent's command-line tool, which lies in a folder beside the monitoring agent's; whether it is there is
/// not asked. Throws as AppSettings::GetAoxmInstallPath() does.
[[nodiscard]] std::filesystem::path GetLacliPath();

}  // namespace Shared::PV

namespace AgentCore::Diagnostics {

/// "\"{}\" {}" of the tool's path and the arguments. Throws as GetLacliPath() does.
[[nodiscard]] std::wstring ToolCommandLine(std::wstring_view arguments);

}  // namespace AgentCore::Diagnostics
