#pragma once

#include <vector>

#include "agentcore.diagnostics-set.h"

namespace AgentCore::Diagnostics {

/// The registry state of the VPN client, the monitoring agent and the access agent, in run order.
[[nodiscard]] std::vector<CollectorRow> ConfigurationSet();

}  // namespace AgentCore::Diagnostics
