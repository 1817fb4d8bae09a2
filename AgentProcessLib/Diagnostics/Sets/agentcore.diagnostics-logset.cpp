#include "agentcore.diagnostics-filerows.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.system-installpaths.h"

namespace AgentCore::Diagnostics {

namespace {

using FileRows::MachineRow;
using FileRows::UserFilesRow;
using FileRows::UserFolderRow;
using Shared::AppSettings::GetAoxmInstallPath;
using Shared::PV::GetDlpLogPath;
using Shared::PV::GetLumoraAccessAgentLogPath;
using Shared::PV::GetPVInstallPath;
using Log = FileRows::Of<logType>;

std::vector<CollectorRow> MachineRows() {
    return {
        MachineRow<Log::Tree<GetAoxmInstallPath, ".log">>(installPathValue),
        MachineRow<Log::Files<GetPVInstallPath, ".log">,           //
                   Log::Files<GetPVInstallPath, ".old">,           //
                   Log::File<GetPVInstallPath, "vq_pv_hrpt.xml">,  //
                   Log::File<GetPVInstallPath, "update_tmp.bat">>(installPathValue),
        MachineRow<Log::Files<GetLumoraAccessAgentLogPath, ".log">,
                   Log::File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.000">,
                   Log::File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.001">,
                   Log::File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.002">,
                   Log::File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.003">,
                   Log::File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.004">,
                   Log::File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.005">>(
            R"(%ProgramData%\Velqor\Lumora Access Agent\Logs)"),
        MachineRow<Log::Tree<GetDlpLogPath, ".txt">>(R"(%ProgramData%\Velqor\DLP\logs)"),
        MachineRow<Log::File<Logs::windowsFolder, "setupapi.log">>(),
        MachineRow<Log::Files<Logs::setupFolder, ".log", "setupapi.dev">,  //
                   Log::Files<Logs::setupFolder, ".log", "setupapi.app">>(),
        MachineRow<Log::File<Logs::system32Folder, "VqPlapApp.log">>(),
    };
}

std::vector<CollectorRow> UserRows(const std::filesystem::path& profile) {
    return {
        UserFolderRow<Log::UserFolder<R"(AppData\Local\Velqor\Lumora Access Agent\Logs)">>(profile),
        UserFilesRow<Log::UserFile<R"(AppData\Local\Velqor\Portavo\VqPVA.log)">,
                     Log::UserFile<R"(AppData\Local\Velqor\Portavo\VqPVA.log.old)">>(profile),
        UserFolderRow<Log::UserFolder<R"(AppData\Local\Velqor\OXM\ViewpaneUI)">>(profile),
        UserFolderRow<Log::UserFolder<R"(AppData\Local\Velqor\OXM\Viewpane)">>(profile),
    };
}

}  // namespace

std::vector<CollectorRow> LogSet() {
    return FileRows::WithUserRows(MachineRows(), logType, &UserRows);
}

}  // namespace AgentCore::Diagnostics
