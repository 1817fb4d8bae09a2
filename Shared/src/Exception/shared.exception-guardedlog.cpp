#include "shared.exception-guardedlog.h"

#include <spdlog/spdlog.h>

#include <memory>
#include <string>

#include "shared.exception-text.h"

namespace Shared::Exception {

namespace {

std::string Compose(LogPlace place, const LogFormat& format, fmt::format_args arguments) {
    const std::source_location& where = format.location;
    std::string message = fmt::vformat(format.text, arguments);
    switch (place) {
        case LogPlace::Prefix:
            return fmt::format("Error in function {}() of file {}:{}:{} ---> {}", where.function_name(),
                               where.file_name(), where.line(), where.column(), message);
        case LogPlace::Suffix:
            return fmt::format("{} [{}({})]", message, where.file_name(), where.line());
        case LogPlace::None:
            break;
    }
    return message;
}

}  // namespace

void GuardedLog(spdlog::level::level_enum level, LogPlace place, const LogFormat& format, fmt::format_args arguments) {
    const LastErrorKeeper lastError;
    const std::shared_ptr<spdlog::logger> logger = spdlog::default_logger();
    if (!logger || !logger->should_log(level)) {
        return;
    }
    std::string composed;
    std::string_view line;
    try {
        composed = Compose(place, format, arguments);
        line = composed;
    } catch (...) {
        level = spdlog::level::err;
        try {
            const std::source_location& where = format.location;
            composed = fmt::format("GuardedLog() [1] failed formatting log at: {}:{}:{}:{}", where.file_name(),
                                   where.line(), where.column(), where.function_name());
            line = composed;
        } catch (...) {
            line = "GuardedLog() [1] giving up formatting:";
        }
    }
    // What a sink throws is caught and reported by the logger; an exception of unknown type it reports as
    // "Rethrowing unknown exception in logger" and passes on.
    logger->log(level, line);
}

}  // namespace Shared::Exception
