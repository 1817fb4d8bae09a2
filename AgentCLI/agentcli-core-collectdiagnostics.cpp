#include "agentcli-core-collectdiagnostics.h"

#include <windows.h>

#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <iterator>
#include <optional>
#include <span>
#include <system_error>
#include <utility>

#include "agentcli-core-console.h"
#include "agentcli-core-log.h"
#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-set.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.system-installpaths.h"
#include "shared.util-functions.h"

namespace AgentCLI::Core::Commands::Agent {

namespace fs = std::filesystem;
using AgentCore::Diagnostics::CollectorRow;
using AgentCore::Diagnostics::CollectorStatus;
using Shared::FileZip::ZipArchiveWrapper;

namespace {

constexpr const wchar_t* archiveName = L"diagnostics.zip";

void Append(std::vector<CollectorStatus>& statuses, const std::vector<CollectorRow>& rows, ZipArchiveWrapper& zip) {
    std::ranges::move(AgentCore::Diagnostics::RunSet(rows, zip), std::back_inserter(statuses));
}

// The access agent's tool lies beside the monitoring agent, so without that agent's registry record there is none.
std::optional<fs::path> FindTool() {
    try {
        return Shared::PV::GetLacliPath();
    } catch (const Shared::Exception::Win32Exception& error) {
        if (error.Code() != ERROR_FILE_NOT_FOUND) {
            Shared::Exception::LogWarning("Skipping the access agent's tool: {}", error.what());
        }
    } catch (const std::exception& error) {
        Shared::Exception::LogWarning("Skipping the access agent's tool: {}", error.what());
    }
    return std::nullopt;
}

bool ToolIsInstalled() {
    const std::optional<fs::path> tool = FindTool();
    return tool && Shared::FileSystem::QueryStatus(*tool, "exists").kind != Shared::FileSystem::FileKind::NotFound;
}

std::string ProblemReport(std::span<const CollectorStatus> statuses) {
    std::string report;
    for (const CollectorStatus& status : statuses) {
        if (!status.errors.empty()) {
            report += fmt::format("{}\n", fmt::join(status.errors, "\n"));
        }
    }
    return report;
}

void MoveArchive(ZipArchiveWrapper& zip, const fs::path& destination) {
    zip.Close();
    const fs::path source = zip.Path();
    // Copying a file onto itself would empty it, and removing the source would lose it.
    if (!Shared::FileSystem::IsSameFile(source, destination)) {
        // The archive takes the name itself, not what a link to a file points to. A folder stays, linked or not: the
        // copy then fails, as it should.
        const DWORD attributes = GetFileAttributesW(Shared::FileSystem::LongForm(destination).c_str());
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 && Shared::FileSystem::IsLinkOrHardLinked(destination)) {
            Shared::FileSystem::FreeName(destination);
        }
        if (CopyFileW(Shared::FileSystem::LongForm(source).c_str(), Shared::FileSystem::LongForm(destination).c_str(),
                      FALSE) == FALSE) {
            Shared::FileSystem::ThrowFileSystemError("copy_file", destination, GetLastError());
        }
        Shared::FileSystem::FreeName(source);
    }
    zip.SetPath(destination);
    zip.Open();
}

fs::path Absolute(const fs::path& path) {
    if (Shared::FileSystem::IsAbsolute(path)) {
        return fs::path(path).make_preferred();
    }
    std::error_code error;
    fs::path absolute = fs::absolute(path, error);
    if (error) {
        throw fs::filesystem_error("absolute", path, error);
    }
    return absolute;
}

}  // namespace

void CollectDiagnostics::Configure(CLI::App& agent, CollectDiagnosticsOptions& options) {
    CLI::App& command = *agent.add_subcommand(
        "collect-diagnostics", "Collects diagnostics. Specify the type or none to collect all diagnostic types.");
    command.add_option("--path,-p", options.path,
                       "The path to copy the output to. If only a name is specified, the generated zip will be moved "
                       "to the specified name on the filesystem.");
    command.add_flag("-l,--log", options.log, "Collect log diagnostics.");
    command.add_flag("-c,--crash", options.crash, "Collect crash diagnostics.");
    command.add_flag("-s,--samples", options.samples, "Collect sample diagnostics.");
    command.add_flag("-o,--config", options.config, "Collect config diagnostics.");
    command.callback([&options] { Run(options); });
}

void CollectDiagnostics::RunCollectorSets(const CollectDiagnosticsOptions& options,
                                          std::vector<CollectorStatus>& statuses, ZipArchiveWrapper& zip) {
    using namespace AgentCore::Diagnostics;
    const bool all = !options.log && !options.config && !options.samples && !options.crash;
    if (all || options.log) {
        Append(statuses, LogSet(), zip);
    }
    if (all || options.config) {
        Append(statuses, ConfigurationSet(), zip);
    }
    if (all || options.samples) {
        Append(statuses, SampleSet(), zip);
        if (ToolIsInstalled()) {
            Append(statuses, ToolSet(), zip);
        }
    }
    if (all || options.crash) {
        Append(statuses, CrashReportSet(), zip);
    }
}

void CollectDiagnostics::Run(const CollectDiagnosticsOptions& options) {
    Shared::FileSystem::FreeName(archiveName);
    ZipArchiveWrapper zip{archiveName};
    zip.Open();

    std::vector<CollectorStatus> statuses;
    RunCollectorSets(options, statuses, zip);
    AgentCore::Diagnostics::WriteManifest(statuses, zip);

    if (const std::string report = ProblemReport(statuses); !report.empty()) {
        Shared::Exception::LogInfo("Collectors reported the following warnings or errors: \n{}", report);
    }
    if (const auto& logger = ProcessLogger()) {
        logger->flush();
    }
    // Without its own log the archive is still worth having.
    static_cast<void>(zip.AddFile("agent-cli.log", L"agent-cli.log"));

    if (!options.path.empty()) {
        MoveArchive(zip, Shared::Util::PathFromUtf8(options.path));
    }
    Print("Diagnostics zip located at: {}\n", Shared::Util::ToUtf8Lossy(Absolute(zip.Path())));
}

}  // namespace AgentCLI::Core::Commands::Agent
