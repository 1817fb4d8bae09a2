#include "agentcli-core-runfacts.h"

#include <windows.h>

#define SECURITY_WIN32
#include <fmt/format.h>
#include <security.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string_view>
#include <system_error>

#include "agentcore.diagnostics-rows.h"
#include "shared.filesystem-longpath.h"
#include "shared.registry-functions.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

// Declared in headers for drivers only.
extern "C" NTSYSAPI LONG NTAPI RtlGetVersion(RTL_OSVERSIONINFOW* version);

namespace AgentCLI::Core {

namespace {

using Shared::Util::ToUtf8Lossy;

constexpr ULONG capacity = 1024;

// The text that a call writes into a buffer of that capacity; empty when it fails.
template <class Fill>
std::string TextFrom(const Fill& fill) {
    std::array<wchar_t, capacity> buffer{};
    return fill(buffer.data()) != 0 ? ToUtf8Lossy(std::wstring_view(buffer.data())) : std::string();
}

std::string WindowsVersion() {
    RTL_OSVERSIONINFOW windows{};
    windows.dwOSVersionInfoSize = sizeof windows;
    RtlGetVersion(&windows);
    return fmt::format("{}.{}.{}", windows.dwMajorVersion, windows.dwMinorVersion, windows.dwBuildNumber);
}

void SetElevated(::Diagnostics::Run& run) {
    HANDLE opened = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened) == FALSE) {
        return;
    }
    const Shared::Util::KernelHandle token(opened);
    TOKEN_ELEVATION elevation{};
    DWORD size = 0;
    if (GetTokenInformation(token.Get(), TokenElevation, &elevation, sizeof elevation, &size) != FALSE) {
        run.set_elevated(elevation.TokenIsElevated != 0);
    }
}

void SetTimes(::Diagnostics::Run& run) {
    run.set_began_at(AgentCore::Diagnostics::UtcNow());
    DYNAMIC_TIME_ZONE_INFORMATION zone{};
    const DWORD season = GetDynamicTimeZoneInformation(&zone);
    if (season != TIME_ZONE_ID_INVALID) {
        zone.Bias += season == TIME_ZONE_ID_STANDARD ? zone.StandardBias : 0;
        zone.Bias += season == TIME_ZONE_ID_DAYLIGHT ? zone.DaylightBias : 0;
        run.set_utc_offset_minutes(-zone.Bias);
        run.set_time_zone(ToUtf8Lossy(std::wstring_view(zone.TimeZoneKeyName)));
    }
}

// From the registry, since GetACP and GetOEMCP give the code page that this program's manifest asks for.
std::optional<std::uint32_t> SystemCodePage(const wchar_t* value) {
    try {
        const std::string text = ToUtf8Lossy(Shared::Registry::RegGetString(
            HKEY_LOCAL_MACHINE, LR"(SYSTEM\CurrentControlSet\Control\Nls\CodePage)", value));
        std::uint32_t number = 0;
        const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
        return read.ec == std::errc() ? std::optional(number) : std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void SetCodePages(::Diagnostics::Run& run) {
    if (const UINT console = GetConsoleOutputCP(); console != 0) {
        run.set_console_output_code_page(console);
    }
    if (const auto ansi = SystemCodePage(L"ACP")) {
        run.set_ansi_code_page(*ansi);
    }
    if (const auto oem = SystemCodePage(L"OEMCP")) {
        run.set_oem_code_page(*oem);
    }
}

std::string CurrentDirectory() {
    try {
        return ToUtf8Lossy(Shared::FileSystem::FullPath(L"."));
    } catch (const std::exception&) {
        return {};
    }
}

::Diagnostics::Run Gather() {
    ::Diagnostics::Run run;
    SetTimes(run);
    run.set_program_version(AGENTCLI_VERSION);
    run.set_computer_name(TextFrom([](wchar_t* text) {
        ULONG size = capacity;
        return GetComputerNameExW(ComputerNameDnsFullyQualified, text, &size);
    }));
    run.set_user(TextFrom([](wchar_t* text) {
        ULONG size = capacity;
        return GetUserNameExW(NameSamCompatible, text, &size);
    }));
    run.set_windows_version(WindowsVersion());
    SetElevated(run);
    SetCodePages(run);
    run.set_locale(TextFrom([](wchar_t* text) { return GetUserDefaultLocaleName(text, static_cast<int>(capacity)); }));
    run.set_command_line(ToUtf8Lossy(std::wstring_view(GetCommandLineW())));
    run.set_current_directory(CurrentDirectory());
    return run;
}

std::string_view Shortened(std::string_view text) {
    std::size_t length = 1000;
    if (text.size() <= length) {
        return text;
    }
    // Before the first byte of a character.
    while ((static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
        --length;
    }
    return text.substr(0, length);
}

}  // namespace

const ::Diagnostics::Run& RunFacts() {
    static const ::Diagnostics::Run facts = Gather();
    return facts;
}

std::string DescribeRun() {
    const ::Diagnostics::Run& run = RunFacts();
    std::string line = fmt::format("AgentCLI {} on Windows {}, {}", run.program_version(), run.windows_version(),
                                   run.elevated() ? "elevated"
                                                  : "not elevated (other users' files, protected files and a part of "
                                                    "what the commands say will be missing)");
    const auto add = [&line](bool isThere, std::string_view name, const auto& fact) {
        if (isThere) {
            line += fmt::format(", {} {}", name, Shortened(fmt::format("{}", fact)));
        }
    };
    add(!run.computer_name().empty(), "computer", run.computer_name());
    add(!run.user().empty(), "user", run.user());
    add(true, "began at", run.began_at());
    add(run.has_utc_offset_minutes(), "minutes from UTC", run.utc_offset_minutes());
    add(!run.time_zone().empty(), "time zone", run.time_zone());
    add(run.has_console_output_code_page(), "console's output code page", run.console_output_code_page());
    add(run.has_ansi_code_page(), "ANSI code page", run.ansi_code_page());
    add(run.has_oem_code_page(), "OEM code page", run.oem_code_page());
    add(!run.locale().empty(), "locale", run.locale());
    add(!run.current_directory().empty(), "current directory", run.current_directory());
    add(true, "command line", run.command_line());
    return line;
}

}  // namespace AgentCLI::Core
