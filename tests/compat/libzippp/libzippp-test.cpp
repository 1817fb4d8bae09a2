#include <gmock/gmock.h>
#include <libzippp/libzippp.h>

#include "shared.util-functions.h"
#include "test-support.h"

// What this program relies on; holds for the packaged library as well.
namespace {

using libzippp::ZipArchive;
using testing::ElementsAre;

std::vector<std::string> Names(const ZipArchive& archive, ZipArchive::State state = ZipArchive::Current) {
    std::vector<std::string> names;
    for (const libzippp::ZipEntry& entry : archive.getEntries(state)) {
        names.push_back(entry.getName());
    }
    return names;
}

TEST(LibzipppTest, ChangesCountWhenTheArchiveIsClosed) {
    const TestSupport::TemporaryFolder folder;
    const auto file = [&](const wchar_t* name, std::string_view bytes) {
        TestSupport::WriteFile(folder / name, bytes);
        return Shared::Util::ToUtf8(folder / name);
    };
    ZipArchive archive(Shared::Util::ToUtf8(folder / L"\u00e4rchive.zip"));
    EXPECT_FALSE(archive.open(ZipArchive::ReadOnly));
    EXPECT_EQ(archive.deleteEntry("x"), LIBZIPPP_ERROR_NOT_OPEN);
    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_TRUE(archive.addFile("a/b/\u00e9.log", file(L"\u00e9.log", "file")));
    EXPECT_TRUE(archive.addData("ab", "data\0binary", 11));
    EXPECT_FALSE(archive.addFile("none", "missing") || archive.addFile("folder/", file(L"x", "")));
    libzippp::ZipEntry entry = archive.getEntry("ab");
    EXPECT_TRUE(entry.setCompressionMethod(libzippp::CompressionMethod::STORE) && entry.setDate(1000000000));
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);

    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_TRUE(archive.addData("ab", "other", 5) && archive.addData("a/new", "new", 3));
    EXPECT_THAT(Names(archive), ElementsAre("a/", "a/b/", "a/b/\u00e9.log", "ab", "a/new"));
    EXPECT_THAT(Names(archive, ZipArchive::Original), ElementsAre("a/", "a/b/", "a/b/\u00e9.log", "ab"));
    archive.discard();

    ASSERT_TRUE(archive.open(ZipArchive::Write));
    entry = archive.getEntry("ab");
    EXPECT_EQ(entry.readAsText(), std::string("data\0binary", 11));
    EXPECT_EQ(entry.getDate(), 1000000000);
    EXPECT_EQ(archive.deleteEntry("A/"), LIBZIPPP_ERROR_INVALID_ENTRY);
    EXPECT_EQ(archive.deleteEntry("a/"), 3);
    ASSERT_TRUE(archive.addFile("vanishing", file(L"vanishing", "data")));
    std::filesystem::remove(folder / L"vanishing");
    EXPECT_NE(archive.close(), LIBZIPPP_OK);
    EXPECT_EQ(archive.deleteEntry("vanishing"), 1);  // still open, with its changes
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);

    ASSERT_TRUE(archive.open(ZipArchive::ReadOnly, true));
    EXPECT_THAT(Names(archive), ElementsAre("ab"));
    EXPECT_FALSE(archive.addData("b", "b", 1));
    EXPECT_EQ(archive.deleteEntry("ab"), LIBZIPPP_ERROR_NOT_ALLOWED);
}

}  // namespace
