#pragma once

#include <span>

#include "agentcore.diagnostics-collectors.h"

namespace AgentCore::Diagnostics {

/// Adds "manifest.json" to the archive's root: one entry per status, in order, and the facts about the run. Waits at
/// most a second for files that other processes hold. Throws RuntimeException when the JSON text cannot be made or
/// archived, Win32Exception when its temporary file cannot be written.
void WriteManifest(std::span<const CollectorStatus> statuses, Shared::FileZip::ZipArchiveWrapper& zip,
                   const ::Diagnostics::Run& run);

}  // namespace AgentCore::Diagnostics
