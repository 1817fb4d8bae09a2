#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace Shared::Exception {

/// Restores the calling thread's last-error code at the end of the scope, so that reporting a failure never
/// replaces it.
class LastErrorKeeper {
public:
    LastErrorKeeper() noexcept : code_(GetLastError()) {}
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    ~LastErrorKeeper() { SetLastError(code_); }

private:
    DWORD code_;
};

/// Text in a code page to UTF-16, faulty characters replaced. Empty, with GetLastError set, when that fails.
[[nodiscard]] std::wstring Widen(std::string_view text, UINT codePage = CP_UTF8);

/// UTF-16 to UTF-8, faulty characters replaced. Empty, with GetLastError set, when that fails.
[[nodiscard]] std::string Narrow(std::wstring_view text);

}  // namespace Shared::Exception
