#pragma once

#include <windows.h>

#include <expected>

namespace Shared::Util {

/// A value, or the Win32 code of the failure.
template <class T>
using Win32Result = std::expected<T, DWORD>;

/// A failure with the code that GetLastError gives now.
[[nodiscard]] inline std::unexpected<DWORD> LastError() noexcept {
    return std::unexpected(GetLastError());
}

/// The result of a call that returns FALSE, and sets GetLastError, when it fails.
[[nodiscard]] inline Win32Result<void> ResultOf(BOOL succeeded) noexcept {
    if (succeeded == FALSE) {
        return LastError();
    }
    return {};
}

}  // namespace Shared::Util
