#include <string>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-collectors-lacli.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

using namespace Collectors::Cmd;
using Shared::Util::ToUtf8Lossy;

template <Shared::Util::FixedString Arguments>
std::wstring ToolCommand() {
    return ToolCommandLine(Arguments);
}

template <Shared::Util::FixedString Arguments, Shared::Util::FixedString FileName>
CollectorRow ToolRow() {
    return {.type = sampleType,
            .name = ToUtf8Lossy(std::wstring_view(Arguments)),
            .origin = [] { return ToUtf8Lossy(ToolCommand<Arguments>()); },
            .collectors = {AsRun<CommandToFile<&ToolCommand<Arguments>, FileName, sampleType>>()}};
}

CollectorRow RdnsRow() {
    return {.type = sampleType,
            .name = ToUtf8Lossy(rdnsArguments),
            .origin = [] { return ToUtf8Lossy(RdnsCommandLine()); },
            .collectors = {AsRun<LacliRdnsExport<sampleType>>()}};
}

}  // namespace

std::vector<CollectorRow> ToolSet() {
    return {
        ToolRow<L"epm status", "lacli_epm_status.log">(),      //
        ToolRow<L"status", "lacli_status.log">(),              //
        ToolRow<L"traffic log", "lacli_traffic_log.log">(),    //
        RdnsRow(),                                             //
        ToolRow<L"traffic show", "lacli_traffic_show.log">(),  //
        ToolRow<L"tunnel", "lacli_tunnel.log">(),
    };
}

}  // namespace AgentCore::Diagnostics
