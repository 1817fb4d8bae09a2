#include "shared.exception.h"

#include <fmt/format.h>

#include "shared.exception-messages.h"
#include "shared.exception-text.h"

namespace Shared::Exception {

namespace {

std::string LocationText(std::string_view message, const std::source_location& location) {
    return fmt::format("Exception in function {}() in {}:{}:{}: {}", location.function_name(), location.file_name(),
                       location.line(), location.column(), message);
}

}  // namespace

std::string Win32Text(std::string_view message, std::uint32_t code, const std::source_location& location,
                      const StackTrace& trace) {
    const LastErrorKeeper lastError;
    const std::string place = LocationText(message, location);
    if (code == 0) {
        return fmt::format("{}\n{}", place, trace.ToString());
    }
    return fmt::format("{} --> {} (error code {:#X} ({}))\n{} {}", place, Win32Message(code), code, code,
                       trace.ToString(), HintFor(code));
}

std::string ComText(std::string_view message, std::int32_t result, const std::source_location& location,
                    const StackTrace& trace) {
    const LastErrorKeeper lastError;
    const auto code = static_cast<std::uint32_t>(result);
    return fmt::format("COM {} --> {} (HRESULT {:#X})\n{} {}", LocationText(message, location), ComMessage(result),
                       code, trace.ToString(), HintFor(code));
}

std::string NtStatusText(std::string_view message, std::uint32_t status, const std::source_location& location,
                         const StackTrace& trace) {
    const LastErrorKeeper lastError;
    return fmt::format("{} --> {} (NTSTATUS code {:#X}).\n{} {}", LocationText(message, location),
                       NtStatusMessage(status), status, trace.ToString(), HintFor(status));
}

std::string FormatException(std::string_view message, const std::source_location& location, const StackTrace& trace) {
    const LastErrorKeeper lastError;
    return fmt::format("Exception in {}() at {}:{}:{} --> {}\n{}", location.function_name(), location.file_name(),
                       location.line(), location.column(), message, trace.ToString());
}

}  // namespace Shared::Exception
