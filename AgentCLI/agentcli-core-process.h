#pragma once

#include <spdlog/logger.h>

#include <memory>
#include <string>
#include <vector>

namespace AgentCLI::Core {

/// Settles, before anything else runs, where this process and its children look for programs and libraries: never in
/// the current directory and never along a path that a user has set. Also keeps error dialogs from waiting for a user
/// who is not there. Everything here is best effort.
void PrepareProcess() noexcept;

/// Makes the logger "default" on the rotating file "agent-cli.log" (10240 bytes, 1 rotated file) in the current
/// directory, spdlog's default logger, at level info, flushed every 5 seconds. A link that bears one of the log's names
/// is removed first, so that nothing is written through it. Throws spdlog::spdlog_ex when the file cannot be opened.
void SetUpLog();

/// The process-wide logger; null before SetUpLog.
[[nodiscard]] std::shared_ptr<spdlog::logger>& ProcessLogger() noexcept;

/// The process's arguments as UTF-8, whatever its code page is.
class Utf8Arguments {
public:
    /// Reads the process's wide command line; the given arguments serve when it cannot be split.
    Utf8Arguments(int count, const char* const* values);
    [[nodiscard]] int Count() const noexcept { return static_cast<int>(pointers_.size()) - 1; }
    [[nodiscard]] const char* const* Values() const noexcept { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<const char*> pointers_;
};

}  // namespace AgentCLI::Core
