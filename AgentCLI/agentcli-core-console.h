#pragma once

#include <fmt/core.h>

#include <cstdio>
#include <exception>
#include <string_view>

#include "shared.exception-guardedlog.h"

namespace AgentCLI::Core {

/// Prints to standard output. A console that is not there, or is gone, never fails the run: the text is logged instead.
template <class... Args>
void Print(fmt::format_string<Args...> format, Args&&... arguments) {
    const std::string text = fmt::format(format, std::forward<Args>(arguments)...);
    try {
        fmt::print("{}", text);
        static_cast<void>(std::fflush(stdout));
    } catch (const std::exception& error) {
        Shared::Exception::LogWarning("Cannot print \"{}\": {}", text, error.what());
    }
}

}  // namespace AgentCLI::Core
