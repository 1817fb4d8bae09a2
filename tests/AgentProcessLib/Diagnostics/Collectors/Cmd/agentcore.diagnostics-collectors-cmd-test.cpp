#include <gmock/gmock.h>

#include "agentcore.diagnostics-sets.h"
#include "diagnostics-test.h"
#include "shared.util-functions.h"

namespace {

using namespace testing;
using namespace AgentCore::Diagnostics;
using TestSupport::WriteFile;

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

TEST_F(ToolSetTest, OnlyAPlainFileOfThisRunIsAnExport) {
    const std::filesystem::path planted = working_ / "lacli_traffic_rdns.log";
    const std::filesystem::path secret = machine_ / "secret";
    WriteFile(planted, "planted");
    WriteFile(secret, "not for everybody");
    const CollectorStatus missing = RunRdns();
    EXPECT_FALSE(missing.success);
    EXPECT_THAT(missing.errors, IsEmpty());
    std::filesystem::copy_file(TestSupport::ChildProgram(), tool_);
    for (const wchar_t* kind : {L"folder", secret.c_str()}) {
        EXPECT_THAT(RunRdns(kind).errors,
                    ElementsAre(AllOf(HasSubstr("Collectorlacli_traffic_rdns.log failed: "),
                                      HasSubstr("The file 'lacli_traffic_rdns.log' is not a regular file."))));
    }
    EXPECT_THAT(Archived(), IsEmpty());
    const CollectorStatus exported = RunRdns();
    EXPECT_EQ(Text(exported.diagnostic.archive_path() + "/lacli_traffic_rdns.log"), "export");
    EXPECT_EQ(TestSupport::ReadFile(secret), "not for everybody");
    EXPECT_EQ(TestSupport::ReadFile(planted), "planted");
}

}  // namespace
