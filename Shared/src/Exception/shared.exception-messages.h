#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Shared::Exception {

/// The system's text for a Win32 code, UTF-8, without the trailing line break; codes 12000 to 12193 come from
/// winhttp.dll. "Failed to translate Win32 error code: {}" when the system has none. Preserves GetLastError.
[[nodiscard]] std::string Win32Message(std::uint32_t code);

/// The text that ntdll.dll holds for a status; "failed acquiring ntdll.dll handle" when that module is not there.
[[nodiscard]] std::string NtStatusMessage(std::uint32_t status);

/// The text of an HRESULT; "IDispatch error #%d" and "Unknown error 0x%0lX" when the system has none.
[[nodiscard]] std::string ComMessage(std::int32_t result);

/// A COM error for logs: "{}\n Error code: {:#X}\n COM error message: {}\n" of (message, HRESULT, its text).
[[nodiscard]] std::string DescribeComError(std::string_view message, std::int32_t result);

/// The sentence that tells a user what a few network and certificate codes usually mean; empty for all others.
[[nodiscard]] std::string_view HintFor(std::uint32_t code) noexcept;

/// For failures that must not throw (handle releases): "{} ===> {} (Win32Exception error code: {}) {}" on the wide
/// standard-error stream. Preserves GetLastError.
void ReportWin32Failure(std::string_view message, std::uint32_t code) noexcept;

}  // namespace Shared::Exception
