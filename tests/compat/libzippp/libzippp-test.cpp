#include <gmock/gmock.h>
#include <libzippp/libzippp.h>
#include <zip.h>

#include "shared.util-functions.h"
#include "test-support.h"

// What this program relies on; holds for the packaged library as well.
namespace {

using libzippp::ZipArchive;
using libzippp::ZipEntry;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> Names(const ZipArchive& archive, ZipArchive::State state = ZipArchive::Current) {
    std::vector<std::string> names;
    for (const ZipEntry& entry : archive.getEntries(state)) {
        names.push_back(entry.getName());
    }
    return names;
}

class LibzipppTest : public testing::Test {
protected:
    std::string File(const std::string& name, std::string_view bytes) {
        TestSupport::WriteFile(folder_ / Shared::Util::PathFromUtf8(name), bytes);
        return Shared::Util::ToUtf8(folder_ / Shared::Util::PathFromUtf8(name));
    }

    TestSupport::TemporaryFolder folder_;
    const std::string path_ = Shared::Util::ToUtf8(folder_ / L"\u00e4rchive.zip");
};

TEST_F(LibzipppTest, WriteKeepsWhatIsThereAndAddsParentsOnce) {
    ZipArchive archive(path_);
    EXPECT_FALSE(archive.open(ZipArchive::ReadOnly));
    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_TRUE(archive.addFile("a/b/\u00e9.log", File("\u00e9.log", "file")));
    EXPECT_TRUE(archive.addData("a/data", "data\0binary", 11));
    EXPECT_FALSE(archive.addFile("none", path_ + ".missing"));
    EXPECT_FALSE(archive.addFile("folder/", File("x", "")));
    ZipEntry entry = archive.getEntry("a/data");
    EXPECT_TRUE(entry.setCompressionMethod(libzippp::CompressionMethod::STORE) && entry.setDate(1000000000));
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);
    EXPECT_FALSE(archive.isOpen());

    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_TRUE(archive.addData("a/data", "other", 5));
    EXPECT_TRUE(archive.addData("a/new", "new", 3));
    EXPECT_THAT(Names(archive), ElementsAre("a/", "a/b/", "a/b/\u00e9.log", "a/data", "a/new"));
    EXPECT_THAT(Names(archive, ZipArchive::Original), ElementsAre("a/", "a/b/", "a/b/\u00e9.log", "a/data"));
    archive.discard();

    ASSERT_TRUE(archive.open(ZipArchive::ReadOnly, true));
    entry = archive.getEntry("a/data");
    EXPECT_EQ(entry.readAsText(), std::string("data\0binary", 11));
    EXPECT_EQ(entry.getInflatedSize(), 11U);
    EXPECT_EQ(entry.getDate(), 1000000000);
    EXPECT_TRUE(archive.getEntry("a/b/").isDirectory() && entry.isFile());
    EXPECT_TRUE(archive.hasEntry("A/DATA", false, false) && !archive.hasEntry("A/DATA") && !archive.hasEntry("data"));
    EXPECT_TRUE(archive.hasEntry("data", true) && archive.getEntry("nothing").isNull());
    EXPECT_FALSE(archive.addData("b", "b", 1));
    EXPECT_EQ(archive.deleteEntry("a/data"), LIBZIPPP_ERROR_NOT_ALLOWED);
}

TEST_F(LibzipppTest, DeletingAFolderDeletesWhatIsBelow) {
    ZipArchive archive(path_);
    EXPECT_EQ(archive.deleteEntry("x"), LIBZIPPP_ERROR_NOT_OPEN);
    ASSERT_TRUE(archive.open(ZipArchive::New));
    archive.addData("a/b/c", "c", 1);
    archive.addData("ab", "ab", 2);
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);
    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_EQ(archive.deleteEntry("x"), LIBZIPPP_ERROR_INVALID_ENTRY);
    EXPECT_EQ(archive.deleteEntry("a/"), 3);
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);
    ASSERT_TRUE(archive.open(ZipArchive::Write));
    EXPECT_THAT(Names(archive), ElementsAre("ab"));
    archive.discard();
    ASSERT_TRUE(archive.open(ZipArchive::New));
    EXPECT_THAT(Names(archive), IsEmpty());
}

TEST_F(LibzipppTest, AFailingCloseKeepsTheArchiveOpen) {
    ZipArchive archive(path_);
    ASSERT_TRUE(archive.open(ZipArchive::Write));
    archive.addData("kept", "kept", 4);
    ASSERT_EQ(archive.close(), LIBZIPPP_OK);
    ASSERT_TRUE(archive.open(ZipArchive::Write));
    ASSERT_TRUE(archive.addFile("vanishing", File("vanishing", "data")));
    std::filesystem::remove(folder_ / L"vanishing");
    EXPECT_NE(archive.close(), LIBZIPPP_OK);
    EXPECT_TRUE(archive.isOpen());
    archive.discard();
    ASSERT_TRUE(archive.open(ZipArchive::ReadOnly));
    EXPECT_THAT(Names(archive), ElementsAre("kept"));
}

TEST_F(LibzipppTest, AnArchiveOverASourceIsWrittenThroughIt) {
    const std::string file = File("no.zip", "no archive at all, by any measure");
    for (const auto& [path, opens] : {std::pair{path_, true}, {file, false}}) {
        zip_error_t error{};
        zip_source_t* source = zip_source_file_create(path.c_str(), 0, -1, &error);
        zip_source_keep(source);
        ZipArchive* archive = ZipArchive::fromSource(source, ZipArchive::Write);
        ASSERT_EQ(archive != nullptr, opens);
        zip_source_free(source);
        if (archive != nullptr) {
            EXPECT_TRUE(archive->addData("a", "a", 1));
            EXPECT_EQ(archive->close(), LIBZIPPP_OK);
            ZipArchive::free(archive);
            EXPECT_TRUE(std::filesystem::exists(folder_ / L"\u00e4rchive.zip"));
        }
    }
}

}  // namespace
