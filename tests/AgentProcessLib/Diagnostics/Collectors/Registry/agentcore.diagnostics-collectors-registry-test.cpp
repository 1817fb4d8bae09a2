#include <gmock/gmock.h>

#include "agentcore.diagnostics-collectors-tcpbind.h"
#include "diagnostics-test.h"

namespace AgentCore::Diagnostics::Collectors::Registry {
namespace {

using std::string_literals::operator""s;
using namespace testing;
using TestSupport::Raw;

using TcpBindTest = TestSupport::DiagnosticsTest;

TEST_F(TcpBindTest, BindingsAreLinesOfANewFile) {
    const std::pair<std::wstring, std::string> cases[] = {
        {L"b\xD800\0\0"s, "b\xEF\xBF\xBD\r\n\r\n"}, {L"\0"s, ""}, {L"\0\0"s, ""}, {L"", ""}};
    std::string folder = "folder";
    for (const auto& [stored, text] : cases) {
        hive_.SetRaw(L"SYSTEM\\CurrentControlSet\\services\\Tcpip\\Linkage", L"Bind", REG_MULTI_SZ, Raw(stored));
        folder += 'x';
        EXPECT_TRUE(TcpBind<3>().Collect(folder, zip_).success);
        EXPECT_EQ(Text(folder + "/TcpipBind.txt"), text);
    }
    TestSupport::WriteFile(working_ / "TcpipBind.txt" / "in the way", "");
    EXPECT_THAT(TcpBind<3>().Collect(L"other", zip_).errors,
                ElementsAre(AllOf(StartsWith("TcpBind failed: "), HasSubstr("remove"))));
}

}  // namespace
}  // namespace AgentCore::Diagnostics::Collectors::Registry
