#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-collectors-tcpbind.h"
#include "agentcore.diagnostics-sets.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

template <Shared::Util::FixedString Command, Shared::Util::FixedString FileName>
CollectorRow CommandRow() {
    const std::string text = Shared::Util::ToUtf8Lossy(std::wstring_view(Command));
    return Row<Collectors::Cmd::CommandToFile<Command, FileName, sampleType>>(text, text);
}

}  // namespace

std::vector<CollectorRow> SampleSet() {
    using namespace Collectors::Registry;
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
        Row<TcpBind<sampleType>>(TcpBindSource(), TcpBindKeyName()),
    };
}

}  // namespace AgentCore::Diagnostics
