#pragma once

#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"

namespace AgentCore::Diagnostics::Collectors::Cmd {

inline constexpr std::wstring_view rdnsArguments = L"traffic rdns export";
/// The export file, which the tool writes into its current directory.
inline constexpr std::wstring_view rdnsFileName = L"lacli_traffic_rdns.log";

/// "\"{}\" {}" of the tool's path and the arguments. Throws as Shared::PV::GetLacliPath() does.
[[nodiscard]] std::wstring ToolCommandLine(std::wstring_view arguments);

/// The command line of the export.
[[nodiscard]] std::wstring RdnsCommandLine();

/// Has the access agent's tool export its reverse DNS table, in a new private folder, and archives that file. Without
/// the tool or without an export the status is unsuccessful and has no message. A link, a folder or a file with a
/// second hard link is no export: "Collector{} failed: {}".
[[nodiscard]] CollectorStatus CollectRdnsExport(const Destination& destination) noexcept;

template <int Type>
using LacliRdnsExport = FunctionCollector<&CollectRdnsExport, Type>;

}  // namespace AgentCore::Diagnostics::Collectors::Cmd
