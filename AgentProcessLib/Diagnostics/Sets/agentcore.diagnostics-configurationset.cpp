#include <string>

#include "agentcore.diagnostics-collectors-keyexport.h"
#include "agentcore.diagnostics-collectors-pvregistryvalues.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

using namespace Collectors::Registry;

constexpr Shared::Util::FixedString oxmKey = L"SOFTWARE\\Velqor\\OXM";
constexpr Shared::Util::FixedString oxmConfigKey = L"SOFTWARE\\Velqor\\OXM\\Config";

using VpnClient = PVRegistryValues<configurationType>;
using Agent = AoxmRegistryKey<"registry-oxm.txt", oxmKey, configurationType>;
using AgentConfiguration = AoxmRegistryKey<"registry-oxm-config.txt", oxmConfigKey, configurationType>;
using AccessAgent = LumoraAccessAgentRegistryKey<configurationType>;

constexpr const char* vpnClientSource =
    "HKLM\\SOFTWARE\\Velqor\\Portavo and "
    "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Authentication\\Credential Provider Filters";

template <class KeyCollector>
CollectorRow Row(const std::string& source, std::wstring_view key) {
    return {.type = KeyCollector::diagnosticType,
            .name = source,
            .origin = [key] { return MachineKeyName(key); },
            .collectors = {AsRun<KeyCollector>()}};
}

template <class KeyCollector>
CollectorRow Row(std::wstring_view key) {
    return Row<KeyCollector>(Shared::Util::ConvertStringType(key), key);
}

}  // namespace

std::vector<CollectorRow> ConfigurationSet() {
    return {
        Row<VpnClient>(vpnClientSource, portavoKey),
        Row<Agent>(oxmKey),
        Row<AgentConfiguration>(oxmConfigKey),
        Row<AccessAgent>(AccessAgent::keyPath),
    };
}

}  // namespace AgentCore::Diagnostics
