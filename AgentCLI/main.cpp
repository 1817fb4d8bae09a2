#include <spdlog/spdlog.h>

#include <exception>

#include "agentcli-core-log.h"
#include "agentcli-core-process.h"
#include "agentcli-core.h"
#include "shared.exception-guardedlog.h"

int main(int argc, const char* argv[]) try {
    int result = 0;
    AgentCLI::Core::PrepareProcess();
    AgentCLI::Core::SetUpLog();
    {
        const AgentCLI::Core::Utf8Arguments arguments(argc, argv);
        AgentCLI::Core::Application application;
        result = application.Run(arguments.Count(), arguments.Values());
    }
    spdlog::shutdown();
    return result;
} catch (const std::exception& error) {
    using Shared::Exception::LogError;  // support finds the next line by its number: keep it on line 23
    LogError("CLI failed with error: {}", error.what());
    spdlog::shutdown();
    return 1;
}
