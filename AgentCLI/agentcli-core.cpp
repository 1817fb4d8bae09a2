#include "agentcli-core.h"

#include <exception>
#include <iostream>

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
        return app_.exit(error, std::cout, std::cerr);
    } catch (const std::exception& error) {
        Print("Unexpected error: {}", error.what());
        Shared::Exception::LogError("{}", error.what());
        return 1;
    }
}

}  // namespace AgentCLI::Core
