#include <string_view>
#include <vector>

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

template <class KeyCollector>
CollectorRow KeyRow(std::wstring_view key) {
    return Row<KeyCollector>(Shared::Util::ConvertStringType(key), MachineKeyName(key));
}

}  // namespace

std::vector<CollectorRow> ConfigurationSet() {
    return {
        Row<VpnClient>(MachineKeyName(portavoKey) + " and " + MachineKeyName(credentialProviderFiltersKey),
                       MachineKeyName(portavoKey)),
        KeyRow<Agent>(oxmKey),
        KeyRow<AgentConfiguration>(oxmConfigKey),
        KeyRow<AccessAgent>(AccessAgent::keyPath),
    };
}

}  // namespace AgentCore::Diagnostics
