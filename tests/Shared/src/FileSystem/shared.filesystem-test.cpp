#include <windows.h>

#include <aclapi.h>
#include <gmock/gmock.h>

#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "shared.exception.h"
#include "shared.filesystem-confinedfolder.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-privatefile.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-scan.h"
#include "shared.filesystem-status.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace Shared::FileSystem {

namespace {

namespace fs = std::filesystem;
using namespace testing;
using TestSupport::CapturedLog;
using TestSupport::Hold;
using TestSupport::ReadFile;
using TestSupport::SymbolicLink;
using TestSupport::TemporaryFolder;
using TestSupport::WriteFile;

std::multiset<std::wstring> Names(const fs::path& folder, Depth depth) {
    std::multiset<std::wstring> names;
    EXPECT_TRUE(ForEachEntry(folder, depth, [&](const DirectoryEntry& entry) {
                    return !names.insert(entry.path.native().substr(folder.native().size() + 1))->empty();
                }).empty());
    return names;
}

TEST(Attributes, TellLinksAndAbsentContentFromOrdinaryFiles) {
    constexpr DWORD reparse = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY;
    for (const DWORD tag :
         {IO_REPARSE_TAG_SYMLINK, IO_REPARSE_TAG_MOUNT_POINT, DWORD{0xA000001D} /* Linux link */, DWORD{0}}) {
        EXPECT_TRUE(IsLink(reparse, tag));
        EXPECT_FALSE(IsLink(FILE_ATTRIBUTE_DIRECTORY, tag));
    }
    for (const DWORD tag : {IO_REPARSE_TAG_DEDUP, IO_REPARSE_TAG_WOF, DWORD{0x9000601A} /* cloud */}) {
        EXPECT_FALSE(IsLink(reparse, tag));
    }
    for (const DWORD attribute : {0x1000UL, 0x40000UL, 0x400000UL}) {
        EXPECT_TRUE(IsStoredElsewhere(FILE_ATTRIBUTE_ARCHIVE | attribute));
    }
    EXPECT_FALSE(IsStoredElsewhere(FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_REPARSE_POINT));
}

TEST(ForEachEntry, ListsTreesThatLoopAndFoldersThatGo) {
    const TemporaryFolder folder;
    WriteFile(folder / L"sub" / L"x.log", "");
    WriteFile(folder / L"sub" / L"inner" / L"y.log", "");
    WriteFile(folder / L"z.log", "");
    const SymbolicLink loop(folder.Path(), folder / L"sub" / L"loop");
    EXPECT_THAT(Names(folder.Path(), Depth::Folder), UnorderedElementsAre(L"sub", L"z.log"));
    EXPECT_THAT(Names(folder.Path(), Depth::Tree),
                UnorderedElementsAre(L"sub", L"z.log", LR"(sub\x.log)", LR"(sub\inner)", LR"(sub\inner\y.log)",
                                     LR"(sub\loop)"));

    int visited = 0;
    EXPECT_TRUE(ForEachEntry(folder.Path(), Depth::Tree, [&](const DirectoryEntry& entry) {
                    ++visited;
                    if (entry.Name() == L"inner") {
                        fs::remove_all(entry.path);
                    }
                    return true;
                }).empty());
    EXPECT_EQ(visited, 5);
}

TEST(ForEachEntry, NamesTheOperationThatFailed) {
    const TemporaryFolder folder;
    WriteFile(folder / L"file", "");
    for (const wchar_t* name : {L"none", L"file"}) {
        EXPECT_THAT([&] { ForEachEntry(folder / name, Depth::Tree, [](const auto&) { return true; }); },
                    ThrowsMessage<fs::filesystem_error>(HasSubstr("directory_iterator::directory_iterator")));
    }
    EXPECT_THAT([] { ThrowFileSystemError("status", L"C:\\\xD800.log", ERROR_ACCESS_DENIED); },
                ThrowsMessage<fs::filesystem_error>(ContainsRegex("status: .*C:\\\\\xEF\xBF\xBD.log")));
}

TEST(ConfinedFolder, OpensOnlyWhatLiesInTheFolder) {
    const TemporaryFolder machine;
    const fs::path profile = machine / L"bob";
    WriteFile(profile / L"own" / L"a.log", "own");
    WriteFile(machine / L"bobby" / L"a.log", "not bob's");
    const SymbolicLink toFile(machine / L"bobby" / L"a.log", profile / L"file-link.log");
    const SymbolicLink toFolder(machine / L"bobby", profile / L"folder-link");
    const SymbolicLink toOwn(profile / L"own", profile / L"own-link");
    fs::create_hard_link(machine / L"bobby" / L"a.log", profile / L"hard.log");

    const std::pair<std::wstring, FileKind> cases[] = {
        {LR"(own\a.log)", FileKind::Regular},
        {LR"(OWN\A.LOG)", FileKind::Regular},
        {L"own", FileKind::Directory},
        {LR"(own\none)", FileKind::NotFound},
        {LR"(none\a.log)", FileKind::NotFound},
        {L"file-link.log", FileKind::OutsideFolder},
        {L"folder-link", FileKind::OutsideFolder},
        {LR"(folder-link\a.log)", FileKind::OutsideFolder},
        {LR"(own-link\a.log)", FileKind::OutsideFolder},
        {L"hard.log", FileKind::OutsideFolder},
    };
    // A profile that was moved is reached through a link, and its contents are the user's all the same.
    const SymbolicLink moved(profile, machine / L"moved");
    for (const fs::path& root : {profile, machine / L"moved"}) {
        const ConfinedFolder folder(root);
        for (const auto& [name, kind] : cases) {
            const auto opened = folder.Open(name);
            ASSERT_TRUE(opened);
            EXPECT_EQ(opened->status.kind, kind) << root << name;
        }
        const auto outside = folder.Open(LR"(..\bobby\a.log)");
        EXPECT_FALSE(outside && outside->status.kind == FileKind::Regular);
    }
    EXPECT_EQ(ConfinedFolder(machine / L"none").Open(L"a.log")->status.kind, FileKind::NotFound);
}

TEST(ConfinedFolder, HoldsTheCheckedFile) {
    const TemporaryFolder profile;
    const fs::path file = profile / L"sub" / L"a.log";
    WriteFile(file, "checked");
    {
        const auto opened = ConfinedFolder(profile.Path()).Open(LR"(sub\a.log)");
        ASSERT_TRUE(opened);
        EXPECT_EQ(opened->status.size, 7U);
        EXPECT_EQ(DeleteFileW(file.c_str()), FALSE);
        EXPECT_EQ(MoveFileW(file.c_str(), (profile / L"b.log").c_str()), FALSE);
        WriteFile(file, "its owner writes on");
        EXPECT_EQ(TestSupport::ReadFile(opened->path), "its owner writes on");
    }
    {
        const auto listing = ConfinedFolder(profile.Path()).List(profile / L"sub");
        EXPECT_EQ(MoveFileW((profile / L"sub").c_str(), (profile / L"moved").c_str()), FALSE)
            << "a folder is listed through the handle that was checked";
    }
    const auto locked = Hold(file);
    const auto refused = ConfinedFolder(profile.Path()).Open(LR"(sub\a.log)");
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(refused.error().kind, FileKind::Regular);
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
    const std::tuple<std::wstring, std::wstring, bool> full[] = {
        {LR"(C:/a/b/../c. .)", LR"(C:\a\c)", true},          {LR"(\\server\share\..\x)", LR"(\\server\share\x)", true},
        {LR"(\\?\C:\a\..\b.)", LR"(\\?\C:\a\..\b.)", true},  {L"NUL", LR"(\\.\NUL)", false},
        {L"x", (fs::current_path() / L"x").native(), false},
    };
    for (const auto& [path, expected, isAbsolute] : full) {
        EXPECT_EQ(FullPath(path).native(), expected);
        EXPECT_EQ(IsAbsolute(path), isAbsolute) << fs::path(path);
    }
}

TEST(PrivateFile, IsNewAndForItsAdministratorAlone) {
    const TemporaryFolder folder;
    const fs::path file = folder / L"file";
    const auto open = [&](DWORD access) { return CreatePrivateFile(file, access, shareAll); };
    {
        const auto created = open(GENERIC_WRITE);
        ASSERT_TRUE(created);
        EXPECT_EQ(open(GENERIC_WRITE).error(), static_cast<DWORD>(ERROR_FILE_EXISTS));
        const auto unique = CreateUniqueFile(file, GENERIC_WRITE, shareAll);
        ASSERT_TRUE(unique);
        EXPECT_TRUE(unique->path.native().starts_with(file.native() + L'.'));
    }
    ASSERT_TRUE(CreatePrivateFolder(folder / L"sub"));
    for (const fs::path& path : {file, folder / L"sub"}) {
        PACL list = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        ASSERT_EQ(GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                        &list, nullptr, &descriptor),
                  static_cast<DWORD>(ERROR_SUCCESS));
        const Util::LocalMemory memory(descriptor);
        for (DWORD index = 0; index < list->AceCount; ++index) {
            ACCESS_ALLOWED_ACE* entry = nullptr;
            ASSERT_NE(GetAce(list, index, reinterpret_cast<void**>(&entry)), FALSE);
            EXPECT_FALSE(IsWellKnownSid(&entry->SidStart, WinWorldSid) && entry->Mask != 0) << path;
        }
    }
}

TEST(RetryWhileHeld, WaitsASecondForItsOwnNamesAndOnceForAllOthers) {
    const auto take = [](HeldFileWait& wait, DWORD code) {
        const ULONGLONG start = GetTickCount64();
        const auto failing = [code]() -> Util::Win32Result<void> { return std::unexpected(code); };
        EXPECT_EQ(wait.Retry(failing).error(), code);
        return GetTickCount64() - start;
    };
    HeldFileWait own(FileOwner::Program);
    EXPECT_LT(take(own, ERROR_FILE_NOT_FOUND), 200U);
    EXPECT_THAT(take(own, ERROR_ACCESS_DENIED), AllOf(Ge(900U), Le(2000U)));
    HeldFileWait others(FileOwner::Others);
    EXPECT_LT(take(others, ERROR_ACCESS_DENIED), 200U);
    EXPECT_THAT(take(others, ERROR_SHARING_VIOLATION), AllOf(Ge(900U), Le(2000U)));
    for (const DWORD code : {DWORD{ERROR_SHARING_VIOLATION}, DWORD{ERROR_LOCK_VIOLATION}}) {
        EXPECT_LT(take(others, code), 200U) << "the second is used up";
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

TEST(FileObjectRemover, RemovesFilesAndWholeFolders) {
    const TemporaryFolder folder;
    const fs::path tree = folder / L"tree";
    WriteFile(tree / L"\x4e2d" / L"many.txt", "");
    fs::path deep = LongForm(tree);
    for (int level = 0; level < 12; ++level) {
        deep /= std::wstring(40, L'd');
        ASSERT_NE(CreateDirectoryW(deep.c_str(), nullptr), FALSE);
    }
    for (int number = 0; number < 300; ++number) {
        WriteFile(tree / (std::wstring(60, L'n') + std::to_wstring(number)), "");
    }
    WriteFile(folder / L"single.txt", "b");
    const CapturedLog log;
    {
        FileObjectRemover single(folder / L"single.txt");
        FileObjectRemover moved(std::move(single));
        FileObjectRemover(tree).Clear();
        EXPECT_FALSE(fs::exists(tree));
        EXPECT_TRUE(fs::exists(folder / L"single.txt"));
        FileObjectRemover(folder / L"never-there").Clear();
    }
    EXPECT_FALSE(fs::exists(folder / L"single.txt"));
    EXPECT_EQ(log.Text(), "");
}

TEST(FileObjectRemover, LogsWhatItCannotRemoveAndForgetsIt) {
    const TemporaryFolder folder;
    const fs::path file = folder / L"open.txt";
    WriteFile(file, "");
    const auto open = Hold(file);
    const CapturedLog log;
    FileObjectRemover remover(file);
    remover.Clear();
    remover.Clear();
    EXPECT_THAT(log.Text(), ContainsRegex("warning.*Failed removing file .*open.txt: "));
    EXPECT_EQ(log.Text().find("Failed"), log.Text().rfind("Failed"));
    EXPECT_EQ(RemoveName(file).error(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(RemoveName(folder.Path()).error(), static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
}

}  // namespace

}  // namespace Shared::FileSystem
