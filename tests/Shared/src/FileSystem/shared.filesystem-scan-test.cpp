#include <gmock/gmock.h>

#include <set>
#include <string>

#include "shared.filesystem-longpath.h"
#include "shared.filesystem-scan.h"
#include "shared.filesystem-status.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace Shared::FileSystem {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using TestSupport::SymbolicLink;
using TestSupport::TemporaryFolder;
using TestSupport::WriteFile;

std::multiset<std::wstring> Names(const fs::path& folder, Depth depth) {
    std::multiset<std::wstring> names;
    EXPECT_TRUE(ForEachEntry(folder, depth, [&](const DirectoryEntry& entry) {
                    names.insert(entry.path.native().substr(folder.native().size() + 1));
                }).empty());
    return names;
}

template <class Action>
std::string FailureOf(Action&& action) {
    try {
        action();
    } catch (const fs::filesystem_error& error) {
        return error.what();
    }
    return "none";
}

TEST(QueryStatus, FollowsLinksAndTakesLongPaths) {
    const TemporaryFolder folder;
    fs::path deep = LongForm(folder / L"deep");
    while (deep.native().size() < 300) {
        CreateDirectoryW(deep.c_str(), nullptr);
        deep /= std::wstring(60, L'd');
    }
    const Util::FileHandle file(CreateFileW(deep.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    ASSERT_TRUE(file);
    DWORD written = 0;
    ::WriteFile(file.Get(), "12345", 5, &written, nullptr);
    WriteFile(folder / L"target" / L"a.txt", "abc");
    const SymbolicLink fileLink(folder / L"target" / L"a.txt", folder / L"file-link");
    const SymbolicLink folderLink(folder / L"target", folder / L"folder-link");

    const fs::path plainDeep = deep.native().substr(4);
    EXPECT_EQ(QueryStatus(plainDeep, "status").kind, FileKind::Regular);
    EXPECT_EQ(QueryStatus(plainDeep, "status").size, 5U);
    EXPECT_EQ(QueryStatus(folder / L"file-link", "status").size, 3U);
    EXPECT_EQ(QueryStatus(folder / L"folder-link", "status").kind, FileKind::Directory);
    EXPECT_EQ(QueryStatus(folder / L"none", "status").kind, FileKind::NotFound);
    EXPECT_EQ(QueryStatus(folder / L"target" / L"a.txt" / L"below-a-file", "status").kind, FileKind::NotFound);
}

TEST(IsLink, TellsNameSurrogatesFromOrdinaryReparsePoints) {
    constexpr DWORD reparse = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY;
    for (const DWORD tag : {IO_REPARSE_TAG_SYMLINK, IO_REPARSE_TAG_MOUNT_POINT, DWORD{0xA000001D} /* Linux link */}) {
        EXPECT_TRUE(IsLink(reparse, tag));
        EXPECT_FALSE(IsLink(FILE_ATTRIBUTE_DIRECTORY, tag));
    }
    for (const DWORD tag : {IO_REPARSE_TAG_DEDUP, IO_REPARSE_TAG_WOF, DWORD{0x9000601A} /* cloud */}) {
        EXPECT_FALSE(IsLink(reparse, tag));
    }
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
                }).empty());
    EXPECT_EQ(visited, 5);
}

TEST(ForEachEntry, NamesTheOperationThatFailed) {
    const TemporaryFolder folder;
    WriteFile(folder / L"file", "");
    for (const wchar_t* name : {L"none", L"file"}) {
        EXPECT_THAT(FailureOf([&] { ForEachEntry(folder / name, Depth::Tree, [](const auto&) {}); }),
                    HasSubstr("directory_iterator::directory_iterator"));
    }
    EXPECT_THAT(FailureOf([] { ThrowFileSystemError("status", L"C:\\\xD800.log", ERROR_ACCESS_DENIED); }),
                testing::AllOf(HasSubstr("status: "), HasSubstr("C:\\\xEF\xBF\xBD.log")));
}

TEST(ForEachEntry, ListsTwentyThousandEntries) {
    const TemporaryFolder folder;
    TestSupport::WriteNumberedFiles(folder.Path(), 20000);
    EXPECT_EQ(Names(folder.Path(), Depth::Tree).size(), 20000U);
}

}  // namespace

}  // namespace Shared::FileSystem
