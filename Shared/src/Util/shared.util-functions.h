#pragma once

#include <windows.h>

#include <concepts>
#include <filesystem>
#include <string>
#include <string_view>

namespace Shared::Util {

/// UTF-16 to UTF-8. Throws Win32Exception on invalid UTF-16 ("ConvertWStringToString(): WideCharToMultiByte() [1]
/// failed" when the length query fails, "[2]" when the conversion does).
[[nodiscard]] std::string ConvertStringType(std::wstring_view text);

/// UTF-8 to UTF-16. Throws Win32Exception on invalid UTF-8 ("ConvertStringToWString(): MultiByteToWideChar() [1]
/// failed", "[2]").
[[nodiscard]] std::wstring ConvertStringType(std::string_view text);

/// UTF-16 to UTF-8 for names and messages, where a faulty character must not cost the evidence: equal to
/// ConvertStringType for valid text, with U+FFFD in place of each unpaired surrogate.
[[nodiscard]] std::string ToUtf8Lossy(std::wstring_view text);
/// Takes a path and nothing that merely converts to one, so that wide strings find the overload above.
template <std::same_as<std::filesystem::path> Path>
[[nodiscard]] std::string ToUtf8Lossy(const Path& path) {
    return ToUtf8Lossy(std::wstring_view(path.native()));
}

/// Valid UTF-8 made from any bytes: every byte that is no part of a well-formed sequence becomes U+FFFD.
[[nodiscard]] std::string SanitiseUtf8(std::string_view bytes);

/// A path from UTF-8 text; the narrow constructors of std::filesystem::path widen byte by byte here.
[[nodiscard]] inline std::filesystem::path PathFromUtf8(std::string_view text) {
    return ConvertStringType(text);
}

/// "{}T{}.{}Z" of date, time and milliseconds as three digits, in the calendar of the user's locale. Throws
/// Win32Exception "GetDateFormatEx() failed" or "GetTimeFormatEx() failed".
[[nodiscard]] std::wstring GetTimeAsUtcString2(const SYSTEMTIME& time);

}  // namespace Shared::Util
