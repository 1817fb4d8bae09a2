#include "agentcore.diagnostics-collectors-tcpbind.h"

#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "agentcore.diagnostics-collectors-keyexport.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.registry-functions.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

namespace {

constexpr std::wstring_view linkageKey = L"SYSTEM\\CurrentControlSet\\services\\Tcpip\\Linkage";
constexpr std::wstring_view bindValue = L"Bind";

}  // namespace

std::string TcpBindKeyName() {
    return MachineKeyName(linkageKey);
}

std::string TcpBindSource() {
    return fmt::format("{}\\{}", TcpBindKeyName(), Shared::Util::ToUtf8Lossy(bindValue));
}

CollectorStatus CollectTcpBind(const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            const auto bindings = Shared::Registry::RegGetMultiString(HKEY_LOCAL_MACHINE, linkageKey, bindValue);
            std::string text;
            // An empty list comes as one terminator or as two, depending on the program that wrote it.
            if (!std::ranges::all_of(bindings, &std::wstring::empty)) {
                for (const std::wstring_view binding : bindings) {
                    text += fmt::format("{}\n", Shared::Util::ToUtf8Lossy(binding));
                }
            }
            const std::filesystem::path path = L"TcpipBind.txt";
            if (Shared::FileSystem::QueryStatus(path, "exists").kind != Shared::FileSystem::FileKind::NotFound) {
                Shared::FileSystem::RemoveOrThrow(path);
            }
            Shared::FileSystem::GeneratedFile file(path);
            file.WriteText(text);
            return destination.Add(file);
        },
        [](std::string_view error) { return LogErrorAndReturn(fmt::format("TcpBind failed: {}", error)); });
}

}  // namespace AgentCore::Diagnostics::Collectors::Registry
