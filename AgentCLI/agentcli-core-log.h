#pragma once

#include <spdlog/logger.h>

#include <memory>

namespace AgentCLI::Core {

/// Makes the logger "default" on the rotating file "agent-cli.log" (10240 bytes, 1 rotated file) in the current
/// directory, spdlog's default logger, at level info, flushed every 5 seconds; see LogSink. Its first line describes
/// the process. Throws spdlog::spdlog_ex when the file cannot be opened.
void SetUpLog();

/// The process-wide logger; null before SetUpLog.
[[nodiscard]] std::shared_ptr<spdlog::logger>& ProcessLogger() noexcept;

}  // namespace AgentCLI::Core
