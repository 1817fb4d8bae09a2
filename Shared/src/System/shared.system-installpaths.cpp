#include "shared.system-installpaths.h"

#include <windows.h>

#include <fmt/format.h>

#include <string>

#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.registry-functions.h"
#include "shared.system-functions.h"
#include "shared.util-functions.h"

namespace Shared {

std::filesystem::path AppSettings::GetAoxmInstallPath() {
    std::wstring text = Registry::RegGetString(HKEY_LOCAL_MACHINE, LR"(SOFTWARE\Velqor\OXM)", L"Path");
    text.erase(text.find_last_not_of(L'\\') + 1);
    std::filesystem::path path(text);
    // Nothing may be looked up, or started, in the current directory, to which unprivileged users may be able to write.
    if (!FileSystem::IsAbsolute(path)) {
        throw Exception::RuntimeException(
            fmt::format("The install path '{}' is not absolute.", Util::ToUtf8Lossy(path)));
    }
    return path;
}

std::filesystem::path PV::GetPVInstallPath() {
    return AppSettings::GetAoxmInstallPath().parent_path() / L"Portavo";
}

std::filesystem::path PV::GetLacliPath() {
    return AppSettings::GetAoxmInstallPath().parent_path() / L"Lumora Access Agent" / L"lacli.exe";
}

std::filesystem::path PV::GetLumoraAccessAgentLogPath() {
    return System::GetProgramDataPath() / L"Velqor" / L"Lumora Access Agent" / L"Logs";
}

std::filesystem::path PV::GetDlpLogPath() {
    return System::GetProgramDataPath() / L"Velqor" / L"DLP" / L"logs";
}

}  // namespace Shared
