#pragma once

#include <windows.h>

#include <utility>

#include "shared.exception-messages.h"

namespace Shared::Util {

/// Owns one kernel handle. `Invalid` is the value by which the API that made it says "no handle": null for
/// processes, threads, events and jobs, INVALID_HANDLE_VALUE for files and pipes. Neither of the two is ever closed.
/// A CloseHandle that fails is reported on the wide standard-error stream. Closing preserves GetLastError.
template <class Kind>
class UniqueHandle {
public:
    UniqueHandle() noexcept = default;
    explicit UniqueHandle(HANDLE handle) noexcept : handle_(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : handle_(std::exchange(other.handle_, Kind::Invalid())) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) {
            Reset(std::exchange(other.handle_, Kind::Invalid()));
        }
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { Reset(); }

    [[nodiscard]] HANDLE Get() const noexcept { return handle_; }
    [[nodiscard]] explicit operator bool() const noexcept {
        return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE;
    }
    [[nodiscard]] HANDLE Release() noexcept { return std::exchange(handle_, Kind::Invalid()); }

    void Reset(HANDLE handle = Kind::Invalid()) noexcept {
        HANDLE old = std::exchange(handle_, handle);
        if (old == nullptr || old == INVALID_HANDLE_VALUE) {
            return;
        }
        const DWORD lastError = GetLastError();
        if (CloseHandle(old) == FALSE) {
            Exception::ReportWin32Failure("Failed to close handle due to a Win32 error", GetLastError());
        }
        SetLastError(lastError);
    }

private:
    HANDLE handle_ = Kind::Invalid();
};

struct NullHandleKind {
    static HANDLE Invalid() noexcept { return nullptr; }
};
struct FileHandleKind {
    static HANDLE Invalid() noexcept { return INVALID_HANDLE_VALUE; }
};

/// Processes, threads, events, jobs: null means none.
using KernelHandle = UniqueHandle<NullHandleKind>;
/// Files and pipe ends: INVALID_HANDLE_VALUE means none.
using FileHandle = UniqueHandle<FileHandleKind>;

}  // namespace Shared::Util
