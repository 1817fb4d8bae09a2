#include "agentcore.diagnostics-crashset.h"

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
using Shared::AppSettings::GetAoxmInstallPath;
using Shared::PV::GetPVInstallPath;
using Shared::Util::FixedString;

template <auto provider, FixedString name>
using File = Collectors::FileSystem::FileCopier<provider, name, crashReportType>;
template <auto folder, FixedString extension>
using Tree = Collectors::FileSystem::ExtensionCopier<folder, extension, "", true, crashReportType>;
template <FixedString relativePath>
using UserFile = Collectors::FileSystem::UserFileCopier<relativePath, crashReportType>;

}  // namespace

std::vector<CollectorRow> CrashReportSet(std::span<const std::filesystem::path> profiles) {
    std::vector<CollectorRow> rows{
        MachineRow<File<GetPVInstallPath, "VqPVS.dmp">>(),
        MachineRow<Tree<GetAoxmInstallPath, ".dmp">>(),
    };
    for (const std::filesystem::path& profile : profiles) {
        rows.push_back(UserFilesRow<UserFile<"VqPVS.dmp">, UserFile<"VqPVA.dmp">>(profile));
        rows.push_back(UserFilesRow<UserFile<R"(AppData\Local\Velqor\Portavo\VqPVA.dmp)">>(profile));
    }
    return rows;
}

std::vector<CollectorRow> CrashReportSet() {
    return CrashReportSet(FileRows::Profiles());
}

}  // namespace AgentCore::Diagnostics
