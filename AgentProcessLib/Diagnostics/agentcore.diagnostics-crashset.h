#pragma once

#include <filesystem>
#include <span>
#include <vector>

#include "agentcore.diagnostics-set.h"

namespace AgentCore::Diagnostics {

/// The crash-report set: the machine's rows, then two rows for each profile folder.
[[nodiscard]] std::vector<CollectorRow> CrashReportSet(std::span<const std::filesystem::path> profiles);

/// The crash-report set of this machine and its users.
[[nodiscard]] std::vector<CollectorRow> CrashReportSet();

}  // namespace AgentCore::Diagnostics
