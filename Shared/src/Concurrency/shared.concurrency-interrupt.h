#pragma once

#include <windows.h>

namespace Shared::Concurrency {

/// Has the console's events interrupt the run while the object exists; at most one exists at a time. The first Ctrl+C
/// or Ctrl+Break is an interruption, a second one ends the process. The closing of the console is an interruption too:
/// the system then allows the process some seconds to end.
class InterruptWatch {
public:
    InterruptWatch() noexcept;
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;
    ~InterruptWatch();
};

/// Whether the run has been interrupted. That stays true.
[[nodiscard]] bool IsInterrupted() noexcept;

/// Whether the console is being closed, which leaves no time for large files.
[[nodiscard]] bool IsConsoleClosing() noexcept;

/// Signalled when the run is interrupted; lives as long as the process. Null when the system has no event.
[[nodiscard]] HANDLE InterruptEvent() noexcept;

}  // namespace Shared::Concurrency
