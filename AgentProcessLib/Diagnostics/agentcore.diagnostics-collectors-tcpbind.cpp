#include "agentcore.diagnostics-collectors-tcpbind.h"

#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "agentcore.diagnostics-keydump.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.registry-functions.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

namespace {

constexpr std::wstring_view linkageKey = L"SYSTEM\\CurrentControlSet\\services\\Tcpip\\Linkage";
constexpr std::wstring_view bindValue = L"Bind";

// Removes what an earlier run left under the name.
void FreeName(const std::filesystem::path& path) {
    if (GetFileAttributesW(Shared::FileSystem::LongForm(path).c_str()) == INVALID_FILE_ATTRIBUTES) {
        if (const DWORD error = GetLastError(); !Shared::FileSystem::IsNotFound(error)) {
            Shared::FileSystem::ThrowFileSystemError("exists", path, error);
        }
        return;
    }
    if (const DWORD error = Shared::FileSystem::RemoveName(path); error != ERROR_SUCCESS) {
        Shared::FileSystem::ThrowFileSystemError("remove", path, error);
    }
}

}  // namespace

std::string TcpBindKeyName() {
    return MachineKeyName(linkageKey);
}

std::string TcpBindSource() {
    return fmt::format("{}\\{}", TcpBindKeyName(), Shared::Util::ToUtf8(bindValue));
}

CollectorStatus CollectTcpBind(const std::filesystem::path& entryDir,
                               Shared::FileZip::ZipArchiveWrapper& zip) noexcept {
    return WithinBoundary(
        [&] {
            const auto bindings = Shared::Registry::RegGetMultiString(HKEY_LOCAL_MACHINE, linkageKey, bindValue);
            std::string text;
            // An empty list comes as one terminator or as two, depending on who wrote it.
            if (!std::ranges::all_of(bindings, &std::wstring::empty)) {
                for (const std::wstring_view binding : bindings) {
                    text += fmt::format("{}\n", Shared::Util::ToUtf8(binding));
                }
            }
            const std::filesystem::path path = L"TcpipBind.txt";
            FreeName(path);
            Shared::FileSystem::GeneratedFile file(path);
            file.WriteText(text);
            return FromAdd(zip.AddFileToFolder(entryDir, file.Path()));
        },
        [](std::string_view error) { return Logged(fmt::format("TcpBind failed: {}", error)); });
}

}  // namespace AgentCore::Diagnostics::Collectors::Registry
