#pragma once

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "shared.util-handle.h"

namespace AgentCLI::Core {

/// A rotating file sink (1 rotated file) for a file in a folder to which unprivileged users may write. The file is for
/// the administrator alone; what an earlier run has left in it is kept. When the file cannot be rotated or opened,
/// lines are dropped until it can be again: that is tried every two seconds.
class LogSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    /// Throws spdlog::spdlog_ex when the file cannot be opened.
    LogSink(spdlog::filename_t name, std::size_t maxSize, spdlog::level::level_enum headingLevel, std::string heading);

protected:
    void sink_it_(const spdlog::details::log_msg& message) override;
    void flush_() override;

private:
    void Open();
    void WriteHeading(std::FILE* file);
    [[nodiscard]] bool IsOpen();
    template <class Write>
    [[nodiscard]] bool Try(const Write& write);

    spdlog::filename_t name_;
    std::size_t maxSize_;
    std::string headingText_;
    spdlog::details::log_msg heading_;
    bool hasHeading_ = false;
    /// Keeps the checked file under its name until the library has opened it.
    Shared::Util::FileHandle checked_;
    /// Null while the file cannot be opened.
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> file_;
    std::chrono::steady_clock::time_point openAgain_;
};

}  // namespace AgentCLI::Core
