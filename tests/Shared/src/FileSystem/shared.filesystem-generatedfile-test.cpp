#include <gtest/gtest.h>

#include "shared.exception.h"
#include "shared.filesystem-generatedfile.h"
#include "test-support.h"

namespace Shared::FileSystem {

namespace {

namespace fs = std::filesystem;
using TestSupport::ReadFile;
using TestSupport::WorkingFolder;
using TestSupport::WriteFile;

TEST(GeneratedFile, HoldsTextAndBytesAndGoesAway) {
    const WorkingFolder folder;
    WriteFile(folder.Path() / L"out.txt", "left over from an earlier run, and longer than what comes now");
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
}

TEST(GeneratedFile, RefusesANameThatCannotBeFreed) {
    const WorkingFolder folder;
    WriteFile(folder.Path() / L"out.txt" / L"inside.txt", "x");
    EXPECT_THROW(GeneratedFile(L"out.txt"), Exception::Win32Exception);
    EXPECT_TRUE(fs::exists(folder.Path() / L"out.txt" / L"inside.txt"));
}

TEST(GeneratedFile, ReplacesALinkAndNotItsTarget) {
    const WorkingFolder folder;
    WriteFile(folder.Path() / L"target.txt", "precious");
    ASSERT_NE(CreateHardLinkW(L"out.txt", L"target.txt", nullptr), FALSE);
    {
        GeneratedFile file(L"out.txt");
        file.WriteText("new");
    }
    EXPECT_EQ(ReadFile(L"target.txt"), "precious");
}

}  // namespace

}  // namespace Shared::FileSystem
