#include <gmock/gmock.h>

#include <functional>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-sets.h"
#include "diagnostics-test.h"
#include "shared.util-functions.h"

namespace {

using namespace testing;
using namespace AgentCore::Diagnostics;
using TestSupport::WriteFile;

using CommandToFileTest = TestSupport::DiagnosticsTest;

std::function<std::wstring()> command;
std::wstring Command() {
    return command();
}
using Collector = Collectors::Cmd::CommandToFile<&Command, "Out.txt", sampleType>;

TEST_F(CommandToFileTest, FailuresAreOneMessageEach) {
    const std::pair<std::function<std::wstring()>, const char*> failures[] = {
        {[]() -> std::wstring { throw std::runtime_error("no place"); }, "Collector Out.txt failed: no place"},
        {[] { return std::wstring(); }, "Please specify a cmd command."},
    };
    for (const auto& [source, message] : failures) {
        command = source;
        const CollectorStatus status = Collector().Collect(L"SAMPLE_0", zip_);
        EXPECT_FALSE(status.success);
        EXPECT_THAT(status.errors, ElementsAre(HasSubstr(message)));
        EXPECT_THAT(log_.Text(), HasSubstr(message));
        EXPECT_THAT(Archived(), IsEmpty());
        EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
    }
}

class ToolSetTest : public TestSupport::DiagnosticsTest {
protected:
    ToolSetTest() {
        hive_.SetString(L"SOFTWARE\\Velqor\\OXM", L"Path", (machine_ / "Velqor Agent").native() + L"\\\\");
        std::filesystem::create_directory(tool_.parent_path());
    }
    // Runs the row of the export, with the tool exporting a file or what `kind` says instead.
    CollectorStatus RunRdns(const wchar_t* kind = nullptr) {
        SetEnvironmentVariableW(L"TEST_CHILD_EXPORT", kind);
        const CollectorStatus status = RunRow(ToolSet().at(3), zip_);
        SetEnvironmentVariableW(L"TEST_CHILD_EXPORT", nullptr);
        return status;
    }

    const std::filesystem::path tool_ = machine_ / "Lumora Access Agent" / "lacli.exe";
};

TEST_F(ToolSetTest, AnInstallPathThatCannotBeReadIsNoMissingTool) {
    hive_.SetDword(L"SOFTWARE\\Velqor\\OXM", L"Path", 1);
    const std::vector<CollectorRow> rows = InstalledToolSet();
    ASSERT_THAT(rows, SizeIs(1));
    EXPECT_THAT(RunRow(rows.front(), zip_).errors,
                ElementsAre(AllOf(StartsWith("The access agent's tool is not asked: "),
                                  HasSubstr("Cannot read string from registry; "))));
}

TEST_F(ToolSetTest, OnlyAPlainFileOfThisRunIsAnExport) {
    const std::filesystem::path planted = working_ / "lacli_traffic_rdns.log";
    const std::filesystem::path secret = machine_ / "secret";
    WriteFile(planted, "planted");
    WriteFile(secret, "not for everybody");
    for (const bool withTool : {false, true}) {
        if (withTool) {
            WriteFile(tool_, "not a program");
        }
        const CollectorStatus status = RunRdns();
        EXPECT_FALSE(status.success);
        EXPECT_THAT(status.errors, IsEmpty());
    }
    const CollectorStatus other = RunRow(ToolSet().front(), zip_);
    EXPECT_TRUE(other.success) << "what the interpreter says about it is evidence";
    EXPECT_NE(other.diagnostic.raw_process_exit_code(), 0U);

    std::filesystem::copy_file(TestSupport::ChildProgram(), tool_, std::filesystem::copy_options::overwrite_existing);
    for (const wchar_t* kind : {L"folder", secret.c_str()}) {
        EXPECT_THAT(RunRdns(kind).errors,
                    ElementsAre(AllOf(HasSubstr("Collectorlacli_traffic_rdns.log failed: "),
                                      HasSubstr("The file 'lacli_traffic_rdns.log' is not a regular file."))));
    }
    EXPECT_THAT(Archived(), ElementsAre(EndsWith("/lacli_epm_status.log")));
    const CollectorStatus exported = RunRdns();
    EXPECT_EQ(Text(exported.diagnostic.archive_path() + "/lacli_traffic_rdns.log"), "export");
    EXPECT_EQ(TestSupport::ReadFile(secret), "not for everybody");
    EXPECT_EQ(TestSupport::ReadFile(planted), "planted");
}

}  // namespace
