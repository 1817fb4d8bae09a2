#include "shared.system-functions.h"

#include <windows.h>

#include <knownfolders.h>
#include <shlobj.h>
#include <userenv.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "shared.exception-guardedlog.h"
#include "shared.exception.h"
#include "shared.filesystem-sourcefolder.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace Shared::System {

std::filesystem::path GetProgramDataPath() {
    PWSTR text = nullptr;
    const HRESULT result = SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &text);
    // The buffer is the caller's to free whether or not the call succeeds.
    const Util::TaskMemory buffer(text);
    if (FAILED(result)) {
        throw Exception::ComException("SHGetKnownFolderPath() failed", result);
    }
    std::filesystem::path path(text);
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

void ForEachUserProfile(const std::filesystem::path& profilesDirectory,
                        const std::function<void(const std::filesystem::path&)>& visit) {
    static constexpr std::array<std::wstring_view, 4> excludedNames{L"Public", L"Default", L"All Users",
                                                                    L"Default User"};
    auto listing = FileSystem::ListOrThrow(
        profilesDirectory, FileSystem::SourceFolder::Trusted(profilesDirectory).Open(profilesDirectory));
    while (const auto* entry = listing.NextOrThrow("directory_iterator::operator++")) {
        if (entry->IsDirectory() && std::ranges::find(excludedNames, entry->Name()) == excludedNames.end()) {
            visit(entry->path);
        }
    }
}

}  // namespace Shared::System
