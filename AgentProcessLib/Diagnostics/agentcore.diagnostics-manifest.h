#pragma once

#include <span>

#include "agentcore.diagnostics-collectors.h"

namespace AgentCore::Diagnostics {

/// Adds "manifest.json" to the archive's root: one entry per status, in order. Throws RuntimeException when the JSON
/// text cannot be made or archived, Win32Exception when its temporary file cannot be written.
void WriteManifest(std::span<const CollectorStatus> statuses, Shared::FileZip::ZipArchiveWrapper& zip);

}  // namespace AgentCore::Diagnostics
