#include "agentcore.diagnostics-collectors-keyexport.h"

#include <windows.h>

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <cstdint>
#include <iterator>
#include <utility>
#include <vector>

#include "shared.concurrency-interrupt.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.registry-regkey.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

namespace {

using Shared::Registry::RegKey;
using Shared::Util::ToUtf8Lossy;

enum class Subkeys : std::uint8_t { Excluded, Included };

std::wstring DumpKey(RegKey key, Subkeys subkeys) {
    std::wstring text;
    // A stack instead of recursion: the tree may be arbitrarily deep.
    std::vector<RegKey> pending;
    pending.push_back(std::move(key));
    while (!pending.empty() && !Shared::Concurrency::IsInterrupted()) {
        const RegKey current = std::move(pending.back());
        pending.pop_back();
        text += fmt::format(L"Keyname: {}\n", current.name);
        const auto values = current.GetAllValues();
        if (values.empty()) {
            continue;
        }
        text += fmt::format(L"[String] (Default) = {}\n", current.DefaultValue());
        for (const RegKey::Value& value : values) {
            text += value.ToWide() + L'\n';
        }
        if (subkeys == Subkeys::Included) {
            auto children = current.Subkeys();
            pending.insert(pending.end(), std::move_iterator(children.rbegin()), std::move_iterator(children.rend()));
        }
    }
    return text;
}

CollectorStatus ArchiveDump(RegKey key, std::string_view fileName, Subkeys subkeys, const Destination& destination) {
    const std::string text = Shared::Util::ConvertStringType(DumpKey(std::move(key), subkeys));
    Shared::FileSystem::GeneratedFile file(Shared::Util::PathFromUtf8(fileName));
    file.WriteText(text);
    return destination.Add(file);
}

}  // namespace

CollectorStatus CollectAgentKey(std::wstring_view keyPath, std::string_view fileName,
                                const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            auto key = RegKey::Find(HKEY_LOCAL_MACHINE, std::wstring(keyPath), KEY_READ);
            if (!key) {
                return Unsuccessful(LogWarningAndReturn(
                    fmt::format("Not dumping the AOXM registry key {} as it wasn't found.", ToUtf8Lossy(keyPath))));
            }
            return ArchiveDump(*std::move(key), fileName, Subkeys::Excluded, destination);
        },
        [&](std::string_view error) {
            return LogWarningAndReturn(
                fmt::format("Failed exporting AOXM registry key {}: {}", ToUtf8Lossy(keyPath), error));
        });
}

CollectorStatus CollectAccessAgentKey(const Destination& destination) noexcept {
    return WithinBoundary(
        [&] {
            return ArchiveDump(RegKey(HKEY_LOCAL_MACHINE, std::wstring(accessAgentKey), KEY_READ),
                               "lumora-access-agent.txt", Subkeys::Included, destination);
        },
        [](std::string_view error) {
            return LogWarningAndReturn(fmt::format("Failed exporting Lumora Access Agent key {}: {}",
                                                   ToUtf8Lossy(std::wstring_view(accessAgentKey)), error));
        });
}

std::string MachineKeyName(std::wstring_view keyPath) {
    return fmt::format("HKLM\\{}", ToUtf8Lossy(keyPath));
}

}  // namespace AgentCore::Diagnostics::Collectors::Registry
