#pragma once

#include <windows.h>

#include <algorithm>
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

/// Text of unknown length from a call that takes a buffer and its capacity in characters. `fill` returns the length of
/// the text, or, when the capacity is too small, a number that is not below it; 0 is a failure, and the result is
/// empty.
template <class Fill>
[[nodiscard]] std::wstring TextOfAnyLength(const Fill& fill) {
    std::wstring text(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = fill(text.data(), static_cast<DWORD>(text.size()));
        if (length < text.size()) {
            text.resize(length);
            return text;
        }
        text.resize(std::max<std::size_t>(text.size() * 2, length));
    }
}

/// Text in a code page to UTF-16, with U+FFFD in place of what is invalid. Empty, with GetLastError set, when that
/// fails. Of more than 700 million characters only the first are converted.
[[nodiscard]] std::wstring Widen(std::string_view text, UINT codePage = CP_UTF8);

/// UTF-16 to UTF-8, with U+FFFD in place of each unpaired surrogate; otherwise as Widen().
[[nodiscard]] std::string Narrow(std::wstring_view text);

}  // namespace Shared::Exception
