#include "agentcli-core-process.h"

#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "shared.system-functions.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace AgentCLI::Core {

namespace {

// Lets the C library, with which libzip converts times, take the time zone from Windows. A variable TZ in the
// environment would come first; child processes keep it.
void ForgetTimeZoneVariable() {
    std::wstring zone(GetEnvironmentVariableW(L"TZ", nullptr, 0), L'\0');
    if (!zone.empty()) {
        GetEnvironmentVariableW(L"TZ", zone.data(), static_cast<DWORD>(zone.size()));
        static_cast<void>(_wputenv_s(L"TZ", L""));
        SetEnvironmentVariableW(L"TZ", zone.c_str());
        _tzset();
    }
}

}  // namespace

void PrepareProcess() noexcept {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    // Children inherit this: their search for libraries leaves out the current directory.
    SetDllDirectoryW(L"");
    // The interpreter looks for "route" and its like in the current directory first and then along PATH, where a
    // user's own folders stand as well.
    SetEnvironmentVariableW(L"NoDefaultCurrentDirectoryInExePath", L"1");
    SetEnvironmentVariableW(L"PATHEXT", L".COM;.EXE;.BAT;.CMD");
    try {
        ForgetTimeZoneVariable();
        const std::wstring windows = Shared::System::GetWindowsPath().native();
        const std::wstring system = windows + L"\\System32";
        const std::pair<const wchar_t*, std::wstring> variables[] = {
            {L"PATH", system + L';' + windows + L';' + system + L"\\Wbem;" + system + L"\\WindowsPowerShell\\v1.0\\"},
            // The system's own registrations name files by these.
            {L"SystemRoot", windows},
            {L"windir", windows},
            {L"SystemDrive", windows.substr(0, 2)},
            {L"ComSpec", system + L"\\cmd.exe"},
        };
        for (const auto& [name, value] : variables) {
            SetEnvironmentVariableW(name, value.c_str());
        }
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
        // The program goes on with the variables it has; the command collectors report the missing directory
        // themselves.
    }
}

Utf8Arguments::Utf8Arguments(int count, const char* const* values) {
    int wideCount = 0;
    LPWSTR* const wide = CommandLineToArgvW(GetCommandLineW(), &wideCount);
    const Shared::Util::LocalMemory memory(static_cast<void*>(wide));
    if (wide != nullptr) {
        std::transform(wide, wide + wideCount, std::back_inserter(texts_),
                       [](const wchar_t* text) { return Shared::Util::ToUtf8Lossy(std::wstring_view(text)); });
    } else {
        texts_.assign(values, values + count);
    }
    std::ranges::transform(texts_, std::back_inserter(pointers_), [](const std::string& text) { return text.c_str(); });
    pointers_.push_back(nullptr);
}

}  // namespace AgentCLI::Core
