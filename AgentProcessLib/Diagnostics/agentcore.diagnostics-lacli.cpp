#include "agentcore.diagnostics-lacli.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include "shared.system-installpaths.h"

namespace Shared::PV {

std::filesystem::path GetLacliPath() {
    return AppSettings::GetAoxmInstallPath().parent_path() / L"Lumora Access Agent" / L"lacli.exe";
}

}  // namespace Shared::PV

namespace AgentCore::Diagnostics {

std::wstring ToolCommandLine(std::wstring_view arguments) {
    return fmt::format(L"\"{}\" {}", Shared::PV::GetLacliPath().native(), arguments);
}

}  // namespace AgentCore::Diagnostics
