#include <gmock/gmock.h>

#include "shared.registry-functions.h"
#include "shared.system-installpaths.h"
#include "test-support.h"

namespace Shared {

namespace {

namespace fs = std::filesystem;

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

}  // namespace

}  // namespace Shared
