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
        {L"\\Device\\{1}\0\x4E2D\x6587 \xD83D\xDE00\0\0"s,
         "\\Device\\{1}\r\n\xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80\r\n\r\n"},
        {L"b\xD800\0\0"s, "b\xEF\xBF\xBD\r\n\r\n"},
        {L"\0"s, ""},
        {L"\0\0"s, ""},
        {L"", ""},
    };
    std::string folder = "folder";
    for (const auto& [stored, text] : cases) {
        hive_.SetRaw(L"SYSTEM\\CurrentControlSet\\services\\Tcpip\\Linkage", L"Bind", REG_MULTI_SZ, Raw(stored));
        TestSupport::WriteFile(working_ / "TcpipBind.txt", "left over");
        folder += 'x';
        EXPECT_TRUE(TcpBind<3>().Collect(folder, zip_).success);
        EXPECT_EQ(Text(folder + "/TcpipBind.txt"), text);
        EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
    }
    TestSupport::WriteFile(working_ / "TcpipBind.txt" / "in the way", "");
    EXPECT_THAT(TcpBind<3>().Collect(L"other", zip_).errors,
                ElementsAre(AllOf(StartsWith("TcpBind failed: "), HasSubstr("remove"))));
    EXPECT_THAT(log_.Text(), HasSubstr("TcpBind failed: "));
}

}  // namespace
}  // namespace AgentCore::Diagnostics::Collectors::Registry
