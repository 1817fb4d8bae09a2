#pragma once

#include <ostream>
#include <string>

#include "agentcore.diagnostics-collectors.h"
#include "shared.registry-regkey.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::Registry {

inline constexpr Shared::Util::FixedString portavoKey = L"SOFTWARE\\Velqor\\Portavo";
inline constexpr Shared::Util::FixedString credentialProviderFiltersKey =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Authentication\\Credential Provider Filters";

/// The sections of the report, in UTF-8. Each logs its own failure and leaves what it has written so far. A key that
/// does not exist is no failure; that of the filters is part of Windows, and logged when it cannot be opened.
void WriteCredentialProviderFilters(std::ostream& report) noexcept;
void WriteLatestCP(std::ostream& report) noexcept;
void WritePreferredIP(std::ostream& report) noexcept;
void WritePrelogon(std::ostream& report) noexcept;
void WriteCPGuid(std::ostream& report) noexcept;
void WriteSettings(std::ostream& report) noexcept;

/// A value for a reader: a string as text, a REG_DWORD as an unsigned number, the strings of a multi-string joined with
/// ", ", anything else as "(type N, M bytes)". Unpaired surrogates become U+FFFD.
[[nodiscard]] std::string ValueText(const Shared::Registry::RegKey::Value& value);

/// Archives the report "regval.txt" on the VPN client. Without the client's key there is no file, only a message.
[[nodiscard]] CollectorStatus CollectPVRegistryValues(const Destination& destination) noexcept;

template <int Type>
using PVRegistryValues = FunctionCollector<&CollectPVRegistryValues, Type>;

}  // namespace AgentCore::Diagnostics::Collectors::Registry
