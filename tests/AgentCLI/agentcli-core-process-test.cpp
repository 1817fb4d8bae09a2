#include "agentcli-core-process.h"

#include <gmock/gmock.h>

#include "shared.concurrency-cmdrunner.h"
#include "shared.filezip-ziparchivewrapper.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace AgentCLI::Core {

namespace {

TEST(PrepareProcess, ChildrenFindProgramsInTheSystemsFoldersOnly) {
    SetEnvironmentVariableW(L"PATH", L"C:\\users\\public\\tools");
    SetEnvironmentVariableW(L"PATHEXT", L".js");
    for (const wchar_t* name : {L"SystemRoot", L"windir", L"ComSpec"}) {
        SetEnvironmentVariableW(name, L"C:\\users\\public");
    }
    SetEnvironmentVariableW(L"NoDefaultCurrentDirectoryInExePath", nullptr);
    PrepareProcess();
    const auto run = Shared::Concurrency::Execute<Shared::Concurrency::EmptyParser>(
        L"echo %NoDefaultCurrentDirectoryInExePath% %PATHEXT% %PATH% %SystemRoot% %windir% %ComSpec%",
        std::chrono::seconds(20));
    EXPECT_THAT(run.output, testing::StartsWith("1 .COM;.EXE;.BAT;.CMD "));
    EXPECT_THAT(run.output, testing::AllOf(testing::HasSubstr("32;"), testing::Not(testing::HasSubstr("public"))));
    EXPECT_EQ(GetErrorMode() & SEM_NOGPFAULTERRORBOX, static_cast<UINT>(SEM_NOGPFAULTERRORBOX));
}

TEST(PrepareProcess, EntryTimesAreLocalTimeByWindows) {
    // In that hour the clocks of the zone that the C library would take go from 2 to 3.
    ASSERT_EQ(_wputenv_s(L"TZ", L"EST5EDT"), 0);
    _tzset();
    PrepareProcess();
    const TestSupport::TemporaryFolder folder;
    TestSupport::WriteFile(folder / L"new", "new");
    {
        const SYSTEMTIME local{2024, 3, 0, 10, 2, 30, 8, 0};
        SYSTEMTIME utc{};
        FILETIME time{};
        ASSERT_TRUE(TzSpecificLocalTimeToSystemTime(nullptr, &local, &utc) && SystemTimeToFileTime(&utc, &time));
        const Shared::Util::FileHandle file(
            CreateFileW((folder / L"new").c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(SetFileTime(file.Get(), nullptr, nullptr, &time));
    }
    {
        Shared::FileZip::ZipArchiveWrapper zip(folder / L"out.zip");
        zip.Open();
        EXPECT_TRUE(zip.AddFile("new", folder / L"new"));
    }
    const std::string bytes = TestSupport::ReadFile(folder / L"out.zip");
    EXPECT_EQ(bytes.substr(10, 4), "\xC4\x13\x6A\x58");
    EXPECT_EQ(bytes.substr(bytes.find("PK\1\2") + 12, 4), "\xC4\x13\x6A\x58");
    EXPECT_NE(GetEnvironmentVariableW(L"TZ", nullptr, 0), 0U);  // child processes keep it
}

}  // namespace

}  // namespace AgentCLI::Core
