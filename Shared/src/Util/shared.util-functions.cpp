#include "shared.util-functions.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <limits>

#include "shared.exception.h"

namespace Shared::Util {

namespace {

constexpr DWORD strictFlags = WC_ERR_INVALID_CHARS | WC_NO_BEST_FIT_CHARS;

// The conversion routines take lengths as int.
void RequireConvertibleLength(std::size_t length) {
    if (length > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw Exception::InvalidArgumentException("text too long to convert");
    }
}

// Windows documents that only 0 or WC_ERR_INVALID_CHARS may be passed for UTF-8 and that other flags can fail.
int WideToUtf8(std::wstring_view text, char* buffer, int size) {
    int result = WideCharToMultiByte(CP_UTF8, strictFlags, text.data(), static_cast<int>(text.size()), buffer, size,
                                     nullptr, nullptr);
    if (result == 0 && GetLastError() == ERROR_INVALID_FLAGS) {
        result = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()), buffer,
                                     size, nullptr, nullptr);
    }
    return result;
}

constexpr bool IsHighSurrogate(wchar_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
constexpr bool IsLowSurrogate(wchar_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// The length of the well-formed UTF-8 sequence at the start of the bytes, 0 when there is none (RFC 3629's table).
std::size_t SequenceLength(std::string_view bytes) {
    const auto at = [bytes](std::size_t index) {
        return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0U;
    };
    const auto continues = [&at](std::size_t index, unsigned low = 0x80, unsigned high = 0xBF) {
        return at(index) >= low && at(index) <= high;
    };
    const unsigned lead = at(0);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continues(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return continues(1, lead == 0xE0 ? 0xA0 : 0x80, lead == 0xED ? 0x9F : 0xBF) && continues(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        return continues(1, lead == 0xF0 ? 0x90 : 0x80, lead == 0xF4 ? 0x8F : 0xBF) && continues(2) && continues(3) ? 4
                                                                                                                    : 0;
    }
    return 0;
}

}  // namespace

std::string ConvertStringType(std::wstring_view text) {
    if (text.empty()) {
        return {};
    }
    RequireConvertibleLength(text.size());
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

std::wstring ConvertStringType(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    const int length =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()), nullptr, 0);
    if (length == 0) {
        throw Exception::Win32Exception("ConvertStringToWString(): MultiByteToWideChar() [1] failed", GetLastError());
    }
    std::wstring result(static_cast<std::size_t>(length), L'\0');
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()), result.data(),
                            length) == 0) {
        throw Exception::Win32Exception("ConvertStringToWString(): MultiByteToWideChar() [2] failed", GetLastError());
    }
    return result;
}

std::string ToUtf8Lossy(std::wstring_view text) {
    std::wstring valid(text);
    for (std::size_t index = 0; index < valid.size(); ++index) {
        const bool pair = IsHighSurrogate(valid[index]) && index + 1 < valid.size() && IsLowSurrogate(valid[index + 1]);
        if (pair) {
            ++index;
        } else if (IsHighSurrogate(valid[index]) || IsLowSurrogate(valid[index])) {
            valid[index] = L'\xFFFD';
        }
    }
    return ConvertStringType(std::wstring_view(valid));
}

std::string SanitiseUtf8(std::string_view bytes) {
    std::string result;
    result.reserve(bytes.size());
    while (!bytes.empty()) {
        const std::size_t length = SequenceLength(bytes);
        if (length == 0) {
            result += "\xEF\xBF\xBD";
            bytes.remove_prefix(1);
        } else {
            result += bytes.substr(0, length);
            bytes.remove_prefix(length);
        }
    }
    return result;
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
