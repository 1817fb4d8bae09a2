#pragma once

#include <cstdint>
#include <source_location>
#include <stdexcept>
#include <string>
#include <string_view>

#include "shared.exception-stacktrace.h"

namespace Shared::Exception {

struct DummyRuntime {};
struct DummyTimeout {};
struct DummyNotFound {};
struct DummyInvalidArg {};

/// "Exception in {}() at {}:{}:{} --> {}\n{}" of (function, file, line, column, message, stack-trace text).
[[nodiscard]] std::string FormatException(std::string_view message, const std::source_location& location,
                                          const StackTrace& trace);

/// A failure that has a message only. The tag makes kinds that callers can catch apart.
template <class Base, class Tag>
class BaseException : public Base {
public:
    explicit BaseException(std::string_view message,
                           const std::source_location& location = std::source_location::current(),
                           const StackTrace& trace = StackTrace::Capture())
        : Base(FormatException(message, location, trace)) {}
};

using RuntimeException = BaseException<std::runtime_error, DummyRuntime>;
using TimeoutException = BaseException<std::runtime_error, DummyTimeout>;
using NotFoundException = BaseException<std::runtime_error, DummyNotFound>;
using InvalidArgumentException = BaseException<std::runtime_error, DummyInvalidArg>;

/// Renders the text of a coded exception: the location, the system's text for the code, the code, the stack trace and a
/// hint.
[[nodiscard]] std::string Win32Text(std::string_view message, std::uint32_t code, const std::source_location& location,
                                    const StackTrace& trace);
[[nodiscard]] std::string ComText(std::string_view message, std::int32_t result, const std::source_location& location,
                                  const StackTrace& trace);
[[nodiscard]] std::string NtStatusText(std::string_view message, std::uint32_t status,
                                       const std::source_location& location, const StackTrace& trace);

/// A failed system call, with its code.
template <class T, std::string (*Text)(std::string_view, T, const std::source_location&, const StackTrace&)>
class CodedException : public std::runtime_error {
public:
    CodedException(std::string_view message, T code,
                   const std::source_location& location = std::source_location::current(),
                   const StackTrace& trace = StackTrace::Capture())
        : std::runtime_error(Text(message, code, location, trace)), code_(code) {}
    [[nodiscard]] T Code() const noexcept { return code_; }

private:
    T code_;
};

using Win32Exception = CodedException<std::uint32_t, &Win32Text>;
/// With the HRESULT.
using ComException = CodedException<std::int32_t, &ComText>;
/// With the NTSTATUS.
using NtStatusException = CodedException<std::uint32_t, &NtStatusText>;

}  // namespace Shared::Exception
