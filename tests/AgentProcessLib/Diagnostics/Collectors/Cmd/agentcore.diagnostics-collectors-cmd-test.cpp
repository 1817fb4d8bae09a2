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
    CollectorStatus RunRdns() { return RunRow(ToolSet().at(3), zip_); }

    const std::filesystem::path tool_ = machine_ / "Lumora Access Agent" / "lacli.exe";
};

TEST_F(ToolSetTest, WithoutAnExportOrAProgramThereIsNoMessage) {
    WriteFile(working_ / "lacli_traffic_rdns.log", "old");
    for (const bool withTool : {false, true}) {
        if (withTool) {
            WriteFile(tool_, "not a program");
        }
        const CollectorStatus status = RunRdns();
        EXPECT_FALSE(status.success);
        EXPECT_THAT(status.errors, IsEmpty());
        EXPECT_EQ(std::filesystem::is_empty(working_.Path()), withTool);
    }
    EXPECT_THAT(Archived(), IsEmpty());
    const CollectorStatus other = RunRow(ToolSet().front(), zip_);
    EXPECT_TRUE(other.success) << "what the interpreter says about it is evidence";
    EXPECT_NE(other.diagnostic.raw_process_exit_code(), 0U);
}

TEST_F(ToolSetTest, WhatIsNoPlainFileIsNoExport) {
    std::filesystem::copy_file(TestSupport::ChildProgram(), tool_);
    for (const wchar_t* kind : {L"folder", L"link"}) {
        WriteFile(working_ / "secret", "not for everybody");
        SetEnvironmentVariableW(L"TEST_CHILD_EXPORT", kind);
        const CollectorStatus status = RunRdns();
        SetEnvironmentVariableW(L"TEST_CHILD_EXPORT", nullptr);
        EXPECT_THAT(status.errors, ElementsAre(AllOf(HasSubstr("Collectorlacli_traffic_rdns.log failed: "),
                                                     HasSubstr("is not a regular file."))));
        EXPECT_FALSE(std::filesystem::exists("lacli_traffic_rdns.log"));
        EXPECT_EQ(TestSupport::ReadFile("secret"), "not for everybody");
    }
    EXPECT_THAT(Archived(), IsEmpty());
}

}  // namespace
