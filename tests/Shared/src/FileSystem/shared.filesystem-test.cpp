#include <windows.h>

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <utility>

#include "shared.exception.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-scan.h"
#include "shared.filesystem-sourcefolder.h"
#include "shared.filesystem-status.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace Shared::FileSystem {

namespace {

namespace fs = std::filesystem;
using namespace testing;
using TestSupport::Hold;
using TestSupport::ReadFile;
using TestSupport::TemporaryFolder;
using TestSupport::WriteFile;

TEST(IsLink, TellsLinksFromOtherReparsePoints) {
    constexpr DWORD reparse = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY;
    for (const DWORD tag :
         {IO_REPARSE_TAG_SYMLINK, IO_REPARSE_TAG_MOUNT_POINT, DWORD{0xA000001D} /* Linux link */, DWORD{0}}) {
        EXPECT_TRUE(IsLink(reparse, tag));
        EXPECT_FALSE(IsLink(FILE_ATTRIBUTE_DIRECTORY, tag));
    }
    for (const DWORD tag : {IO_REPARSE_TAG_DEDUP, IO_REPARSE_TAG_WOF, DWORD{0x9000601A} /* cloud */}) {
        EXPECT_FALSE(IsLink(reparse, tag));
    }
}

TEST(SourceFolder, HoldsTheCheckedFile) {
    const TemporaryFolder profile;
    const fs::path file = profile / L"sub" / L"a.log";
    WriteFile(file, "checked");
    EXPECT_FALSE(SourceFolder::Confined(profile / L"sub", profile / L"sub").Open(profile / LR"(sub\..\sub\a.log)"));
    for (const auto& folder :
         {SourceFolder::Trusted(profile.Path()), SourceFolder::Confined(profile.Path(), profile.Path())}) {
        const auto found = folder.Open(file);
        ASSERT_TRUE(found && found->error == ERROR_SUCCESS);
        EXPECT_EQ(found->opened.facts.size, 7U);
        EXPECT_TRUE(folder.Open(profile / LR"(SUB\A.LOG)"));
        EXPECT_EQ(DeleteFileW(file.c_str()), FALSE);
        EXPECT_EQ(MoveFileW(file.c_str(), (profile / L"b.log").c_str()), FALSE);
        const auto listing = ListOrThrow(profile / L"sub", folder.Open(profile / L"sub"));
        EXPECT_EQ(MoveFileW((profile / L"sub").c_str(), (profile / L"moved").c_str()), FALSE)
            << "a folder is listed through the handle that was checked";
        WriteFile(file, "written");
        EXPECT_EQ(ReadFile(found->opened.path), "written") << "its owner may go on writing";
    }
}

TEST(GeneratedFile, HoldsTextAndBytesAndGoesAway) {
    const TestSupport::WorkingFolder folder;
    WriteFile(folder / L"target.txt", "precious, and longer than what comes now");
    fs::create_hard_link(L"target.txt", L"out.txt");
    {
        GeneratedFile file(L"out.txt");
        file.WriteText("a\n\nb\n");
        file.WriteBytes(std::string_view("raw\n\0\xFF", 6));
        EXPECT_EQ(ReadFile(L"out.txt"), std::string("a\r\n\r\nb\r\nraw\n\0\xFF", 14));
        EXPECT_EQ(DeleteFileW(L"out.txt"), FALSE) << "others must not take the name away";
        const Util::FileHandle writer(CreateFileW(L"out.txt", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                  nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_FALSE(writer) << "others must not write";
    }
    EXPECT_FALSE(fs::exists(L"out.txt"));
    EXPECT_EQ(ReadFile(L"target.txt"), "precious, and longer than what comes now");
}

TEST(LongForm, MakesAbsolutePathsWithThePrefix) {
    const std::pair<std::wstring, std::wstring> cases[] = {
        {LR"(C:\a\b.log)", LR"(\\?\C:\a\b.log)"},
        {LR"(C:/a/./b/../c.log)", LR"(\\?\C:\a\c.log)"},
        {LR"(C:\a\trailing. )", LR"(\\?\C:\a\trailing. )"},
        {LR"(C:\a\nul)", LR"(\\?\C:\a\nul)"},
        {LR"(\\server\share\x. )", LR"(\\?\UNC\server\share\x. )"},
        {LR"(//server/share/./y/../x)", LR"(\\?\UNC\server\share\x)"},
        {LR"(\\.\NUL)", LR"(\\.\NUL)"},
        {LR"(\\?\C:\as\it\is)", LR"(\\?\C:\as\it\is)"},
    };
    for (const auto& [path, expected] : cases) {
        EXPECT_EQ(LongForm(path).native(), expected);
    }
    EXPECT_EQ(NameBelow(LR"(C:\)", L"x"), LR"(C:\x)");
    EXPECT_EQ(LongForm(L"x.txt"), LongForm(fs::current_path() / L"x.txt"));
}

TEST(RetryWhileHeld, WaitsASecondForItsOwnNamesAndOnceForAllOthers) {
    const auto take = [](HeldFileWait& wait, DWORD code) {
        const ULONGLONG start = GetTickCount64();
        const auto failing = [code]() -> Util::Win32Result<void> { return std::unexpected(code); };
        EXPECT_EQ(wait.Retry(failing).error(), code);
        return GetTickCount64() - start;
    };
    for (const auto owner : {FileOwner::Program, FileOwner::Others}) {
        HeldFileWait wait(owner);
        EXPECT_LT(take(wait, ERROR_FILE_NOT_FOUND), 200U);
        EXPECT_THAT(take(wait, ERROR_SHARING_VIOLATION), AllOf(Ge(900U), Le(2000U)));
        EXPECT_LT(take(wait, ERROR_SHARING_VIOLATION), 200U) << "the second is used up";
        for (const auto code :
             {ERROR_SHARING_VIOLATION, ERROR_LOCK_VIOLATION, ERROR_USER_MAPPED_FILE, ERROR_DELETE_PENDING}) {
            EXPECT_TRUE(IsHeld(static_cast<DWORD>(code), owner)) << code;
        }
        EXPECT_EQ(IsHeld(ERROR_ACCESS_DENIED, owner), owner == FileOwner::Program);
    }
    const TemporaryFolder folder;
    WriteFile(folder / L"held", "");
    auto held = Hold(folder / L"held");
    const std::jthread release([&] {
        Sleep(300);
        held.Reset();
    });
    EXPECT_TRUE(RemoveName(folder / L"held"));
}

}  // namespace

}  // namespace Shared::FileSystem
