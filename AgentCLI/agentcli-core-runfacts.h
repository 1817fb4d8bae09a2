#pragma once

#include <diagnostics.pb.h>

#include <string>

namespace AgentCLI::Core {

/// What support has to know about this run and the machine, gathered at the first call. Facts that cannot be had, and
/// whether the run was interrupted, are absent.
[[nodiscard]] const ::Diagnostics::Run& RunFacts();

/// The facts as one line, each shortened to 1000 bytes; without elevation it says what will be missing.
[[nodiscard]] std::string DescribeRun();

}  // namespace AgentCLI::Core
