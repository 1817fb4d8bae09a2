#include "shared.util-functions.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <limits>

#include "shared.exception-text.h"
#include "shared.exception.h"

namespace Shared::Util {

namespace {

// Windows documents that only 0 or WC_ERR_INVALID_CHARS may be passed for UTF-8 and that other flags can fail.
int WideToUtf8(std::wstring_view text, char* buffer, int size) {
    const auto convert = [&](DWORD flags) {
        return WideCharToMultiByte(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), buffer, size, nullptr,
                                   nullptr);
    };
    const int result = convert(WC_ERR_INVALID_CHARS | WC_NO_BEST_FIT_CHARS);
    return result == 0 && GetLastError() == ERROR_INVALID_FLAGS ? convert(WC_ERR_INVALID_CHARS) : result;
}

// The result of a lossy conversion, which fails for no text. Should it, no name may become empty.
template <class Text, class View>
Text Whole(Text converted, View original) {
    if (converted.empty() && !original.empty()) {
        throw Exception::Win32Exception("Cannot convert a text", GetLastError());
    }
    return converted;
}

}  // namespace

std::string ConvertStringType(std::wstring_view text) {
    if (text.empty()) {
        return {};
    }
    // The conversion takes lengths as int.
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw Exception::InvalidArgumentException("text too long to convert");
    }
    const int length = WideToUtf8(text, nullptr, 0);
    if (length == 0) {
        throw Exception::Win32Exception("ConvertWStringToString(): WideCharToMultiByte() [1] failed", GetLastError());
    }
    std::string result(static_cast<std::size_t>(length), '\0');
    if (WideToUtf8(text, result.data(), length) == 0) {
        throw Exception::Win32Exception("ConvertWStringToString(): WideCharToMultiByte() [2] failed", GetLastError());
    }
    return result;
}

std::string ToUtf8Lossy(std::wstring_view text) {
    return Whole(Exception::Narrow(text), text);
}

std::filesystem::path PathFromUtf8(std::string_view text) {
    return Whole(Exception::Widen(text), text);
}

std::string SanitiseUtf8(std::string_view bytes) {
    return Exception::Narrow(Exception::Widen(bytes));
}

std::wstring GetTimeAsUtcString2(const SYSTEMTIME& time) {
    wchar_t date[11]{};
    if (GetDateFormatEx(LOCALE_NAME_USER_DEFAULT, 0, &time, L"yyyy-MM-dd", date, static_cast<int>(std::size(date)),
                        nullptr) == 0) {
        throw Exception::Win32Exception("GetDateFormatEx() failed", GetLastError());
    }
    wchar_t clock[9]{};
    if (GetTimeFormatEx(LOCALE_NAME_USER_DEFAULT, 0, &time, L"HH:mm:ss", clock, static_cast<int>(std::size(clock))) ==
        0) {
        throw Exception::Win32Exception("GetTimeFormatEx() failed", GetLastError());
    }
    return fmt::format(L"{}T{}.{:03}Z", date, clock, time.wMilliseconds);
}

}  // namespace Shared::Util
