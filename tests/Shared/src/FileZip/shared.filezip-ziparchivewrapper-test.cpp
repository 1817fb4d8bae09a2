#include <gmock/gmock.h>

#include "shared.filezip-ziparchivewrapper.h"
#include "test-support.h"

namespace Shared::FileZip {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> Names(const ZipArchiveWrapper& zip) {
    std::vector<std::string> names;
    for (const libzippp::ZipEntry& entry : zip.Entries()) {
        names.push_back(entry.getName());
    }
    return names;
}

TEST(FormatSizeTest, UsesTheLargestUnitThatFits) {
    for (const auto& [bytes, text] : std::initializer_list<std::pair<std::uint64_t, const char*>>{
             {0, "0 B"}, {1023, "1023 B"}, {1024, "1 kB"}, {1048575, "1023 kB"}, {1048576, "1 MB"}}) {
        EXPECT_EQ(FormatSize(bytes), text);
    }
}

TEST(ZipArchiveWrapperTest, EveryAddIsOnDiskAtOnce) {
    const TestSupport::TemporaryFolder folder;
    TestSupport::WriteFile(folder / L"first.log", "first");
    TestSupport::WriteFile(folder / L"s\u00e9cond.log", "second");
    ZipArchiveWrapper zip(folder / L"out.zip");
    zip.Open();
    EXPECT_TRUE(zip.AddFile("LOG_0\\first.log", folder / L"first.log"));
    EXPECT_TRUE(zip.AddFileToFolder(L"LOG_1", folder / L"s\u00e9cond.log"));
    EXPECT_THAT(Names(zip), ElementsAre("LOG_0/", "LOG_0/first.log", "LOG_1/", "LOG_1/s\u00e9cond.log"));
    EXPECT_EQ(zip.Entries()[3].readAsText(), "second");
    const auto missing = zip.AddFile("LOG_2/none", folder / L"none");
    ASSERT_FALSE(missing);
    EXPECT_THAT(missing.error(), HasSubstr("none"));
    EXPECT_EQ(Names(zip).size(), 4U);
}

}  // namespace
}  // namespace Shared::FileZip
