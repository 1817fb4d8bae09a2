#include <windows.h>

#include <gmock/gmock.h>

#include "agentcore.diagnostics-toolset.h"
#include "shared.util-functions.h"
#include "test-support.h"

namespace {

using namespace testing;
using namespace AgentCore::Diagnostics;
using Shared::FileZip::ZipArchiveWrapper;

/// An installed tool, a current directory and an archive.
class ToolSetTest : public Test {
protected:
    ToolSetTest() {
        hive_.SetString(L"SOFTWARE\\Velqor\\OXM", L"Path", (folder_ / "Velqor Agent").native() + L"\\\\");
        std::filesystem::create_directories(Tool().parent_path());
        zip_.Open();
    }
    [[nodiscard]] std::filesystem::path Tool() const { return folder_ / "Lumora Access Agent" / "lacli.exe"; }
    void Install() const { std::filesystem::copy_file(TestSupport::ChildProgram(), Tool()); }
    CollectorStatus RunRdns() { return RunRow(ToolSet().at(3), zip_); }

    TestSupport::ThrowAwayHive hive_;
    TestSupport::TemporaryFolder folder_;
    TestSupport::WorkingFolder working_;
    ZipArchiveWrapper zip_{folder_ / "out.zip"};
};

TEST_F(ToolSetTest, EveryQuestionIsAnsweredInOrder) {
    Install();
    TestSupport::WriteFile(working_.Path() / "lacli_traffic_rdns.log", "old");
    const std::vector<CollectorStatus> statuses = RunSet(ToolSet(), zip_);
    std::vector<std::string> names;
    for (const CollectorStatus& status : statuses) {
        EXPECT_TRUE(status.success);
        names.push_back(status.diagnostic.name());
        EXPECT_THAT(status.diagnostic.origin(), StartsWith('"' + Shared::Util::ToUtf8(Tool()) + "\" " + names.back()));
    }
    EXPECT_THAT(names,
                ElementsAre("epm status", "status", "traffic log", "traffic rdns export", "traffic show", "tunnel"));
    std::string text;
    for (const auto& entry : zip_.Entries()) {
        if (entry.isFile()) {
            text += entry.getName().substr(entry.getName().find('/') + 1) + ": " + entry.readAsText();
        }
    }
    EXPECT_THAT(text, AllOf(HasSubstr("lacli_epm_status.log: Command: \""), HasSubstr("epm status\r\nExit code: 0\r\n"),
                            HasSubstr("lacli_traffic_rdns.log: 10.20.0.7"), Not(HasSubstr("old")),
                            HasSubstr("Tunnel: connected")));
    EXPECT_TRUE(std::filesystem::is_empty(working_.Path()));
}

TEST_F(ToolSetTest, WithoutAnExportOrAProgramThereIsNoMessage) {
    TestSupport::WriteFile(working_.Path() / "lacli_traffic_rdns.log", "old");
    for (const bool withTool : {false, true}) {
        if (withTool) {
            TestSupport::WriteFile(Tool(), "not a program");
        }
        const CollectorStatus status = RunRdns();
        EXPECT_FALSE(status.success);
        EXPECT_THAT(status.errors, IsEmpty());
        EXPECT_EQ(std::filesystem::is_empty(working_.Path()), withTool);
    }
    EXPECT_THAT(zip_.Entries(), IsEmpty());
    const CollectorStatus other = RunRow(ToolSet().front(), zip_);
    EXPECT_TRUE(other.success) << "what the interpreter says about it is evidence";
    EXPECT_NE(other.diagnostic.raw_process_exit_code(), 0U);
}

TEST_F(ToolSetTest, WhatIsNoPlainFileIsNoExport) {
    Install();
    for (const wchar_t* kind : {L"folder", L"link"}) {
        TestSupport::WriteFile(working_.Path() / "secret", "not for everybody");
        SetEnvironmentVariableW(L"TEST_CHILD_EXPORT", kind);
        const CollectorStatus status = RunRdns();
        SetEnvironmentVariableW(L"TEST_CHILD_EXPORT", nullptr);
        EXPECT_THAT(status.errors, ElementsAre(AllOf(HasSubstr("Collectorlacli_traffic_rdns.log failed: "),
                                                     HasSubstr("is not a regular file."))));
        EXPECT_FALSE(std::filesystem::exists("lacli_traffic_rdns.log"));
        EXPECT_EQ(TestSupport::ReadFile("secret"), "not for everybody");
    }
    EXPECT_THAT(zip_.Entries(), IsEmpty());
}

}  // namespace
