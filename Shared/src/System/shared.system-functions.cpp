#include "shared.system-functions.h"

#include <windows.h>

#include <knownfolders.h>
#include <objbase.h>
#include <shlobj.h>
#include <userenv.h>

#include <memory>
#include <string>

#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.util-functions.h"

namespace Shared::System {

std::filesystem::path GetProgramDataPath() {
    PWSTR text = nullptr;
    const HRESULT result = SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &text);
    // The buffer is the caller's to free whether or not the call succeeds.
    const std::unique_ptr<wchar_t, decltype(&CoTaskMemFree)> buffer(text, &CoTaskMemFree);
    if (FAILED(result)) {
        throw Exception::ComException("SHGetKnownFolderPath() failed", result);
    }
    std::filesystem::path path(buffer.get());
    Exception::LogInfo("The ProgramData folder path is {}.", Util::ToUtf8Lossy(path));
    return path;
}

std::filesystem::path GetWindowsPath() {
    std::wstring text(MAX_PATH, L'\0');
    const UINT length = GetWindowsDirectoryW(text.data(), static_cast<UINT>(text.size()));
    if (length == 0 || length >= text.size()) {
        throw Exception::Win32Exception("GetWindowsDirectoryW() failed",
                                        length == 0 ? GetLastError() : ERROR_INSUFFICIENT_BUFFER);
    }
    text.resize(length);
    return text;
}

std::filesystem::path GetUserProfilesDirectory() {
    DWORD size = 0;
    GetProfilesDirectoryW(nullptr, &size);
    std::wstring text(size, L'\0');
    if (size == 0 || GetProfilesDirectoryW(text.data(), &size) == FALSE) {
        throw Exception::RuntimeException("TryGetUserProfilesDirectory() failed.");
    }
    return text.c_str();
}

}  // namespace Shared::System
