#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace Shared::FileSystem {

namespace {

namespace fs = std::filesystem;
using TestSupport::CapturedLog;
using TestSupport::TemporaryFolder;
using TestSupport::WriteFile;

bool Exists(const fs::path& path) {
    return GetFileAttributesW(LongForm(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

TEST(LongForm, MakesAbsoluteVerbatimPaths) {
    const std::vector<std::pair<std::wstring, std::wstring>> cases{
        {LR"(C:\a\b.log)", LR"(\\?\C:\a\b.log)"},
        {LR"(C:/a/./b/../c.log)", LR"(\\?\C:\a\c.log)"},
        {LR"(C:\a\trailing. )", LR"(\\?\C:\a\trailing. )"},
        {LR"(C:\a\nul)", LR"(\\?\C:\a\nul)"},
        {LR"(\\server\share\x)", LR"(\\?\UNC\server\share\x)"},
        {LR"(\\?\C:\as\it\is)", LR"(\\?\C:\as\it\is)"},
    };
    for (const auto& [path, expected] : cases) {
        EXPECT_EQ(LongForm(path).native(), expected);
    }
    EXPECT_EQ(LongForm(L"x.txt"), LongForm(fs::current_path() / L"x.txt"));
}

TEST(FileObjectRemover, RemovesFilesAndWholeFolders) {
    const TemporaryFolder folder;
    const fs::path tree = folder / L"tree";
    fs::path deep = LongForm(tree);
    CreateDirectoryW(deep.c_str(), nullptr);
    for (int level = 0; level < 12; ++level) {
        deep /= std::wstring(40, L'd');
        ASSERT_NE(CreateDirectoryW(deep.c_str(), nullptr), FALSE);
    }
    ASSERT_GT(deep.native().size(), 260U);
    WriteFile(tree / L"a.txt", "a");
    WriteFile(tree / L"\x4e2d" / L"many.txt", "");
    for (int number = 0; number < 300; ++number) {
        WriteFile(tree / (std::wstring(60, L'n') + std::to_wstring(number)), "");
    }
    WriteFile(folder / L"single.txt", "b");
    const CapturedLog log;
    {
        FileObjectRemover single(folder / L"single.txt");
        FileObjectRemover moved(std::move(single));
        FileObjectRemover whole(tree);
        whole.Clear();
        EXPECT_FALSE(Exists(tree));
        EXPECT_TRUE(Exists(folder / L"single.txt"));
        FileObjectRemover(folder / L"never-there").Clear();
    }
    EXPECT_FALSE(Exists(folder / L"single.txt"));
    EXPECT_EQ(log.Text(), "");
}

TEST(FileObjectRemover, LogsWhatItCannotRemoveAndForgetsIt) {
    const TemporaryFolder folder;
    WriteFile(folder / L"open.txt", "x");
    const Util::FileHandle open(
        CreateFileW((folder / L"open.txt").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(open);
    const CapturedLog log;
    FileObjectRemover remover(folder / L"open.txt");
    remover.Clear();
    remover.Clear();
    EXPECT_THAT(log.Text(), testing::ContainsRegex("warning.*Failed removing file .*open.txt: "));
    EXPECT_EQ(log.Text().find("Failed"), log.Text().rfind("Failed"));
    EXPECT_EQ(RemoveName(folder / L"open.txt"), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(RemoveName(folder.Path()), static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
}

}  // namespace

}  // namespace Shared::FileSystem
