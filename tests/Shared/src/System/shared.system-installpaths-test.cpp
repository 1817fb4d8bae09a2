#include <gmock/gmock.h>

#include <string>

#include "shared.registry-functions.h"
#include "shared.system-installpaths.h"
#include "shared.system-userprofiles.h"
#include "test-support.h"

namespace Shared {

namespace {

namespace fs = std::filesystem;
using testing::UnorderedElementsAre;

TEST(InstallPaths, ComeFromTheAgentsKey) {
    const TestSupport::ThrowAwayHive hive;
    EXPECT_THROW((void)AppSettings::GetAoxmInstallPath(), Registry::RegistryException);
    for (const wchar_t* value : {LR"(C:\Program Files\Velqor\OXM)", LR"(C:\Program Files\Velqor\OXM\\\)"}) {
        hive.SetString(LR"(SOFTWARE\Velqor\OXM)", L"Path", value);
        EXPECT_EQ(AppSettings::GetAoxmInstallPath(), fs::path(LR"(C:\Program Files\Velqor\OXM)"));
        EXPECT_EQ(PV::GetPVInstallPath(), fs::path(LR"(C:\Program Files\Velqor\Portavo)"));
    }
    for (const wchar_t* value : {L"", L"\\\\", L"OXM", LR"(\OXM)", L"C:OXM"}) {
        hive.SetString(LR"(SOFTWARE\Velqor\OXM)", L"Path", value);
        EXPECT_THROW((void)AppSettings::GetAoxmInstallPath(), Exception::RuntimeException) << fs::path(value);
        EXPECT_THROW((void)PV::GetPVInstallPath(), Exception::RuntimeException);
    }
}

TEST(ForEachUserProfile, TakesEveryFolderButTheExcludedNames) {
    const TestSupport::TemporaryFolder users;
    for (const wchar_t* name : {L"Public", L"Default", L"All Users", L"default user", L"default user 2"}) {
        fs::create_directory(users / name);
    }
    TestSupport::WriteFile(users / L"desktop.ini", "");
    TestSupport::WriteFile(users / L"elsewhere" / L"alice" / L"x", "");
    const TestSupport::SymbolicLink moved(users / L"elsewhere" / L"alice", users / L"alice");
    std::vector<fs::path> profiles;
    const auto list = [&](const fs::path& folder) {
        System::ForEachUserProfile(folder, [&](const fs::path& profile) { profiles.push_back(profile); });
    };
    list(users.Path());
    EXPECT_THAT(profiles, UnorderedElementsAre(users / L"default user", users / L"default user 2", users / L"elsewhere",
                                               users / L"alice"));
    EXPECT_THROW(list(users / L"none"), fs::filesystem_error);
}

}  // namespace

}  // namespace Shared
