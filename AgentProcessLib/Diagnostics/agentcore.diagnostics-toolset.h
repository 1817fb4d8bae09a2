#pragma once

#include <vector>

#include "agentcore.diagnostics-lacli.h"
#include "agentcore.diagnostics-set.h"

namespace AgentCore::Diagnostics {

/// What the access agent's tool says about its state. A row's name is the arguments, its origin the command line.
[[nodiscard]] std::vector<CollectorRow> ToolSet();

}  // namespace AgentCore::Diagnostics
