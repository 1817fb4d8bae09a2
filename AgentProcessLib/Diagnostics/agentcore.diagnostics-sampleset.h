#pragma once

#include <vector>

#include "agentcore.diagnostics-set.h"

namespace AgentCore::Diagnostics {

/// What the system's own commands say about the machine, and its network bindings. The name and the origin of a
/// command's row are the command.
[[nodiscard]] std::vector<CollectorRow> SampleSet();

}  // namespace AgentCore::Diagnostics
