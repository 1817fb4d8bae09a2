#include <gmock/gmock.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-crashset.h"
#include "agentcore.diagnostics-logset.h"
#include "shared.util-functions.h"
#include "test-support.h"

namespace AgentCore::Diagnostics {

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;

/// A machine of its own: install folders, ProgramData and profiles in a temporary folder.
class Machine : public testing::Test {
protected:
    Machine() {
        fs::create_directories(root_ / L"ProgramData");
        fs::create_directories(root_ / L"Users");
        const std::wstring list = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList)";
        hive_.SetString(list, L"ProfilesDirectory", (root_ / L"Users").native());
        hive_.SetString(list, L"ProgramData", (root_ / L"ProgramData").native());
        zip_.Open();
    }

    void Put(const std::vector<std::wstring>& files) const {
        for (const std::wstring& file : files) {
            TestSupport::WriteFile(root_ / file, Shared::Util::ToUtf8(file));
        }
    }

    std::vector<CollectorStatus> Run() {
        std::vector<CollectorStatus> statuses = RunSet(LogSet(), zip_);
        std::ranges::move(RunSet(CrashReportSet(), zip_), std::back_inserter(statuses));
        return statuses;
    }

    TestSupport::TemporaryFolder root_;
    TestSupport::ThrowAwayHive hive_;
    TestSupport::CapturedLog log_;
    Shared::FileZip::ZipArchiveWrapper zip_{root_ / L"out.zip"};
};

TEST_F(Machine, GivesItsLogsAndDumpsRowByRow) {
    hive_.SetString(LR"(SOFTWARE\Velqor\OXM)", L"Path", (root_ / LR"(Velqor\OXM\)").native());
    Put({LR"(Velqor\OXM\agent.log)", LR"(Velqor\OXM\sub\ui.log)", LR"(Velqor\OXM\sub\agent.dmp)",
         LR"(Velqor\OXM\agent.LOG2)", LR"(Velqor\Portavo\pv.log)", LR"(Velqor\Portavo\pv.old)",
         LR"(Velqor\Portavo\sub\not.log)", LR"(Velqor\Portavo\vq_pv_hrpt.xml)", LR"(Velqor\Portavo\update_tmp.bat)",
         LR"(Velqor\Portavo\VqPVS.dmp)", LR"(ProgramData\Velqor\Lumora Access Agent\Logs\laa.log)",
         LR"(ProgramData\Velqor\Lumora Access Agent\Logs\LumoraAccessAgentLog.etl.000)",
         LR"(ProgramData\Velqor\Lumora Access Agent\Logs\LumoraAccessAgentLog.etl.005)",
         LR"(ProgramData\Velqor\Lumora Access Agent\Logs\LumoraAccessAgentLog.etl.006)",
         LR"(ProgramData\Velqor\DLP\logs\a\dlp.txt)", LR"(Users\not-a-profile.txt)"});
    for (const std::wstring user : {L"alice", L"bob", L"default", L"Default User", L"Public"}) {
        const std::wstring local = LR"(Users\)" + user + LR"(\AppData\Local\Velqor\)";
        Put({local + LR"(Lumora Access Agent\Logs\u.log)", local + LR"(Portavo\VqPVA.log)",
             local + LR"(Portavo\VqPVA.log.old)", local + LR"(OXM\ViewpaneUI\ui.txt)", local + LR"(OXM\Viewpane\v.txt)",
             local + LR"(Portavo\VqPVA.dmp)", LR"(Users\)" + user + LR"(\VqPVS.dmp)"});
    }
    const auto statuses = Run();

    using Row = std::vector<std::string>;
    std::vector<std::pair<std::string, Row>> expected{
        {"*.log", {"agent.log", "ui.log"}},
        {"*.log, *.old, vq_pv_hrpt.xml, update_tmp.bat", {"pv.log", "pv.old", "vq_pv_hrpt.xml", "update_tmp.bat"}},
        {"*.log, LumoraAccessAgentLog.etl.000, LumoraAccessAgentLog.etl.001, LumoraAccessAgentLog.etl.002, "
         "LumoraAccessAgentLog.etl.003, LumoraAccessAgentLog.etl.004, LumoraAccessAgentLog.etl.005",
         {"laa.log", "LumoraAccessAgentLog.etl.000", "LumoraAccessAgentLog.etl.005"}},
        {"*.txt", {"dlp.txt"}},
        {"setupapi.log", {}},
        {"setupapi.dev*.log, setupapi.app*.log", {}},
        {"VqPlapApp.log", {}},
    };
    for (int user = 0; user < 3; ++user) {
        expected.insert(expected.end(), {{"Logs", {"u.log"}},
                                         {"VqPVA.log, VqPVA.log.old", {"VqPVA.log", "VqPVA.log.old"}},
                                         {"ViewpaneUI", {"ui.txt"}},
                                         {"Viewpane", {"v.txt"}}});
    }
    expected.insert(expected.end(), {{"VqPVS.dmp", {"VqPVS.dmp"}}, {"*.dmp", {"agent.dmp"}}});
    for (int user = 0; user < 3; ++user) {
        expected.insert(expected.end(), {{"VqPVS.dmp, VqPVA.dmp", {"VqPVS.dmp"}}, {"VqPVA.dmp", {"VqPVA.dmp"}}});
    }

    std::map<std::string, Row> archived;
    for (const libzippp::ZipEntry& entry : zip_.Entries()) {
        const std::string name = entry.getName();
        if (const auto slash = name.find('/'); slash + 1 < name.size()) {
            archived[name.substr(0, slash)].push_back(name.substr(slash + 1));
        }
    }
    ASSERT_EQ(statuses.size(), 19U + 8U);
    std::vector<std::pair<std::string, Row>> actual;
    for (const CollectorStatus& status : statuses) {
        const auto& row = status.diagnostic;
        const bool crash = actual.size() >= 19;
        EXPECT_EQ(row.type(), crash ? crashReportType : logType);
        actual.emplace_back(row.name(), status.success ? archived[row.archive_path()] : Row{});
        EXPECT_THAT(status.errors, IsEmpty());
    }
    EXPECT_THAT(actual, ElementsAreArray(expected));

    const auto origin = [&](std::size_t row) { return statuses[row].diagnostic.origin(); };
    const auto below = [&](const wchar_t* path) { return Shared::Util::ToUtf8(root_ / path); };
    EXPECT_EQ(origin(0), below(LR"(Velqor\OXM)"));
    EXPECT_EQ(origin(1), below(LR"(Velqor\Portavo)"));
    EXPECT_EQ(origin(4), R"(C:\WINDOWS)");
    EXPECT_EQ(origin(5), R"(C:\WINDOWS\inf)");
    EXPECT_EQ(origin(6), R"(C:\WINDOWS\system32)");
    EXPECT_THAT(origin(7), testing::EndsWith(R"(\AppData\Local\Velqor\Lumora Access Agent\Logs)"));
    EXPECT_THAT(origin(8), testing::EndsWith(R"(\AppData\Local\Velqor\Portavo)"));
    EXPECT_THAT(std::vector({origin(21), origin(23), origin(25)}), Contains(below(LR"(Users\default)")));
}

TEST_F(Machine, ThatIsBareHasEveryRow) {
    const auto statuses = Run();
    ASSERT_EQ(statuses.size(), 7U + 2U);
    for (const CollectorStatus& status : statuses) {
        EXPECT_FALSE(status.success) << status.diagnostic.name();
    }
    EXPECT_THAT(statuses[1].errors,
                testing::ElementsAre(StartsWith("FileCopier failed copying file vq_pv_hrpt.xml: "),
                                     StartsWith("FileCopier failed copying file update_tmp.bat: ")));
    EXPECT_EQ(statuses[1].diagnostic.origin(), "");
    EXPECT_THAT(zip_.Entries(), IsEmpty());

    fs::remove_all(root_ / L"Users");
    EXPECT_EQ(Run().size(), 9U);
    EXPECT_THAT(log_.Text(), testing::HasSubstr("User based collector failed: "));
}

}  // namespace

}  // namespace AgentCore::Diagnostics
