#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "shared.filesystem-confinedfolder.h"
#include "test-support.h"

namespace Shared::FileSystem {

namespace {

namespace fs = std::filesystem;
using TestSupport::SymbolicLink;
using TestSupport::TemporaryFolder;
using TestSupport::WriteFile;

TEST(ConfinedFolder, OpensOnlyWhatLiesInTheFolder) {
    const TemporaryFolder machine;
    const fs::path profile = machine / L"bob";
    WriteFile(profile / L"own" / L"a.log", "own");
    WriteFile(machine / L"bobby" / L"a.log", "not bob's");
    const SymbolicLink toFile(machine / L"bobby" / L"a.log", profile / L"file-link.log");
    const SymbolicLink toFolder(machine / L"bobby", profile / L"folder-link");
    const SymbolicLink toOwn(profile / L"own", profile / L"own-link");
    ASSERT_NE(CreateHardLinkW((profile / L"hard.log").c_str(), (machine / L"bobby" / L"a.log").c_str(), nullptr),
              FALSE);

    const std::vector<std::pair<std::wstring, FileKind>> cases{
        {LR"(own\a.log)", FileKind::Regular},
        {LR"(OWN\A.LOG)", FileKind::Regular},
        {L"own", FileKind::Directory},
        {LR"(own\none)", FileKind::NotFound},
        {LR"(none\a.log)", FileKind::NotFound},
        {L"file-link.log", FileKind::Foreign},
        {L"folder-link", FileKind::Foreign},
        {LR"(folder-link\a.log)", FileKind::Foreign},
        {LR"(own-link\a.log)", FileKind::Foreign},
        {L"hard.log", FileKind::Foreign},
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
    EXPECT_EQ(ConfinedFolder(machine / L"nobody").Open(L"a.log")->status.kind, FileKind::NotFound);
}

TEST(ConfinedFolder, HoldsTheCheckedFile) {
    const TemporaryFolder profile;
    const fs::path file = profile / L"sub" / L"a.log";
    WriteFile(file, "checked");
    const unsigned handles = TestSupport::HandleCount();
    {
        const auto opened = ConfinedFolder(profile.Path()).Open(LR"(sub\a.log)");
        ASSERT_TRUE(opened);
        EXPECT_EQ(opened->status.size, 7U);
        EXPECT_EQ(DeleteFileW(file.c_str()), FALSE);
        EXPECT_EQ(MoveFileW(file.c_str(), (profile / L"b.log").c_str()), FALSE);
        WriteFile(file, "its owner writes on");
        EXPECT_EQ(TestSupport::ReadFile(opened->path), "its owner writes on");
    }
    EXPECT_EQ(TestSupport::HandleCount(), handles);

    const Util::FileHandle locked(
        CreateFileW(file.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    const auto refused = ConfinedFolder(profile.Path()).Open(LR"(sub\a.log)");
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
}

}  // namespace

}  // namespace Shared::FileSystem
