#include "agentcli-core-collectdiagnostics.h"

#include <windows.h>

#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <filesystem>
#include <iterator>
#include <span>
#include <string_view>

#include "agentcli-core-archivemove.h"
#include "agentcli-core-console.h"
#include "agentcli-core-log.h"
#include "agentcli-core-runfacts.h"
#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-rows.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.concurrency-interrupt.h"
#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"

namespace AgentCLI::Core::Commands::Agent {

namespace fs = std::filesystem;
using AgentCore::Diagnostics::CollectorRow;
using AgentCore::Diagnostics::CollectorStatus;
using Shared::Concurrency::IsConsoleClosing;
using Shared::Concurrency::IsInterrupted;
using Shared::FileZip::ZipArchiveWrapper;

namespace {

constexpr const wchar_t* archiveName = L"diagnostics.zip";

// Twice: another process may create a file of the name between the removal and the creation.
void OpenNew(ZipArchiveWrapper& zip) {
    Shared::FileSystem::RemoveOrThrow(zip.Path());
    try {
        zip.Open(ZipArchiveWrapper::Creation::New);
    } catch (const Shared::Exception::Win32Exception& error) {
        if (error.Code() != ERROR_FILE_EXISTS) {
            throw;
        }
        Shared::FileSystem::RemoveOrThrow(zip.Path());
        zip.Open(ZipArchiveWrapper::Creation::New);
    }
}

struct Set {
    bool isSelected;
    std::string_view name;
    std::vector<CollectorRow> (*rows)();
};

std::vector<CollectorStatus> RunUnder(const ConsoleTitle& title, const Set& set, ZipArchiveWrapper& zip) {
    return AgentCore::Diagnostics::RunSet(set.rows(), zip, [&](const AgentCore::Diagnostics::RowInSet& at) {
        title.Show(fmt::format("AgentCLI: {}, {} of {}: {}", set.name, at.number, at.count, at.row.name));
    });
}

// Runs a step, whatever happened to those before, and keeps its failure.
template <class Step>
void Try(Failures& failures, const Step& step) {
    try {
        step();
    } catch (const std::exception& error) {
        failures.texts.emplace_back(error.what());
        failures.first = failures.first ? failures.first : std::current_exception();
    }
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

void LogProblems(std::span<const CollectorStatus> statuses) {
    if (const std::string report = ProblemReport(statuses); !report.empty()) {
        Shared::Exception::LogInfo("Collectors reported the following warnings or errors: \n{}", report);
    }
}

::Diagnostics::Run FactsNow() {
    ::Diagnostics::Run facts = RunFacts();
    facts.set_interrupted(IsInterrupted());
    return facts;
}

void AddLog(ZipArchiveWrapper& zip) {
    if (const auto& logger = ProcessLogger()) {
        logger->flush();
    }
    Shared::FileSystem::RenewSharedWait();
    // Without its own log the archive is still worth having.
    static_cast<void>(zip.AddFile("agent-cli.log", L"agent-cli.log"));
}

fs::path Absolute(const fs::path& path) {
    try {
        return Shared::FileSystem::FullPath(path);
    } catch (const Shared::Exception::Win32Exception& error) {
        Shared::FileSystem::ThrowFileSystemError("absolute", path, error.Code());
    }
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

Failures CollectDiagnostics::RunCollectorSets(const CollectDiagnosticsOptions& options,
                                              std::vector<CollectorStatus>& statuses, ZipArchiveWrapper& zip) {
    using namespace AgentCore::Diagnostics;
    const bool all = !options.log && !options.config && !options.samples && !options.crash;
    const Set sets[] = {
        {all || options.log, "logs", &LogSet},
        {all || options.config, "configuration", &ConfigurationSet},
        {all || options.samples, "samples", &SampleSet},
        {all || options.samples, "access agent", &InstalledToolSet},
        {all || options.crash, "crash reports", &CrashReportSet},
    };
    const ConsoleTitle title;
    Failures failures;
    for (const Set& set : sets) {
        if (set.isSelected) {
            Try(failures, [&] { std::ranges::move(RunUnder(title, set, zip), std::back_inserter(statuses)); });
        }
    }
    return failures;
}

void CollectDiagnostics::Run(const CollectDiagnosticsOptions& options) {
    const Shared::Concurrency::InterruptWatch watch;
    const fs::path destination = options.path.empty() ? fs::path() : DestinationPath(options.path);
    ZipArchiveWrapper zip{archiveName};
    OpenNew(zip);

    std::vector<CollectorStatus> statuses;
    Failures failures = RunCollectorSets(options, statuses, zip);
    Try(failures, [&] { AgentCore::Diagnostics::WriteManifest(statuses, zip, FactsNow()); });
    Try(failures, [&] { LogProblems(statuses); });
    // Last, because a long report may move what was logged before it to the rotated log.
    for (const std::string& text : failures.texts) {
        Shared::Exception::LogError("{}", text);
    }
    AddLog(zip);
    if (failures.first) {
        std::rethrow_exception(failures.first);
    }

    // A closing console leaves no time for the copy.
    if (!destination.empty() && !IsConsoleClosing()) {
        MoveArchive(zip, destination);
    }
    Print(stdout, "Diagnostics zip located at: {}\n", Shared::Util::ToUtf8Lossy(Absolute(zip.Path())));
    if (IsInterrupted()) {
        // The exit status alone: the parser prints nothing for this one.
        throw CLI::RuntimeError(1);
    }
}

}  // namespace AgentCLI::Core::Commands::Agent
