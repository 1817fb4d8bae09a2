#include "agentcore.diagnostics-collectors-keyexport.h"

#include <windows.h>

#include <fmt/xchar.h>

#include <iterator>
#include <utility>
#include <vector>

#include "shared.concurrency-interrupt.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

using Shared::Registry::RegKey;

std::wstring DumpKey(RegKey key, Subkeys subkeys) {
    std::wstring text;
    // The keys still to be dumped, the next one last: the depth of the tree is unbounded.
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
            text += value.ToWide();
            text += L'\n';
        }
        if (subkeys == Subkeys::Included) {
            auto children = current.Subkeys();
            pending.insert(pending.end(), std::move_iterator(children.rbegin()), std::move_iterator(children.rend()));
        }
    }
    return text;
}

CollectorStatus ArchiveKeyDump(std::wstring_view keyPath, std::string_view fileName, Subkeys subkeys,
                               const Destination& destination) {
    RegKey key(HKEY_LOCAL_MACHINE, std::wstring(keyPath), KEY_READ);
    const std::string text = Shared::Util::ConvertStringType(std::wstring_view(DumpKey(std::move(key), subkeys)));
    Shared::FileSystem::GeneratedFile file(Shared::Util::PathFromUtf8(fileName));
    file.WriteText(text);
    return destination.Add(file);
}

std::string MachineKeyName(std::wstring_view keyPath) {
    return fmt::format("HKLM\\{}", Shared::Util::ToUtf8Lossy(keyPath));
}

}  // namespace AgentCore::Diagnostics::Collectors::Registry
