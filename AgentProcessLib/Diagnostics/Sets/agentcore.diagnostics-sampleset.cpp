#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-collectors-tcpbind.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

template <Shared::Util::FixedString Command, Shared::Util::FixedString FileName>
CollectorRow CommandRow() {
    const auto text = [] { return Shared::Util::ToUtf8Lossy(std::wstring_view(Command)); };
    return {.type = sampleType,
            .name = text(),
            .origin = text,
            .collectors = {AsRun<Collectors::Cmd::CommandToFile<Command, FileName, sampleType>>()}};
}

CollectorRow TcpBindRow() {
    using namespace Collectors::Registry;
    return {.type = sampleType,
            .name = TcpBindSource(),
            .origin = &TcpBindKeyName,
            .collectors = {AsRun<TcpBind<sampleType>>()}};
}

}  // namespace

std::vector<CollectorRow> SampleSet() {
    return {
        CommandRow<L"route print", "RoutePrint.txt">(),
        CommandRow<L"ipconfig /all", "IpConfig.txt">(),
        CommandRow<L"wmic nicconfig list full", "NicConfig.txt">(),
        CommandRow<L"netsh interface ipv4 show interfaces level = verbose", "NicDetails.txt">(),
        CommandRow<L"netstat -n", "NetStat.txt">(),
        CommandRow<L"systeminfo", "SystemInfo.txt">(),
        CommandRow<L"wmic process list full", "ProcessInfo.txt">(),
        CommandRow<L"wmic service where state='running' list full", "ServiceInfo.txt">(),
        CommandRow<L"wmic sysdriver where state='running' list full", "DriverInfo.txt">(),
        TcpBindRow(),
    };
}

}  // namespace AgentCore::Diagnostics
