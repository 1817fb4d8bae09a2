#pragma once

#include <CLI/CLI.hpp>

#include "agentcli-core-collectdiagnostics.h"

namespace AgentCLI::Core {

/// The command tree `AgentCLI agent collect-diagnostics` and its run.
class Application {
public:
    Application();

    /// Parses the UTF-8 arguments, which runs the chosen command. Returns the exit status: 0 on success, the parser's
    /// own code for command-line errors and help, 1 for any other failure, which is printed to standard output.
    int Run(int argc, const char* const* argv);

private:
    Commands::Agent::CollectDiagnosticsOptions options_;
    CLI::App app_;
};

}  // namespace AgentCLI::Core
