#pragma once

#include <fmt/format.h>
#include <spdlog/common.h>

#include <concepts>
#include <cstdint>
#include <source_location>
#include <string_view>

namespace Shared::Exception {

/// A format string together with the place of the log call, captured by implicit conversion.
struct LogFormat {
    template <class Text>
        requires std::convertible_to<const Text&, std::string_view>
    LogFormat(const Text& format,  // NOLINT(google-explicit-constructor): the conversion is the point
              const std::source_location& where = std::source_location::current())
        : text(format), location(where) {}

    std::string_view text;
    std::source_location location;
};

/// How the place of the call appears in the line.
enum class LogPlace : std::uint8_t {
    None,    ///< the message alone
    Prefix,  ///< "Error in function {}() of file {}:{}:{} ---> {}"
    Suffix,  ///< "{} [{}({})]" of (message, file, line)
};

/// Formats and logs to the default logger. A faulty format never ends the program: it is reported in the log as
/// "GuardedLog() [1] failed formatting log at: {}:{}:{}:{}" (file, line, column, function). Does nothing without a
/// default logger. Throws only what spdlog re-throws: an exception of unknown type raised inside the logger.
void GuardedLog(spdlog::level::level_enum level, LogPlace place, const LogFormat& format, fmt::format_args arguments);

template <class... Args>
void LogError(const LogFormat& format, const Args&... arguments) {
    GuardedLog(spdlog::level::err, LogPlace::Prefix, format, fmt::make_format_args(arguments...));
}
template <class... Args>
void LogWarning(const LogFormat& format, const Args&... arguments) {
    GuardedLog(spdlog::level::warn, LogPlace::None, format, fmt::make_format_args(arguments...));
}
template <class... Args>
void LogInfo(const LogFormat& format, const Args&... arguments) {
    GuardedLog(spdlog::level::info, LogPlace::None, format, fmt::make_format_args(arguments...));
}
/// As LogInfo, with the place of the call behind the message.
template <class... Args>
void LogInfoAt(const LogFormat& format, const Args&... arguments) {
    GuardedLog(spdlog::level::info, LogPlace::Suffix, format, fmt::make_format_args(arguments...));
}

}  // namespace Shared::Exception
