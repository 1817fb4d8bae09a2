#include <windows.h>

#include <fmt/format.h>

#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-collectors-lacli.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-status.h"
#include "shared.system-installpaths.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

using namespace Collectors::Cmd;
using Shared::Util::ToUtf8Lossy;

template <Shared::Util::FixedString Arguments>
std::wstring ToolCommand() {
    return ToolCommandLine(Arguments);
}

template <class Tool>
CollectorRow ToolRow(std::wstring_view arguments, std::wstring (*command)()) {
    return Row<Tool>(ToUtf8Lossy(arguments),
                     OriginFrom([command] { return ToUtf8Lossy(command()); }, installPathValue));
}

template <Shared::Util::FixedString Arguments, Shared::Util::FixedString FileName>
CollectorRow ToolRow() {
    return ToolRow<CommandToFile<&ToolCommand<Arguments>, FileName, sampleType>>(Arguments, &ToolCommand<Arguments>);
}

// Whether a folder is the root of a drive, a mounted volume or a share, where any user may create folders. True also
// when that cannot be found out.
bool IsVolumeRoot(const std::filesystem::path& folder) {
    std::wstring path = Shared::FileSystem::FullPath(folder).native();
    path.erase(path.find_last_not_of(L'\\') + 1);
    std::wstring root(path.size() + 2, L'\0');
    if (GetVolumePathNameW(path.append(1, L'\\').c_str(), root.data(), static_cast<DWORD>(root.size())) == FALSE) {
        return true;
    }
    root.resize(root.find(L'\0'));
    return Shared::FileSystem::IsSameName(root, path);
}

std::vector<CollectorRow> NotAsked(std::string origin, std::string_view reason) {
    return {MessageRow(sampleType, "lacli.exe", std::move(origin),
                       LogWarningAndReturn(fmt::format("The access agent's tool is not asked: {}", reason)))};
}

std::vector<CollectorRow> ToolSetAt(const std::filesystem::path& tool) {
    using namespace Shared::FileSystem;
    if (QueryStatus(tool, "exists").kind == FileKind::NotFound) {
        return {};
    }
    const std::filesystem::path parent = tool.parent_path().parent_path();
    if (IsVolumeRoot(parent)) {
        return NotAsked(ToUtf8Lossy(tool), fmt::format("any user can create its folder in {}", ToUtf8Lossy(parent)));
    }
    return ToolSet();
}

}  // namespace

std::vector<CollectorRow> ToolSet() {
    return {
        ToolRow<L"epm status", "lacli_epm_status.log">(),
        ToolRow<L"status", "lacli_status.log">(),
        ToolRow<L"traffic log", "lacli_traffic_log.log">(),
        ToolRow<LacliRdnsExport<sampleType>>(rdnsArguments, &RdnsCommandLine),
        ToolRow<L"traffic show", "lacli_traffic_show.log">(),
        ToolRow<L"tunnel", "lacli_tunnel.log">(),
    };
}

std::vector<CollectorRow> InstalledToolSet() {
    std::filesystem::path tool;
    const auto notFound = [](const std::exception& error) {
        return NotAsked(std::string(installPathValue), error.what());
    };
    try {
        tool = Shared::PV::GetLacliPath();
    } catch (const Shared::Exception::Win32Exception& error) {
        return error.Code() == ERROR_FILE_NOT_FOUND ? std::vector<CollectorRow>() : notFound(error);
    } catch (const std::exception& error) {
        return notFound(error);
    }
    return ToolSetAt(tool);
}

}  // namespace AgentCore::Diagnostics
