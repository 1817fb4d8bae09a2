#include <gmock/gmock.h>

#include <optional>

#include "agentcore.diagnostics-collectors-keyexport.h"
#include "agentcore.diagnostics-collectors-pvregistryvalues.h"
#include "agentcore.diagnostics-collectors-tcpbind.h"
#include "diagnostics-test.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics::Collectors::Registry {
namespace {

using std::string_literals::operator""s;
using namespace testing;

const std::wstring oxm = L"SOFTWARE\\Velqor\\OXM";
const std::wstring lumora = L"SOFTWARE\\Velqor\\Lumora Access Agent";
const std::wstring portavo = L"SOFTWARE\\Velqor\\Portavo";
const std::wstring filters =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Authentication\\Credential Provider Filters";
const std::wstring linkage = L"SYSTEM\\CurrentControlSet\\services\\Tcpip\\Linkage";

std::string Raw(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

class RegistryCollectors : public TestSupport::DiagnosticsTest {
protected:
    /// The text that a collector archives under the name, or nothing; whatever happens, no file stays behind.
    template <class T>
    std::optional<std::string> Collect(const std::string& name) {
        const std::string folder = "folder" + std::to_string(++runs_);
        status_ = T().Collect(Shared::Util::PathFromUtf8(folder), zip_);
        EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
        EXPECT_EQ(status_.success, status_.errors.empty());
        return Text(folder + "/" + name);
    }
    auto CollectOxm() { return Collect<AoxmRegistryKey<"oxm.txt", L"SOFTWARE\\Velqor\\OXM", 4>>("oxm.txt"); }
    auto CollectLumora() { return Collect<LumoraAccessAgentRegistryKey<4>>("lumora-access-agent.txt"); }
    auto CollectReport() { return Collect<PVRegistryValues<4>>("regval.txt"); }
    auto CollectBindings() { return Collect<TcpBind<3>>("TcpipBind.txt"); }

    CollectorStatus status_;
    int runs_ = 0;
};

TEST_F(RegistryCollectors, DumpsHoldValuesAndEndAtKeysWithoutThem) {
    hive_.SetString(oxm, L"Path", L"C:\\\x00C4gent");
    hive_.SetRaw(oxm, L"Zero", REG_BINARY, "");
    hive_.SetDword(oxm + L"\\Config", L"Unseen", 1);
    EXPECT_EQ(CollectOxm(),
              "Keyname: SOFTWARE\\Velqor\\OXM\r\n[String] (Default) = (value not set)\r\n"
              "[String] Path = C:\\\xC3\x84gent\r\n\r\n");

    hive_.SetString(lumora, L"", L"top");
    hive_.SetDword(lumora + L"\\a\\x", L"Unseen", 1);
    hive_.SetDword(lumora + L"\\b\\y", L"n", 2);
    hive_.SetDword(lumora + L"\\b", L"n", 3);
    hive_.SetDword(lumora + L"\\c", L"n", 4);
    const std::string head = "Keyname: SOFTWARE\\Velqor\\Lumora Access Agent";
    const std::string unset = "\r\n[String] (Default) = (value not set)\r\n[DWord] n = ";
    EXPECT_EQ(CollectLumora(), head + "\r\n[String] (Default) = top\r\n[String]  = top\r\n" + head + "\\a\r\n" + head +
                                   "\\b" + unset + "3\r\n" + head + "\\b\\y" + unset + "2\r\n" + head + "\\c" + unset +
                                   "4\r\n");
}

TEST_F(RegistryCollectors, WhatCannotBeHadIsOneMessage) {
    const auto expectNothing = [this](const std::optional<std::string>& text, const char* start, const char* reason) {
        EXPECT_EQ(text, std::nullopt);
        EXPECT_THAT(status_.errors, ElementsAre(AllOf(StartsWith(start), HasSubstr(reason))));
    };
    expectNothing(CollectReport(), "Not dumping the Portavo key SOFTWARE\\Velqor\\Portavo as it does not exist.", "");
    EXPECT_EQ(log_.Text(), "");
    expectNothing(CollectOxm(), "Not dumping the AOXM registry key SOFTWARE\\Velqor\\OXM as it wasn't found.", "");
    expectNothing(CollectLumora(), "Failed exporting Lumora Access Agent key SOFTWARE\\Velqor\\Lumora Access Agent: ",
                  "Cannot open non-existent registry key HKEY_LOCAL_MACHINE\\SOFTWARE\\Velqor\\Lumora");
    EXPECT_THAT(log_.Text(), AllOf(HasSubstr("Not dumping the AOXM"), HasSubstr("Failed exporting Lumora")));

    hive_.SetString(oxm, L"n", L"lone \xD800 surrogate");
    expectNothing(CollectOxm(),
                  "Failed exporting AOXM registry key SOFTWARE\\Velqor\\OXM: ", "ConvertWStringToString()");
}

TEST_F(RegistryCollectors, DumpsTreesOfAnyShape) {
    std::wstring path = lumora;
    for (int level = 0; level < 400; ++level) {
        hive_.SetDword(path, L"n", 1);
        path += L"\\k";
    }
    for (int number = 0; number < 1500; ++number) {
        hive_.SetDword(lumora + L"\\k\\z" + std::to_wstring(number), L"n", 1);
    }
    const std::string text = CollectLumora().value_or("");
    EXPECT_EQ(std::ranges::count(text, ':'), 1900) << "one for each key's name";
}

TEST_F(RegistryCollectors, TheReportHasItsSectionsInOrder) {
    hive_.SetString(filters + L"\\{1}", L"", L"First");
    hive_.CreateKey(filters + L"\\{2}");
    hive_.SetRaw(portavo, L"LatestCP", REG_BINARY, "x");
    hive_.SetString(portavo, L"wrap-cp-guid", L"{guid \xDC00}");
    hive_.SetRaw(portavo + L"\\VqPVS", L"PreferredIP", REG_DWORD, "\x0A\x01\xFE\x63");
    hive_.SetDword(portavo + L"\\VqSetup", L"Prelogon", 0xFFFFFFFF);
    hive_.SetString(portavo + L"\\Settings", L"text", L"a=b");
    hive_.SetDword(portavo + L"\\Settings", L"number", 3000000000);
    hive_.SetRaw(portavo + L"\\Settings", L"list", REG_MULTI_SZ, Raw(L"a\0b\0\0"s));
    hive_.SetRaw(portavo + L"\\Settings", L"other", REG_QWORD, "12345678");
    hive_.SetRaw(portavo + L"\\Settings", L"short", REG_DWORD, "");
    const std::string text = CollectReport().value_or("");
    EXPECT_THAT(text.substr(0, text.find("\r\nSettings:\r\n") + 13),
                MatchesRegex("Credential Provider Filters:\r\n"
                             "SOFTWARE.Microsoft.*Filters.\\{1\\} \\| First \\| ..:..:.. ....-..-..\r\n"
                             "SOFTWARE.Microsoft.*Filters.\\{2\\} \\| \\(value not set\\) \\| ..:..:.. ....-..-..\r\n"
                             "\r\nSSO cache:\r\nSSO cache is not empty.\r\n"
                             "\r\nPreferredIP:10.1.254.99"
                             "\r\nPrelogon:4294967295"
                             "\r\nWrap CP Guid:\r\n\\{guid \xEF\xBF\xBD\\}"
                             "\r\nSettings:\r\n"));
    for (const char* line :
         {"text=a=b", "number=3000000000", "list=a, b", "other=(type 11, 8 bytes)", "short=(type 4, 0 bytes)"}) {
        EXPECT_THAT(text, HasSubstr(line + "\r\n"s));
    }
}

TEST_F(RegistryCollectors, AFailingSectionCostsNoOther) {
    hive_.SetDword(portavo, L"wrap-cp-guid", 1);
    hive_.SetRaw(portavo + L"\\VqPVS", L"PreferredIP", REG_BINARY, std::string(16, 'x'));
    hive_.SetString(portavo + L"\\VqSetup", L"Prelogon", L"on");
    EXPECT_EQ(
        CollectReport(),
        "Credential Provider Filters:\r\n\r\nSSO cache:\r\nSSO cache is empty.\r\n\r\nPreferredIP:"
        "Failed writing out the PreferredIP value as it was unexpected size: 16.\r\nPrelogon:on\r\nSettings:\r\n");
    // A missing key is no fault, and takes no room in the log.
    EXPECT_THAT(log_.Text(), ContainsRegex("^.*warning. Failed writing out CP GUID: Exception"));
    EXPECT_EQ(log_.Text().find("Failed"), log_.Text().rfind("Failed writing"));
    std::ostringstream absent;
    hive_.CreateKey(portavo + L"\\VqEmpty");
    TestSupport::ThrowAwayHive bare;
    WritePreferredIP(absent);
    WritePrelogon(absent);
    bare.CreateKey(portavo);
    WriteCPGuid(absent);
    EXPECT_EQ(absent.str(),
              "\nPreferredIP is not present\n\nPrelogon value is not present\n"
              "\nwrap-cp-guid value is not present.\n");
}

TEST_F(RegistryCollectors, BindingsAreLinesOfANewFile) {
    const std::pair<std::wstring, std::string> cases[] = {
        {L"\\Device\\{1}\0\x4E2D\x6587 \xD83D\xDE00\0\0"s,
         "\\Device\\{1}\r\n\xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80\r\n\r\n"},
        {L"b\xD800\0\0"s, "b\xEF\xBF\xBD\r\n\r\n"},
        {L"\0"s, ""},
        {L"\0\0"s, ""},
        {L"", ""},
    };
    for (const auto& [stored, text] : cases) {
        hive_.SetRaw(linkage, L"Bind", REG_MULTI_SZ, Raw(stored));
        TestSupport::WriteFile(working_ / "TcpipBind.txt", "left over");
        EXPECT_EQ(CollectBindings(), text);
    }
    TestSupport::WriteFile(working_ / "TcpipBind.txt" / "in the way", "");
    status_ = TcpBind<3>().Collect(L"other", zip_);
    EXPECT_THAT(status_.errors, ElementsAre(AllOf(StartsWith("TcpBind failed: "), HasSubstr("remove"))));
    EXPECT_THAT(log_.Text(), HasSubstr("TcpBind failed: "));
}

}  // namespace
}  // namespace AgentCore::Diagnostics::Collectors::Registry
