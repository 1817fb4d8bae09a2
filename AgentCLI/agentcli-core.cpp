#include "agentcli-core.h"

#include <exception>
#include <sstream>

#include "agentcli-core-console.h"
#include "shared.exception-guardedlog.h"

namespace AgentCLI::Core {

Application::Application() : app_("", "AgentCLI") {
    app_.set_help_flag("-h,--help", "Print this help message and exit");
    app_.require_subcommand(1, 1);
    CLI::App& agent = *app_.add_subcommand("agent", "");
    agent.require_subcommand(1, 1);
    Commands::Agent::CollectDiagnostics::Configure(agent, options_);
}

int Application::Run(int argc, const char* const* argv) {
    try {
        app_.parse(argc, argv);
        return 0;
    } catch (const CLI::ParseError& error) {
        // The streams of the standard library would show a console their bytes in its own code page.
        std::ostringstream output;
        std::ostringstream errors;
        const int status = app_.exit(error, output, errors);
        Print(stdout, "{}", output.str());
        Print(stderr, "{}", errors.str());
        return status;
    } catch (const std::exception& error) {
        Print(stdout, "Unexpected error: {}", error.what());
        Shared::Exception::LogError("{}", error.what());
        return 1;
    }
}

}  // namespace AgentCLI::Core
