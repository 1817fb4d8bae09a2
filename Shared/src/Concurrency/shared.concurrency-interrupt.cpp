#include "shared.concurrency-interrupt.h"

#include <atomic>

namespace Shared::Concurrency {

namespace {

std::atomic<bool> interrupted = false;
std::atomic<bool> closing = false;

// Runs on a thread of the system.
BOOL WINAPI OnConsoleEvent(DWORD event) {
    switch (event) {
        case CTRL_C_EVENT:
        case CTRL_BREAK_EVENT:
            if (interrupted.exchange(true)) {
                // At once: an orderly end would wait for the main thread where that holds a lock.
                TerminateProcess(GetCurrentProcess(), STATUS_CONTROL_C_EXIT);
            }
            SetEvent(InterruptEvent());
            return TRUE;
        case CTRL_CLOSE_EVENT:
            closing = true;
            interrupted = true;
            SetEvent(InterruptEvent());
            // Windows ends the process as soon as this returns: the main thread is to end it first.
            Sleep(INFINITE);
            return TRUE;
        default:
            return FALSE;
    }
}

}  // namespace

InterruptWatch::InterruptWatch() noexcept {
    // Without the event there is still the flag.
    static_cast<void>(InterruptEvent());
    SetConsoleCtrlHandler(&OnConsoleEvent, TRUE);
}

InterruptWatch::~InterruptWatch() {
    // The call waits for a running handler, and while the console is being closed the handler never returns.
    if (!closing) {
        SetConsoleCtrlHandler(&OnConsoleEvent, FALSE);
    }
}

bool IsInterrupted() noexcept {
    return interrupted;
}

bool IsConsoleClosing() noexcept {
    return closing;
}

HANDLE InterruptEvent() noexcept {
    // Never closed: the handler's thread may still use it when the program ends.
    static auto* const event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return event;
}

}  // namespace Shared::Concurrency
