#include <gtest/gtest.h>
#include <libzippp/libzippp.h>

#include "shared.util-functions.h"
#include "test-support.h"

// What this program relies on; holds for the packaged library as well.
namespace {

using libzippp::ZipArchive;

TEST(LibzipppTest, ChangesCountWhenTheArchiveIsClosed) {
    const TestSupport::TemporaryFolder folder;
    const std::string file = Shared::Util::ToUtf8Lossy(folder / L"\u00e9.log");
    TestSupport::WriteFile(folder / L"\u00e9.log", "file");
    ZipArchive archive(Shared::Util::ToUtf8Lossy(folder / L"\u00e4rchive.zip"));
    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_TRUE(archive.addFile("a/b/\u00e9.log", file) && archive.addData("ab", "data", 4));
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);

    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_TRUE(archive.addData("ab.old", "data\0binary", 11));
    EXPECT_EQ(archive.deleteEntry("A/"), LIBZIPPP_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(archive.deleteEntry("ab"), 1);
    EXPECT_EQ(archive.deleteEntry("a/"), 3);
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);

    ASSERT_TRUE(archive.open(ZipArchive::ReadOnly, true));
    EXPECT_EQ(archive.getEntries().size(), 1U);
    EXPECT_EQ(archive.getEntry("ab.old").readAsText(), std::string("data\0binary", 11));
}

}  // namespace
