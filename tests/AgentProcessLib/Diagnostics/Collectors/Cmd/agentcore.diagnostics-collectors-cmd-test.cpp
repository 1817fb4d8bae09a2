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
    struct Case {
        std::function<std::wstring()> source;
        const char* message;
        unsigned exitCode = 0;
        std::uint64_t maxArchiveSize = 0;
    };
    for (const Case& failing : {
             Case{[]() -> std::wstring { throw std::runtime_error("no place"); }, "Collector Out.txt failed: no place"},
             Case{[] { return std::wstring(); }, "Please specify a cmd command."},
             Case{[] { return L"exit /b 4"; }, "Out.txt", 4, 1},
         }) {
        Shared::FileZip::ZipArchiveWrapper zip(machine_ / "limited.zip", failing.maxArchiveSize);
        zip.Open();
        command = failing.source;
        const CollectorStatus status = Collector().Collect(L"SAMPLE_0", zip);
        EXPECT_FALSE(status.success);
        EXPECT_THAT(status.errors, ElementsAre(HasSubstr(failing.message)));
        EXPECT_THAT(log_.Text(), HasSubstr(failing.message));
        EXPECT_EQ(status.diagnostic.raw_process_exit_code(), failing.exitCode);
        EXPECT_EQ(std::ranges::count_if(zip.Entries(), &libzippp::ZipEntry::isFile), 0);
        EXPECT_FALSE(std::filesystem::exists("Out.txt"));
    }
}

TEST_F(CommandToFileTest, ANameThatIsTakenCostsNothing) {
    TestSupport::WriteFile(working_ / "Out.txt" / "another program's", "own");
    command = [] { return L"echo kept"; };
    EXPECT_TRUE(Collector().Collect(L"SAMPLE_0", zip_).success);
    EXPECT_THAT(Text("SAMPLE_0/Out.txt"), Optional(HasSubstr("Output:\r\nkept\r\n")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(working_.Path()), {}), 1);
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
