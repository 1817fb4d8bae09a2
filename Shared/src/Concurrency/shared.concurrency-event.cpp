#include "shared.concurrency-event.h"

#include <windows.h>

#include <sddl.h>

#include <array>
#include <utility>

#include "shared.exception.h"

namespace Shared::Concurrency {

Event::Event(std::wstring name) noexcept : name_(std::move(name)) {}

void Event::InternalCreate(bool manualReset, bool mustBeNew, const std::wstring& securityDescriptor) {
    PSECURITY_DESCRIPTOR converted = nullptr;
    if (!securityDescriptor.empty() && ConvertStringSecurityDescriptorToSecurityDescriptorW(
                                           securityDescriptor.c_str(), SDDL_REVISION_1, &converted, nullptr) == FALSE) {
        throw Exception::Win32Exception("Failed to convert security descriptor", GetLastError());
    }
    const Util::LocalMemory descriptor(converted);
    SECURITY_ATTRIBUTES attributes{
        .nLength = sizeof attributes, .lpSecurityDescriptor = descriptor.Get(), .bInheritHandle = FALSE};

    Util::KernelHandle created(
        CreateEventW(&attributes, manualReset ? TRUE : FALSE, FALSE, name_.empty() ? nullptr : name_.c_str()));
    const DWORD error = GetLastError();
    if (!created || (mustBeNew && error == ERROR_ALREADY_EXISTS)) {
        throw Exception::Win32Exception("Failed to create or open event", error);
    }
    handle_ = std::move(created);
    manualReset_ = manualReset;
}

Event::Waited Event::WaitOnEventOr(HANDLE other, unsigned long milliseconds) {
    if (!handle_) {
        throw Exception::RuntimeException("No Event to wait on");
    }
    const std::array handles{handle_.Get(), other};
    switch (WaitForMultipleObjectsEx(other == nullptr ? 1 : 2, handles.data(), FALSE, milliseconds, FALSE)) {
        case WAIT_OBJECT_0:
            return Waited::Signalled;
        case WAIT_OBJECT_0 + 1:
            return Waited::OtherSignalled;
        case WAIT_ABANDONED_0:
        case WAIT_ABANDONED_0 + 1:
            throw Exception::RuntimeException("The wait was abandoned");
        case WAIT_FAILED:
            throw Exception::Win32Exception("WaitForSingleObject failed", GetLastError());
        default:
            return Waited::TimedOut;
    }
}

bool Event::WaitOnEvent(unsigned long milliseconds, bool resetAfter) {
    if (WaitOnEventOr(nullptr, milliseconds) == Waited::TimedOut) {
        return false;
    }
    if (resetAfter) {
        Reset();
    }
    return true;
}

void Event::Reset() {
    if (!handle_) {
        throw Exception::RuntimeException("No Event to reset");
    }
    if (manualReset_ && ResetEvent(handle_.Get()) == FALSE) {
        throw Exception::Win32Exception("ResetEvent() failed", GetLastError());
    }
}

}  // namespace Shared::Concurrency
