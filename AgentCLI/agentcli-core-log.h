#pragma once

#include <spdlog/logger.h>

#include <memory>

namespace AgentCLI::Core {

/// Makes the logger "default" on the rotating file "agent-cli.log" (10240 bytes, 1 rotated file) in the current
/// directory, spdlog's default logger, at level info, flushed every 5 seconds. The first line of the run describes it.
///
/// At every opening, also at a rotation, the file is replaced by a private one with the last lines of its text, at most
/// 10240 bytes. Of a link, of a file with a second hard link, and of one whose content is stored elsewhere nothing is
/// kept. When the file cannot be replaced or opened later, lines are dropped until it can be: that is tried every two
/// seconds. What is logged during a replacement is dropped as well.
///
/// Throws spdlog::spdlog_ex when the file cannot be replaced, which leaves it as it is (a link may be removed), or
/// cannot be opened.
void SetUpLog();

/// The process-wide logger; null before SetUpLog.
[[nodiscard]] std::shared_ptr<spdlog::logger>& ProcessLogger() noexcept;

}  // namespace AgentCLI::Core
