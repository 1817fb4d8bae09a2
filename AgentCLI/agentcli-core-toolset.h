#pragma once

#include <vector>

#include "agentcore.diagnostics-set.h"

namespace AgentCLI::Core::Commands::Agent {

/// The rows of the access agent's tool: its set where the tool is installed, and none where the monitoring agent or the
/// tool is not. When it cannot be told where the tool is, or when any user could have put it there, one row says why it
/// is not asked. Throws std::filesystem::filesystem_error of the operation "exists" when the tool's status cannot be
/// queried.
[[nodiscard]] std::vector<AgentCore::Diagnostics::CollectorRow> InstalledToolSet();

}  // namespace AgentCLI::Core::Commands::Agent
