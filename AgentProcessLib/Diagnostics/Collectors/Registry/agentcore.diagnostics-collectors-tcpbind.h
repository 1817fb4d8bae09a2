#pragma once

#include <string>

#include "agentcore.diagnostics-collectors.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

/// The key that lists the bindings of the TCP/IP stack, and the key with the name of the value behind it, as the
/// manifest names them: "HKLM\{}" and "HKLM\{}\{}".
[[nodiscard]] std::string TcpBindKeyName();
[[nodiscard]] std::string TcpBindSource();

/// Archives the network bindings of the TCP/IP stack, one a line, the empty one that ends the list included. A list
/// without any binding makes an empty file.
[[nodiscard]] CollectorStatus CollectTcpBind(const Destination& destination) noexcept;

template <int Type>
using TcpBind = FunctionCollector<&CollectTcpBind, Type>;

}  // namespace AgentCore::Diagnostics::Collectors::Registry
