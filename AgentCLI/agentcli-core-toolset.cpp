#include "agentcli-core-toolset.h"

#include <windows.h>

#include <fmt/format.h>

#include <expected>
#include <filesystem>
#include <string>
#include <utility>

#include "agentcore.diagnostics-sets.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-status.h"
#include "shared.system-installpaths.h"
#include "shared.util-functions.h"

namespace AgentCLI::Core::Commands::Agent {

namespace fs = std::filesystem;
using AgentCore::Diagnostics::CollectorRow;

namespace {

/// The tool's path, an empty one without the monitoring agent's registry record, or why the path cannot be had.
std::expected<fs::path, std::string> FindTool() {
    try {
        return Shared::PV::GetLacliPath();
    } catch (const Shared::Exception::Win32Exception& error) {
        if (error.Code() == ERROR_FILE_NOT_FOUND) {
            return fs::path();
        }
        return std::unexpected(error.what());
    } catch (const std::exception& error) {
        return std::unexpected(error.what());
    }
}

/// Whether a folder is the root of a drive, a mounted volume or a share, where any user may create folders.
bool IsVolumeRoot(const fs::path& folder) {
    std::wstring path = Shared::FileSystem::FullPath(folder).native();
    path.erase(path.find_last_not_of(L'\\') + 1);
    std::wstring root(path.size() + 2, L'\0');
    if (GetVolumePathNameW(path.append(1, L'\\').c_str(), root.data(), static_cast<DWORD>(root.size())) == FALSE) {
        return true;
    }
    root.resize(root.find(L'\0'));
    return Shared::FileSystem::IsSameName(root, path);
}

CollectorRow NotAsked(std::string origin, std::string_view reason) {
    std::string message =
        AgentCore::Diagnostics::LogWarningAndReturn(fmt::format("The access agent's tool is not asked: {}", reason));
    return {.type = AgentCore::Diagnostics::sampleType,
            .name = "lacli.exe",
            .origin = [origin = std::move(origin)] { return origin; },
            .collectors = {[message = std::move(message)](const auto&, auto&) {
                return AgentCore::Diagnostics::Unsuccessful(message);
            }}};
}

}  // namespace

std::vector<CollectorRow> InstalledToolSet() {
    const auto tool = FindTool();
    if (!tool) {
        return {NotAsked(R"(HKLM\SOFTWARE\Velqor\OXM\Path)", tool.error())};
    }
    if (tool->empty() ||
        Shared::FileSystem::QueryStatus(*tool, "exists").kind == Shared::FileSystem::FileKind::NotFound) {
        return {};
    }
    const fs::path parent = tool->parent_path().parent_path();
    if (IsVolumeRoot(parent)) {
        return {NotAsked(Shared::Util::ToUtf8Lossy(*tool),
                         fmt::format("any user can create its folder in {}", Shared::Util::ToUtf8Lossy(parent)))};
    }
    return AgentCore::Diagnostics::ToolSet();
}

}  // namespace AgentCLI::Core::Commands::Agent
