#pragma once

#include <filesystem>
#include <span>
#include <vector>

#include "agentcore.diagnostics-set.h"

namespace AgentCore::Diagnostics::Logs {

/// Folders that are the same on every machine.
inline constexpr auto windowsFolder = [] { return std::filesystem::path(LR"(C:\WINDOWS)"); };
inline constexpr auto system32Folder = [] { return std::filesystem::path(LR"(C:\WINDOWS\system32)"); };

}  // namespace AgentCore::Diagnostics::Logs

namespace AgentCore::Diagnostics {

/// The log set: the machine's rows, then four rows for each profile folder.
[[nodiscard]] std::vector<CollectorRow> LogSet(std::span<const std::filesystem::path> profiles);

/// The log set of this machine and its users.
[[nodiscard]] std::vector<CollectorRow> LogSet();

}  // namespace AgentCore::Diagnostics
