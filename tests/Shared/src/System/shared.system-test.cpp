#include <gmock/gmock.h>

#include "shared.system-functions.h"
#include "shared.util-functions.h"
#include "test-support.h"

namespace {

std::filesystem::path Environment(const wchar_t* name) {
    wchar_t text[1000]{};
    GetEnvironmentVariableW(name, text, static_cast<DWORD>(std::size(text)));
    return text;
}

}  // namespace

TEST(SystemFolders, AreTheOnesTheSystemItselfNames) {
    const TestSupport::CapturedLog log;
    EXPECT_EQ(Shared::System::GetProgramDataPath(), Environment(L"ProgramData"));
    EXPECT_THAT(log.Text(), testing::HasSubstr("[info] The ProgramData folder path is " +
                                               Shared::Util::ToUtf8(Environment(L"ProgramData")) + "."));
    EXPECT_EQ(Shared::System::GetWindowsPath(), Environment(L"SystemRoot"));
    EXPECT_EQ(Shared::System::GetUserProfilesDirectory(), Environment(L"USERPROFILE").parent_path());
}
