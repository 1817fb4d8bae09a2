#pragma once

#include <exception>
#include <string>
#include <vector>

#include "agentcore.diagnostics-collectors.h"

namespace CLI {
class App;
}

namespace AgentCLI::Core::Commands::Agent {

/// Filled by the command line.
struct CollectDiagnosticsOptions {
    std::string path;  ///< UTF-8; empty: the archive stays where it is built
    bool log = false;
    bool config = false;
    bool samples = false;
    bool crash = false;
};

/// The steps of a run that failed.
struct Failures {
    std::exception_ptr first;
    std::vector<std::string> texts;
};

/// The command "collect-diagnostics".
class CollectDiagnostics {
public:
    /// Adds the subcommand with its options to "agent"; the options must outlive the parse, which calls Run.
    static void Configure(CLI::App& agent, CollectDiagnosticsOptions& options);

    /// Collects the selected types into "diagnostics.zip" in the current directory, moves it to the given path, and
    /// prints where it is. When sets, the manifest or the report of problems fail, the archive stays in the current
    /// directory with all that the others gave and the log, which names each failure, and the first one is thrown.
    /// Throws std::filesystem::filesystem_error when files cannot be removed or moved, the archive's and the manifest's
    /// exceptions, and what DestinationPath throws before anything is collected. When the console interrupts the run,
    /// what is there is delivered, without the move if the console is closing, and CLI::RuntimeError 1 is thrown.
    static void Run(const CollectDiagnosticsOptions& options);

    /// Runs the sets of the selected types in their fixed order (no flag selects all) and appends their statuses.
    static Failures RunCollectorSets(const CollectDiagnosticsOptions& options,
                                     std::vector<AgentCore::Diagnostics::CollectorStatus>& statuses,
                                     Shared::FileZip::ZipArchiveWrapper& zip);
};

}  // namespace AgentCLI::Core::Commands::Agent
