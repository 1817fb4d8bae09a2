#include <gmock/gmock.h>

#include "shared.filezip-appendsource.h"
#include "zip-disk.h"

namespace Shared::FileZip {
namespace {

using libzippp::ZipArchive;
using testing::AnyOf;
using TestSupport::Contents;
using TestSupport::Disk;
using TestSupport::DiskFile;
using TestSupport::Image;
using TestSupport::Noise;
using TestSupport::WriteZip;

/// The archive over the source, or null.
auto OpenOver(AppendInPlaceSource& source, ZipArchive::OpenMode mode) {
    zip_source_t* raw = source.NewSource();
    ZipArchive* archive = ZipArchive::fromSource(raw, mode, mode == ZipArchive::ReadOnly);
    if (archive == nullptr) {
        zip_source_free(raw);
    }
    return std::unique_ptr<ZipArchive, decltype(&ZipArchive::free)>(archive, &ZipArchive::free);
}

/// What is in an archive; a fault comes back as the only entry.
Contents ReadZip(const Image& image) {
    Disk disk{.file = image};
    DiskFile file(disk);
    AppendInPlaceSource source(file);
    if (!source.Prepare()) {
        return {{"fault", "no end"}};
    }
    const auto archive = OpenOver(source, ZipArchive::ReadOnly);
    return archive ? TestSupport::ContentsOf(*archive) : Contents{{"fault", "inconsistent"}};
}

/// Changes the archive on a disk; the changes are false when they could not be written.
class Session {
public:
    explicit Session(Disk& disk) : file_(disk), source_(file_) {}

    bool Add(const std::string& name, const std::string& data) {
        return Edit([&](ZipArchive& archive) {
            archive.addData(name, data.data(), data.size());
            archive.getEntry(name).setCompressionMethod(libzippp::STORE);
        });
    }
    bool Delete(const std::string& name) {
        return Edit([&](ZipArchive& archive) { archive.deleteEntry(name); });
    }
    bool Prepare() { return source_.Prepare().has_value(); }
    [[nodiscard]] DWORD LastFailure() const { return source_.LastFailure(); }

private:
    template <class Change>
    bool Edit(const Change& change) {
        if (!source_.Prepare()) {
            return false;
        }
        const auto archive = OpenOver(source_, ZipArchive::Write);
        archive->setErrorHandlerCallback([](const std::string&, const std::string&, int, int) {});
        change(*archive);
        const bool written = archive->close() == LIBZIPPP_OK;
        archive->discard();
        return written;
    }

    DiskFile file_;
    AppendInPlaceSource source_;
};

Contents With(Contents contents, const std::string& name, const std::string& data) {
    if (name.starts_with("F/")) {
        contents.emplace_back("F/", "");
    }
    contents.emplace_back(name, TestSupport::Brief(data));
    return contents;
}

/// An entry that is added to an archive and then taken back.
struct AddCase {
    const char* description;
    Image start;
    std::string name;
    std::string data;
    std::uint64_t capacity = Disk().capacity;

    Contents before = ReadZip(start);
    Contents added = With(before, name, data);
    /// Its folder stays.
    Contents after{added.begin(), added.end() - 1};
};

/// Small and large entries (the directory's copy moves once, several times), alone in the archive and not.
std::vector<AddCase> AddCases() {
    const Image few = WriteZip({{"a", "first"}, {"b/", ""}, {"b/c", Noise(3000)}});
    Contents names;
    for (int index = 0; index < 320; ++index) {
        names.emplace_back(std::string(4000, 'n') + std::to_string(index), "");
    }
    return {{"only, small", WriteZip({}), "new", Noise(1000)},
            {"only, large", WriteZip({}), "new", Noise(2U << 20U)},
            {"only, in a folder", WriteZip({}), "F/new", Noise(1000)},
            {"small", few, "F/new", Noise(1000)},
            {"large", few, "new", Noise(7U << 20U)},
            // No room to put the copy further away than it must be.
            {"wide directory on a nearly full disk", WriteZip(names), "F/new", Noise(2U << 20U), 8U << 20U}};
}

TEST(AppendInPlaceSourceTest, AKillAfterAnyWriteLeavesEveryEarlierEntry) {
    for (const AddCase& entry : AddCases()) {
        SCOPED_TRACE(entry.description);
        Disk disk{.file = entry.start, .capacity = entry.capacity};
        Session session(disk);
        ASSERT_TRUE(session.Add(entry.name, entry.data));
        ASSERT_EQ(ReadZip(disk.file), entry.added);
        ASSERT_TRUE(session.Delete(entry.name));
        ASSERT_EQ(ReadZip(disk.file), entry.after);
        EXPECT_TRUE(!entry.after.empty() || disk.file == WriteZip({}));
        Image image = entry.start;
        for (std::size_t index = 0; index < disk.changes.size(); ++index) {
            const Disk::Change& step = disk.changes[index];
            const std::size_t whole = step.bytes.size() + 1;
            for (const std::size_t done : {whole / 2, whole}) {
                // The write of a copy behind the end is the one that may leave a file which does not open.
                if (done != whole && (step.cut || step.offset >= image.Size())) {
                    continue;
                }
                SCOPED_TRACE(fmt::format("killed with {} of {} bytes of change {} done", done, whole, index));
                Image killed = image;
                step.ApplyTo(killed, done);
                EXPECT_THAT(ReadZip(killed), AnyOf(entry.before, entry.added, entry.after));
            }
            step.ApplyTo(image, whole);
        }
    }
}

TEST(AppendInPlaceSourceTest, AFailingWriteIsUndoneAndTheNextAddWorks) {
    for (const AddCase& entry : AddCases()) {
        for (const bool lasting : {false, true}) {
            bool isWhole = false;
            for (std::size_t step = 0; !isWhole; ++step) {
                SCOPED_TRACE(fmt::format("{}: change {} fails, lasting {}", entry.description, step, lasting));
                Disk disk{.file = entry.start, .failing = step, .failsFromThenOn = lasting, .capacity = entry.capacity};
                Session session(disk);
                const bool isAdded = session.Add(entry.name, entry.data);
                const Image added = disk.file;
                const bool isTakenBack = isAdded && session.Delete(entry.name);
                isWhole = isTakenBack && disk.failing > 0U;
                disk.failing.reset();
                ASSERT_TRUE(session.Prepare());
                EXPECT_TRUE(isTakenBack || disk.file == entry.start || (isAdded && disk.file == added));
                const Contents now = ReadZip(disk.file);
                EXPECT_TRUE(!isTakenBack || now == entry.after);
                ASSERT_TRUE(session.Add("next", "next"));
                EXPECT_EQ(ReadZip(disk.file), With(now, "next", "next"));
            }
        }
    }
}

TEST(AppendInPlaceSourceTest, OnlyTheLastAddIsTakenBack) {
    Disk disk{.file = WriteZip({{"a", "first"}, {"b", "second"}})};
    Session session(disk);
    ASSERT_TRUE(session.Add("x.old", "third") && session.Add("x", "fourth"));
    const Image both = disk.file;
    const auto isRefused = [&](bool changed, const Image& expected) {
        return !changed && session.LastFailure() == ERROR_NOT_SUPPORTED && disk.file == expected;
    };
    EXPECT_TRUE(isRefused(session.Delete("a"), both) && isRefused(session.Delete("x.old"), both));
    EXPECT_TRUE(isRefused(session.Add("x.old", "replaced"), both));
    EXPECT_TRUE(session.Delete("x"));
    const Image one = disk.file;
    EXPECT_EQ(ReadZip(one), (Contents{{"a", "first"}, {"b", "second"}, {"x.old", "third"}}));
    EXPECT_TRUE(isRefused(session.Delete("x.old"), one));
    Disk only{.file = WriteZip({{"a", "first"}})};
    EXPECT_FALSE(Session(only).Delete("a"));
    EXPECT_EQ(only.file, WriteZip({{"a", "first"}}));
}

TEST(AppendInPlaceSourceTest, ArchivesGrowBeyondFourGigabytesAndSixtyFiveThousandEntries) {
    for (const std::uint64_t zeros : {0xfffe0000ULL, 0xffe00000ULL}) {
        Image image = WriteZip({{"a", "first"}}, zeros);
        Disk disk{.file = image};
        Session session(disk);
        const std::string data = Noise(3U << 20U);
        ASSERT_TRUE(session.Add("new", data) && session.Add("next", data) && session.Delete("next"));
        const Contents one = With({{"a", "first"}}, "new", data);
        EXPECT_EQ(ReadZip(disk.file), one);
        const Contents both = With(one, "next", data);
        for (const Disk::Change& change : disk.changes) {
            change.ApplyTo(image, change.bytes.size() + 1);
            const Contents now = ReadZip(image);
            EXPECT_TRUE(!now.empty() && std::equal(now.begin(), now.end(), both.begin()));
        }
    }
    Contents many(65535);
    for (std::size_t index = 0; index < many.size(); ++index) {
        many[index].first = std::to_string(index);
    }
    Image image = WriteZip(many, 0xffd30000);  // the directory ends beyond four gigabytes
    Disk disk{.file = image};
    ASSERT_TRUE(Session(disk).Add("new", "data"));
    EXPECT_TRUE(ReadZip(disk.file) == With(many, "new", "data"));
    disk.changes.front().ApplyTo(image, disk.changes.front().bytes.size() + 1);
    EXPECT_TRUE(ReadZip(image) == many) << "the copy of the directory";
}

TEST(AppendInPlaceSourceTest, WhatDoesNotEndInItsDirectoryIsNoArchive) {
    const Image whole = WriteZip({{"a", "first"}, {"b", Noise(1000)}});
    Image commented = whole;
    commented.bytes.replace(commented.bytes.size() - 2, 2, std::string("\x03\0one", 5));
    Image torn = whole;
    torn.Write(torn.Size() + 300000, "PK\1\2 the start of a copy");
    Image elsewhere = whole;  // as behind a self-extractor's program
    elsewhere.Write(elsewhere.Size(), WriteZip({{"c", "third"}}).bytes);
    for (const Image& image : {Image(), Image{.bytes = "some text, but no archive"}, commented, torn, elsewhere}) {
        Disk disk{.file = image};
        DiskFile file(disk);
        EXPECT_EQ(AppendInPlaceSource(file).Prepare(), std::unexpected<DWORD>(ERROR_BAD_FORMAT));
        EXPECT_TRUE(disk.changes.empty());
    }
}

}  // namespace
}  // namespace Shared::FileZip
