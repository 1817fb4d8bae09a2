#include "agentcli-core-log.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <cstddef>
#include <utility>

#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"

namespace AgentCLI::Core {

namespace {

constexpr std::size_t maxLogSize = 10240;
constexpr std::size_t rotatedLogs = 1;
constexpr std::chrono::seconds flushInterval{5};

}  // namespace

void SetUpLog() {
    for (const wchar_t* name : {L"agent-cli.log", L"agent-cli.1.log"}) {
        if (Shared::FileSystem::IsLinkOrHardLinked(name)) {
            Shared::FileSystem::FileObjectRemover(name).Clear();
        }
    }
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(SPDLOG_FILENAME_T("agent-cli.log"), maxLogSize,
                                                                       rotatedLogs);
    ProcessLogger() = std::make_shared<spdlog::logger>("default", std::move(sink));
    spdlog::set_default_logger(ProcessLogger());
    spdlog::set_level(spdlog::level::info);
    spdlog::flush_every(flushInterval);
}

std::shared_ptr<spdlog::logger>& ProcessLogger() noexcept {
    static std::shared_ptr<spdlog::logger> logger;
    return logger;
}

}  // namespace AgentCLI::Core
