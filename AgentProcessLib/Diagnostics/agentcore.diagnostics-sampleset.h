#pragma once

#include <vector>

#include "agentcore.diagnostics-set.h"

namespace AgentCore::Diagnostics {

/// What the system's own commands say about the machine. A row's name and origin are its command.
[[nodiscard]] std::vector<CollectorRow> SampleSet();

}  // namespace AgentCore::Diagnostics
