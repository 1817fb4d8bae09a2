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

/// UTF-16 to UTF-8 for names and messages, where a faulty character must not cost the evidence: equal to
/// ConvertStringType for valid text, with U+FFFD in place of each unpaired surrogate. Throws Win32Exception should the
/// system not convert it.
[[nodiscard]] std::string ToUtf8Lossy(std::wstring_view text);
/// Takes a path and nothing that merely converts to one, so that wide strings find the overload above.
template <std::same_as<std::filesystem::path> Path>
[[nodiscard]] std::string ToUtf8Lossy(const Path& path) {
    return ToUtf8Lossy(std::wstring_view(path.native()));
}

/// Valid UTF-8 made from any bytes, with U+FFFD in place of each faulty sequence; empty should the system not convert
/// them.
[[nodiscard]] std::string SanitiseUtf8(std::string_view bytes);

/// A path from UTF-8 text; the narrow constructors of std::filesystem::path widen byte by byte here. Throws
/// Win32Exception should the system not convert it.
[[nodiscard]] std::filesystem::path PathFromUtf8(std::string_view text);

/// "{}T{}.{}Z" of date, time and milliseconds as three digits, in the calendar of the user's locale. Throws
/// Win32Exception "GetDateFormatEx() failed" or "GetTimeFormatEx() failed".
[[nodiscard]] std::wstring GetTimeAsUtcString2(const SYSTEMTIME& time);

}  // namespace Shared::Util
