#include "agentcore.diagnostics-toolset.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <string>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-collectors-laclirdns.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

using Shared::Util::ToUtf8;

template <Shared::Util::FixedString Arguments>
std::wstring ToolCommand() {
    return ToolCommandLine(Arguments.ToView());
}

template <Shared::Util::FixedString Arguments, Shared::Util::FixedString FileName>
CollectorRow ToolRow() {
    return {.type = sampleType,
            .name = ToUtf8(Arguments.ToView()),
            .origin = [] { return ToUtf8(ToolCommand<Arguments>()); },
            .collectors = {AsRun<Collectors::Cmd::CommandToFile<&ToolCommand<Arguments>, FileName, sampleType>>()}};
}

CollectorRow RdnsRow() {
    using namespace Collectors::Cmd;
    return {.type = sampleType,
            .name = ToUtf8(rdnsArguments),
            .origin = [] { return ToUtf8(ToolCommandLine(fmt::format(L"{} {}", rdnsArguments, rdnsFileName))); },
            .collectors = {AsRun<LacliRdnsExport<sampleType>>()}};
}

}  // namespace

std::vector<CollectorRow> ToolSet() {
    return {
        ToolRow<L"epm status", "lacli_epm_status.log">(),     ToolRow<L"status", "lacli_status.log">(),
        ToolRow<L"traffic log", "lacli_traffic_log.log">(),   RdnsRow(),
        ToolRow<L"traffic show", "lacli_traffic_show.log">(), ToolRow<L"tunnel", "lacli_tunnel.log">(),
    };
}

}  // namespace AgentCore::Diagnostics
