#include <gmock/gmock.h>

#include <functional>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-sampleset.h"
#include "shared.util-functions.h"
#include "test-support.h"

namespace {

using namespace testing;
using namespace AgentCore::Diagnostics;
using AgentCore::Diagnostics::Collectors::Cmd::CommandToFile;
using Shared::FileZip::ZipArchiveWrapper;

std::function<std::wstring()> command;
std::wstring Command() {
    return command();
}
using Collector = CommandToFile<&Command, "Out.txt", sampleType>;

std::wstring ChildLine(const std::wstring& steps) {
    return L'"' + TestSupport::ChildProgram().native() + L"\" " + steps;
}

TEST(CommandToFile, ArchivesTheOutputByteForByteAndLeavesNothing) {
    const TestSupport::WorkingFolder folder;
    const TestSupport::TemporaryFolder output;
    ZipArchiveWrapper zip(output / "out.zip");
    zip.Open();
    command = [] { return ChildLine(L"bytes 300 exit 3"); };
    (void)Collector().Collect(L"WARM_0", zip);
    const unsigned handles = TestSupport::HandleCount();

    const CollectorStatus status = Collector().Collect(L"SAMPLE_0", zip);

    EXPECT_TRUE(status.success);
    EXPECT_THAT(status.errors, IsEmpty());
    EXPECT_EQ(status.diagnostic.raw_process_exit_code(), 3U);
    EXPECT_EQ(TestSupport::HandleCount(), handles);
    EXPECT_FALSE(std::filesystem::exists("Out.txt"));
    std::string bytes;
    for (unsigned index = 0; index < 300; ++index) {
        bytes += static_cast<char>(index % 251);
    }
    EXPECT_EQ(zip.Entries().back().getName(), "SAMPLE_0/Out.txt");
    EXPECT_EQ(zip.Entries().back().readAsText(),
              "Command: " + Shared::Util::ToUtf8(command()) + "\r\nExit code: 3\r\nOutput:\r\n" + bytes + "\r\n");
}

TEST(CommandToFile, FailuresAreOneMessageEach) {
    const TestSupport::TemporaryFolder output;
    struct Case {
        std::function<std::wstring()> source;
        bool blocked;
        const char* message;
    };
    for (const Case& failing : {
             Case{[]() -> std::wstring { throw std::runtime_error("no place"); }, false,
                  "Collector Out.txt failed: no place"},
             Case{[] { return std::wstring(); }, false, "Please specify a cmd command."},
             Case{[] { return std::wstring(L"rem"); }, true, "Collector Out.txt failed: "},
         }) {
        const TestSupport::WorkingFolder folder;
        const TestSupport::CapturedLog log;
        ZipArchiveWrapper zip(output / "out.zip");
        zip.Open();
        if (failing.blocked) {
            TestSupport::WriteFile(folder.Path() / "Out.txt" / "somebody's", "own");
        }
        command = failing.source;
        const CollectorStatus status = Collector().Collect(L"SAMPLE_0", zip);
        EXPECT_FALSE(status.success);
        EXPECT_THAT(status.errors, ElementsAre(HasSubstr(failing.message)));
        EXPECT_THAT(log.Text(), HasSubstr(failing.message));
        EXPECT_THAT(zip.Entries(), IsEmpty());
        EXPECT_EQ(std::filesystem::exists("Out.txt"), failing.blocked);
    }
}

TEST(CommandToFile, AnArchiveThatRefusesTheFileStillLearnsTheExitCode) {
    const TestSupport::WorkingFolder folder;
    const TestSupport::TemporaryFolder output;
    ZipArchiveWrapper zip(output / "out.zip", 1);
    zip.Open();
    command = [] { return L"exit /b 4"; };
    const CollectorStatus status = Collector().Collect(L"SAMPLE_0", zip);
    EXPECT_FALSE(status.success);
    EXPECT_THAT(status.errors, ElementsAre(HasSubstr("Out.txt")));
    EXPECT_EQ(status.diagnostic.raw_process_exit_code(), 4U);
    EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
}

TEST(SampleSet, YieldsOneFilePerRowWhateverTheMachineHas) {
    const TestSupport::WorkingFolder folder;
    const TestSupport::TemporaryFolder output;
    ZipArchiveWrapper zip(output / "out.zip");
    zip.Open();
    const TestSupport::ThrowAwayHive hive;
    hive.SetRaw(L"SYSTEM\\CurrentControlSet\\services\\Tcpip\\Linkage", L"Bind", REG_MULTI_SZ, {"\0\0", 2});
    const std::vector<CollectorStatus> statuses = RunSet(SampleSet(), zip);
    ASSERT_EQ(statuses.size(), 10U);
    for (const CollectorStatus& status : statuses) {
        EXPECT_TRUE(status.success) << status.diagnostic.name();
    }
    std::vector<libzippp::ZipEntry> files = zip.Entries();
    std::erase_if(files, [](const auto& entry) { return !entry.isFile(); });
    ASSERT_EQ(files.size(), 10U);
    EXPECT_EQ(files[8].getName(), "DIAGNOSTIC_TYPE_SAMPLE_ALL_8/DriverInfo.txt");
    EXPECT_THAT(files[8].readAsText(), StartsWith("Command: " + statuses[8].diagnostic.name() + "\r\nExit code: "));
    EXPECT_EQ(statuses[9].diagnostic.name(), R"(HKLM\SYSTEM\CurrentControlSet\services\Tcpip\Linkage\Bind)");
    EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
}

}  // namespace
