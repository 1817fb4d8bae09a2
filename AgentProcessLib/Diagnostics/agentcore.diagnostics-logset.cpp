#include "agentcore.diagnostics-logset.h"

#include "agentcore.diagnostics-collectors-extensioncopier.h"
#include "agentcore.diagnostics-collectors-filecopier.h"
#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "agentcore.diagnostics-filerows.h"
#include "shared.system-installpaths.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics {

namespace {

using FileRows::MachineRow;
using FileRows::UserFilesRow;
using FileRows::UserFolderRow;
using Shared::AppSettings::GetAoxmInstallPath;
using Shared::PV::GetDlpLogPath;
using Shared::PV::GetLumoraAccessAgentLogPath;
using Shared::PV::GetPVInstallPath;
using Shared::Util::FixedString;

template <auto provider, FixedString name>
using File = Collectors::FileSystem::FileCopier<provider, name, logType>;
template <auto folder, FixedString extension, FixedString namePrefix = "">
using Files = Collectors::FileSystem::ExtensionCopier<folder, extension, namePrefix, false, logType>;
template <auto folder, FixedString extension>
using Tree = Collectors::FileSystem::ExtensionCopier<folder, extension, "", true, logType>;
template <FixedString relativePath>
using UserFile = Collectors::FileSystem::UserFileCopier<relativePath, logType>;

}  // namespace

std::vector<CollectorRow> LogSet(std::span<const std::filesystem::path> profiles) {
    std::vector<CollectorRow> rows{
        MachineRow<Tree<GetAoxmInstallPath, ".log">>(),
        MachineRow<Files<GetPVInstallPath, ".log">,           //
                   Files<GetPVInstallPath, ".old">,           //
                   File<GetPVInstallPath, "vq_pv_hrpt.xml">,  //
                   File<GetPVInstallPath, "update_tmp.bat">>(),
        MachineRow<Files<GetLumoraAccessAgentLogPath, ".log">,
                   File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.000">,
                   File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.001">,
                   File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.002">,
                   File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.003">,
                   File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.004">,
                   File<GetLumoraAccessAgentLogPath, "LumoraAccessAgentLog.etl.005">>(),
        MachineRow<Tree<GetDlpLogPath, ".txt">>(),
        MachineRow<File<Logs::windowsFolder, "setupapi.log">>(),
        MachineRow<Files<FixedString(LR"(C:\WINDOWS\inf)"), ".log", "setupapi.dev">,
                   Files<FixedString(LR"(C:\WINDOWS\inf)"), ".log", "setupapi.app">>(),
        MachineRow<File<Logs::system32Folder, "VqPlapApp.log">>(),
    };
    for (const std::filesystem::path& profile : profiles) {
        rows.push_back(UserFolderRow<UserFile<R"(AppData\Local\Velqor\Lumora Access Agent\Logs)">>(profile));
        rows.push_back(UserFilesRow<UserFile<R"(AppData\Local\Velqor\Portavo\VqPVA.log)">,
                                    UserFile<R"(AppData\Local\Velqor\Portavo\VqPVA.log.old)">>(profile));
        rows.push_back(UserFolderRow<UserFile<R"(AppData\Local\Velqor\OXM\ViewpaneUI)">>(profile));
        rows.push_back(UserFolderRow<UserFile<R"(AppData\Local\Velqor\OXM\Viewpane)">>(profile));
    }
    return rows;
}

std::vector<CollectorRow> LogSet() {
    return LogSet(FileRows::Profiles());
}

}  // namespace AgentCore::Diagnostics
