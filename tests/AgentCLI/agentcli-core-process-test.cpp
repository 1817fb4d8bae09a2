#include "agentcli-core-process.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "shared.concurrency-cmdrunner.h"
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

}  // namespace

}  // namespace AgentCLI::Core
