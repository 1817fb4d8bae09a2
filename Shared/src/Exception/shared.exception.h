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

/// A failed Win32 call. what() holds the location, the system's text, the code, the stack trace and a hint.
class Win32Exception : public std::runtime_error {
public:
    Win32Exception(std::string_view message, std::uint32_t code,
                   const std::source_location& location = std::source_location::current(),
                   const StackTrace& trace = StackTrace::Capture());
    [[nodiscard]] std::uint32_t Code() const noexcept { return code_; }

private:
    std::uint32_t code_;
};

/// A failed COM call, with its HRESULT.
class ComException : public std::runtime_error {
public:
    ComException(std::string_view message, std::int32_t result,
                 const std::source_location& location = std::source_location::current(),
                 const StackTrace& trace = StackTrace::Capture());
    [[nodiscard]] std::int32_t Code() const noexcept { return result_; }

private:
    std::int32_t result_;
};

/// A failed native call, with its NTSTATUS.
class NtStatusException : public std::runtime_error {
public:
    NtStatusException(std::string_view message, std::uint32_t status,
                      const std::source_location& location = std::source_location::current(),
                      const StackTrace& trace = StackTrace::Capture());
    [[nodiscard]] std::uint32_t Code() const noexcept { return status_; }

private:
    std::uint32_t status_;
};

}  // namespace Shared::Exception
