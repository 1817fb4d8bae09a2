#pragma once

#include <cstdint>
#include <string>

#include "shared.util-handle.h"

namespace Shared::Concurrency {

/// A Win32 event. It holds no event until InternalCreate() has made one.
class Event {
public:
    /// Without a name the event is unnamed.
    explicit Event(std::wstring name = {}) noexcept;

    /// Creates the event, not signalled and not inheritable, and closes the one held before. With `mustBeNew` an
    /// existing event of the name is a failure (ERROR_ALREADY_EXISTS), otherwise it is opened. The descriptor
    /// is SDDL text; empty means the default security. Throws Win32Exception "Failed to convert security descriptor"
    /// or "Failed to create or open event"; the event held before stays then.
    void InternalCreate(bool manualReset, bool mustBeNew, const std::wstring& securityDescriptor);

    /// What a wait has ended with.
    enum class Waited : std::uint8_t { Signalled, OtherSignalled, TimedOut };

    /// Waits until the event or another object is signalled, or the time is over; `other` may be null. Throws as
    /// WaitOnEvent() does.
    [[nodiscard]] Waited WaitOnEventOr(HANDLE other, unsigned long milliseconds);

    /// Waits until the event is signalled; false when the time is over first. With `resetAfter` a signalled event is
    /// reset before the call returns. Throws RuntimeException "No Event to wait on" or "The wait was abandoned", and
    /// Win32Exception "WaitForSingleObject failed".
    [[nodiscard]] bool WaitOnEvent(unsigned long milliseconds, bool resetAfter);

    /// Resets a manual-reset event. Throws RuntimeException "No Event to reset" and Win32Exception "ResetEvent()
    /// failed".
    void Reset();

    [[nodiscard]] HANDLE Handle() const noexcept { return handle_.Get(); }

private:
    Util::KernelHandle handle_;
    bool manualReset_ = false;
    std::wstring name_;
};

}  // namespace Shared::Concurrency
