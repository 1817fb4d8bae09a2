#pragma once

#include <filesystem>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"

namespace AgentCore::Diagnostics::Collectors::Cmd {

inline constexpr std::wstring_view rdnsArguments = L"traffic rdns export";
/// The export file, which the tool writes into the current directory.
inline constexpr std::wstring_view rdnsFileName = L"lacli_traffic_rdns.log";

/// Has the access agent's tool export its reverse DNS table and archives that file. What bore the name before is
/// removed first, so that only this run's export is ever archived, and what bears it afterwards is removed in every
/// case. Without the tool or without an export the status is unsuccessful and has no message. Links, folders and files
/// that have a second name are no export: "Collector{} failed: {}".
[[nodiscard]] CollectorStatus CollectRdnsExport(const std::filesystem::path& entryDir,
                                                Shared::FileZip::ZipArchiveWrapper& zip) noexcept;

template <int Type>
class LacliRdnsExport {
public:
    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& entryDir,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return CollectRdnsExport(entryDir, zip);
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::Cmd
