#include "agentcli-core-log.h"

#include <spdlog/spdlog.h>

#include <chrono>
#include <cstddef>
#include <utility>

#include "agentcli-core-logsink.h"
#include "agentcli-core-process.h"

namespace AgentCLI::Core {

namespace {

constexpr std::size_t maxLogSize = 10240;
constexpr std::chrono::seconds flushInterval{5};

}  // namespace

void SetUpLog() {
    // Until then the library's own logger prints to standard output: nothing but the failure that ends the program.
    spdlog::set_level(spdlog::level::err);
    auto sink = std::make_shared<LogSink>(SPDLOG_FILENAME_T("agent-cli.log"), maxLogSize,
                                          IsElevated() ? spdlog::level::info : spdlog::level::warn, DescribeProcess());
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
