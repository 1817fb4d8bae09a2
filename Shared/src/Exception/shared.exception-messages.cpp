#include "shared.exception-messages.h"

#include <windows.h>

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <iostream>
#include <limits>
#include <utility>

#include "shared.exception-text.h"
#include "shared.util-handle.h"

namespace Shared::Exception {

namespace {

using Util::ModuleHandle;

constexpr std::uint32_t firstWinHttpCode = 12000;
constexpr std::uint32_t lastWinHttpCode = 12193;

// The HRESULTs that carry an IDispatch error number: FACILITY_ITF from its first free code on.
constexpr std::uint32_t firstDispatchResult = 0x80040200;
constexpr std::uint32_t lastDispatchResult = 0x8004FFFF;

struct Hint {
    std::uint32_t code;
    std::string_view text;
};
constexpr std::array hints{
    Hint{12002, "(This usually indicates your Internet connection is down or the server isn't responding.)"},
    Hint{12007,
         "(DNS issues usually indicate your internet connection is not working, or perhaps your DNS is malfunctioning. "
         "If this is occurring while your agent is trying to connect, then it's very likely your Internet connection "
         "is down.)"},
    Hint{12030,
         "(This indicates the connection was dropped. Your Internet connection may be unstable, or the server may be "
         "experiencing difficulties.)"},
    Hint{0x80090328,
         "(Your agent's local client certificate has probably expired. You will need a new one to be pushed out to "
         "your agents via Centrion.)"},
};

ModuleHandle LoadedModule(const wchar_t* name) {
    HMODULE module = nullptr;
    return ModuleHandle(GetModuleHandleExW(0, name, &module) == FALSE ? nullptr : module);
}

ModuleHandle WinHttpModule() {
    ModuleHandle module = LoadedModule(L"winhttp.dll");
    if (!module) {
        // Nothing here imports it. As a data file it runs no code and still yields its message table.
        module.Reset(
            LoadLibraryExW(L"winhttp.dll", nullptr,
                           LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE | LOAD_LIBRARY_SEARCH_SYSTEM32));
    }
    return module;
}

std::string_view WithoutTrailingBlanks(std::string_view text) {
    const std::size_t last = text.find_last_not_of("\r\n \t");
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

// Empty when the sources hold no text for the code.
std::string FormatSystemMessage(DWORD sources, HMODULE module, std::uint32_t code) {
    char* text = nullptr;
    const DWORD length =
        FormatMessageA(sources | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS, module, code,
                       MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text), 0, nullptr);
    const Util::LocalMemory buffer(text);
    const std::string_view ansi = WithoutTrailingBlanks({text, length});
    if (ansi.empty()) {
        return {};
    }
    const std::wstring wide = Widen(ansi, CP_ACP);
    if (wide.empty()) {
        return fmt::format("Failed converting error string [1]: {}", GetLastError());
    }
    std::string utf8 = Narrow(wide);
    if (utf8.empty()) {
        return fmt::format("Failed converting error string [2]: {}", GetLastError());
    }
    return utf8;
}

// What is converted of a text. The system's conversions take and return lengths as int, and a character takes up to
// three bytes of UTF-8.
constexpr std::size_t longestText = std::numeric_limits<int>::max() / 3;

// The text that `convert(buffer, capacity)` makes, which returns its length, also without a buffer.
template <class Text, class Convert>
Text Converted(const Convert& convert) {
    Text text(static_cast<std::size_t>(convert(nullptr, 0)), 0);
    // Without capacity the call would only tell the length again.
    text.resize(text.empty() ? 0 : static_cast<std::size_t>(convert(text.data(), static_cast<int>(text.size()))));
    return text;
}

std::string OrUntranslated(std::string text, std::uint32_t code) {
    return text.empty() ? fmt::format("Failed to translate Win32 error code: {}", code) : std::move(text);
}

}  // namespace

std::wstring Widen(std::string_view text, UINT codePage) {
    text = text.substr(0, longestText);
    return Converted<std::wstring>([&](wchar_t* buffer, int capacity) {
        return MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), buffer, capacity);
    });
}

std::string Narrow(std::wstring_view text) {
    text = text.substr(0, longestText);
    return Converted<std::string>([&](char* buffer, int capacity) {
        return WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), buffer, capacity, nullptr,
                                   nullptr);
    });
}

std::string Win32Message(std::uint32_t code) {
    const LastErrorKeeper lastError;
    if (code >= firstWinHttpCode && code <= lastWinHttpCode) {
        if (const ModuleHandle module = WinHttpModule()) {
            return OrUntranslated(
                FormatSystemMessage(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_FROM_HMODULE, module.Get(), code),
                code);
        }
    }
    return OrUntranslated(FormatSystemMessage(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code), code);
}

std::string NtStatusMessage(std::uint32_t status) {
    const LastErrorKeeper lastError;
    const ModuleHandle module = LoadedModule(L"ntdll.dll");
    if (!module) {
        return "failed acquiring ntdll.dll handle";
    }
    // Not from the system's table as well: there a small status would find the text of an unrelated Win32 code.
    return OrUntranslated(FormatSystemMessage(FORMAT_MESSAGE_FROM_HMODULE, module.Get(), status), status);
}

std::string ComMessage(std::int32_t result) {
    const LastErrorKeeper lastError;
    const auto code = static_cast<std::uint32_t>(result);
    std::string text = FormatSystemMessage(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code);
    if (!text.empty()) {
        return text;
    }
    // The first result of the range stands for number 0, which is no IDispatch error.
    if (code > firstDispatchResult && code <= lastDispatchResult) {
        return fmt::format("IDispatch error #{}", code - firstDispatchResult);
    }
    return fmt::format("Unknown error 0x{:X}", code);
}

std::string DescribeComError(std::string_view message, std::int32_t result) {
    return fmt::format("{}\n Error code: {:#X}\n COM error message: {}\n", message, static_cast<std::uint32_t>(result),
                       ComMessage(result));
}

std::string_view HintFor(std::uint32_t code) noexcept {
    for (const Hint& hint : hints) {
        if (hint.code == code) {
            return hint.text;
        }
    }
    return {};
}

void ReportWin32Failure(std::string_view message, std::uint32_t code) noexcept {
    const LastErrorKeeper lastError;
    try {
        const std::wstring line = Widen(fmt::format("{} ===> {} (Win32Exception error code: {}) {}\n", message,
                                                    Win32Message(code), code, HintFor(code)));
        for (const wchar_t character : line) {
            // One character that the stream's locale lacks would otherwise silence the stream for good.
            if (!std::wcerr.put(character)) {
                std::wcerr.clear();
                std::wcerr.put(L'?');
            }
        }
        std::wcerr.flush();
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is nowhere left to report to
    }
}

}  // namespace Shared::Exception
