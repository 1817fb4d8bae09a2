#include "agentcore.diagnostics-filerows.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.system-installpaths.h"

namespace AgentCore::Diagnostics {

namespace {

using Shared::AppSettings::GetAoxmInstallPath;
using Shared::PV::GetPVInstallPath;
using Crash = FileRows::Of<crashReportType>;

std::vector<CollectorRow> MachineRows() {
    return {
        FileRows::MachineRow<Crash::File<GetPVInstallPath, "VqPVS.dmp">>(installPathValue),
        FileRows::MachineRow<Crash::Tree<GetAoxmInstallPath, ".dmp">>(installPathValue),
    };
}

std::vector<CollectorRow> UserRows(const std::filesystem::path& profile) {
    return {
        FileRows::UserFilesRow<Crash::UserFile<"VqPVS.dmp">, Crash::UserFile<"VqPVA.dmp">>(profile),
        FileRows::UserFilesRow<Crash::UserFile<R"(AppData\Local\Velqor\Portavo\VqPVA.dmp)">>(profile),
    };
}

}  // namespace

std::vector<CollectorRow> CrashReportSet() {
    return FileRows::WithUserRows(MachineRows(), crashReportType, &UserRows);
}

}  // namespace AgentCore::Diagnostics
