#pragma once

#include <fmt/core.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "shared.exception-guardedlog.h"

namespace AgentCLI::Core {

/// Prints UTF-8 text to standard output or standard error, which a console shows whatever its code page is. A stream
/// that cannot be written to never fails the run: the text is logged instead.
template <class... Args>
void Print(std::FILE* stream, fmt::format_string<Args...> format, Args&&... arguments) {
    const std::string text = fmt::format(format, std::forward<Args>(arguments)...);
    try {
        fmt::print(stream, "{}", text);
        if (std::fflush(stream) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
    } catch (const std::exception& error) {
        Shared::Exception::LogWarning("Cannot print \"{}\": {}", text, error.what());
    }
}

/// The title of the console's window, restored on destruction. Does nothing unless standard output is a console.
class ConsoleTitle {
public:
    ConsoleTitle();
    ConsoleTitle(const ConsoleTitle&) = delete;
    ConsoleTitle& operator=(const ConsoleTitle&) = delete;
    ~ConsoleTitle();

    void Show(std::string_view text) const;

private:
    std::optional<std::wstring> before_;
};

}  // namespace AgentCLI::Core
