#include <gmock/gmock.h>

#include "shared.filezip-appendsource.h"
#include "shared.util-functions.h"
#include "test-support.h"
#include "zip-disk.h"

namespace Shared::FileZip {
namespace {

using libzippp::ZipArchive;
using testing::AnyOf;
using testing::Eq;
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

/// What is in an archive that needs no repair; a fault comes back as the only entry. Nothing is in an empty file.
Contents ReadZip(const Image& image) {
    if (image.Size() == 0) {
        return {};
    }
    Disk disk{.file = image};
    DiskFile file(disk);
    AppendInPlaceSource source(file);
    if (!source.Prepare() || *disk.file != image) {
        return {{"fault", "the end is torn"}};
    }
    const auto archive = OpenOver(source, ZipArchive::ReadOnly);
    return archive ? TestSupport::ContentsOf(*archive) : Contents{{"fault", "inconsistent"}};
}

/// Opens or creates the archive on the disk, changes it, and closes it; false when it could not be written.
template <class Change>
bool Edit(Disk& disk, const Change& change) {
    DiskFile file(disk);
    AppendInPlaceSource source(file);
    if ((!disk.file && !source.Create()) || !source.Prepare()) {
        return false;
    }
    const auto archive = OpenOver(source, ZipArchive::Write);
    change(*archive);
    const bool written = archive->close() == LIBZIPPP_OK;
    archive->discard();
    return written;
}

bool Add(Disk& disk, const std::string& name, const std::string& data) {
    return Edit(disk, [&](ZipArchive& archive) {
        archive.addData(name, data.data(), data.size());
        archive.getEntry(name).setCompressionMethod(libzippp::STORE);
    });
}

Contents With(Contents contents, const std::string& name, const std::string& data) {
    contents.emplace_back(name, TestSupport::Brief(data));
    return contents;
}

using AddCase = std::tuple<const char*, std::optional<Image>, std::size_t>;

/// Small and large entries (the directory's copy moves once, several times), on archives of every make.
std::vector<AddCase> AddCases() {
    const Contents few{{"a", "first"}, {"b/", ""}, {"b/c", Noise(3000)}};
    Contents many;
    for (int index = 0; index < 320; ++index) {
        many.emplace_back(std::string(4000, 'n') + std::to_string(index), "");
    }
    return {{"new", std::nullopt, 1000},
            {"new-large", std::nullopt, 2U << 20U},
            {"empty-file", Image(), 1000},
            {"no-entries", WriteZip({}), 1000},
            {"small", WriteZip(few), 1000},
            {"large", WriteZip(few), 7U << 20U},
            {"comment", WriteZip(few, {.comment = std::string(65535, 'c')}), 2U << 20U},
            {"descriptors", WriteZip(few, {.dataDescriptors = true}), 1000},
            {"zip64", WriteZip(few, {.zip64 = true}), 2U << 20U},
            {"wide-directory", WriteZip(many), 2U << 20U}};
}

/// For read-with-other-tools.sh, which says where.
void KeepForOtherTools(const Image& image, const std::string& name) {
    if (const wchar_t* folder = _wgetenv(L"AGENTCLI_KEEP_ARCHIVES"); folder != nullptr) {
        TestSupport::WriteFile(std::filesystem::path(folder) / Util::PathFromUtf8(name), image.bytes);
    }
}

TEST(AppendInPlaceSourceTest, AKillAfterAnyWriteLeavesEveryEarlierEntry) {
    for (const auto& [description, start, size] : AddCases()) {
        SCOPED_TRACE(description);
        Disk disk{.file = start};
        Image image = start.value_or(Image());
        const Contents before = ReadZip(image);
        const std::string data = Noise(size);
        ASSERT_TRUE(Add(disk, "new", data));
        const Contents after = With(before, "new", data);
        ASSERT_EQ(ReadZip(*disk.file), after);
        for (std::size_t step = 0; step < disk.changes.size(); ++step) {
            const Disk::Change& change = disk.changes[step];
            const std::size_t whole = change.bytes.size() + 1;
            for (const std::size_t done : {std::size_t{1}, whole / 2, whole - 2, whole}) {
                const bool extends = change.offset + change.bytes.size() > image.Size();
                if (done != whole && (change.cut || (!extends && done != whole / 2))) {
                    continue;
                }
                SCOPED_TRACE(fmt::format("killed with {} of {} bytes of change {} done", done, whole, step));
                Disk killed{.file = image};
                change.ApplyTo(*killed.file, done);
                if (killed.file->Size() > image.Size() && done != whole) {
                    // Only the write of a copy behind the end may leave something to be repaired.
                    DiskFile file(killed);
                    AppendInPlaceSource source(file);
                    ASSERT_TRUE(source.Prepare());
                    EXPECT_EQ(ReadZip(*killed.file), before);
                } else {
                    EXPECT_THAT(ReadZip(*killed.file), AnyOf(Eq(before), Eq(after)));
                    if (done == whole) {
                        KeepForOtherTools(*killed.file, fmt::format("{}-{}.zip", description, step));
                    }
                }
            }
            change.ApplyTo(image, whole);
        }
        EXPECT_EQ(image, *disk.file);
    }
}

TEST(AppendInPlaceSourceTest, AFailingWriteIsUndoneAndTheNextAddWorks) {
    for (const auto& [description, start, size] : AddCases()) {
        const Contents before = ReadZip(start.value_or(Image()));
        const std::string data = Noise(size);
        for (const bool lasting : {false, true}) {
            for (std::size_t step = 0;; ++step) {
                SCOPED_TRACE(fmt::format("{}: change {} fails, lasting {}", description, step, lasting));
                Disk disk{.file = start, .failing = step, .failsFromThenOn = lasting};
                const bool added = Add(disk, "new", data);
                const bool reached = !disk.failing || *disk.failing == 0;
                disk.failing.reset();
                if (!added && !lasting && !before.empty()) {
                    EXPECT_TRUE(*disk.file == *start);
                }
                ASSERT_TRUE(Add(disk, "next", "next"));
                EXPECT_EQ(ReadZip(*disk.file), With(added ? With(before, "new", data) : before, "next", "next"));
                if (added && !reached) {
                    break;
                }
            }
        }
    }
}

TEST(AppendInPlaceSourceTest, AnExceptionNeverReachesTheLibrary) {
    struct ThrowingFile : DiskFile {
        using DiskFile::DiskFile;
        [[nodiscard]] Util::Win32Result<std::size_t> Read(std::uint64_t, std::span<std::byte>) const override {
            throw std::runtime_error("unexpected");
        }
    };
    Disk disk{.file = WriteZip({{"a", "first"}})};
    ThrowingFile file(disk);
    AppendInPlaceSource source(file);
    EXPECT_EQ(OpenOver(source, ZipArchive::Write), nullptr);
}

TEST(AppendInPlaceSourceTest, DeletingAndReplacingGoThroughAnotherFile) {
    const Image before = WriteZip({{"a", "first"}, {"b", Noise(2U << 20U)}, {"c", "third"}}, {.comment = "kept"});
    for (const bool full : {false, true}) {
        Disk disk{.file = before, .failing = full ? std::optional<std::size_t>(0) : std::nullopt};
        const bool written = Edit(disk, [](ZipArchive& archive) {
            archive.deleteEntry("b");
            archive.addData("c", "other", 5);
        });
        EXPECT_EQ(written, !full);
        EXPECT_EQ(ReadZip(*disk.file), full ? ReadZip(before) : (Contents{{"a", "first"}, {"c", "other"}}));
        EXPECT_TRUE(disk.changes.empty());
    }
    Disk disk{.file = WriteZip({{"only", "one"}})};
    EXPECT_TRUE(Edit(disk, [](ZipArchive& archive) { archive.deleteEntry("only"); }));
    EXPECT_EQ(*disk.file, WriteZip({}));
    EXPECT_TRUE(Add(disk, "new", "data"));
}

TEST(AppendInPlaceSourceTest, ArchivesGrowBeyondFourGigabytesAndSixtyFiveThousandEntries) {
    for (const std::uint64_t zeros : {0xfffe0000ULL, 0xffe00000ULL}) {
        Image image = WriteZip({{"a", "first"}}, {.zeros = zeros});
        Disk disk{.file = image};
        const std::string data = Noise(3U << 20U);
        ASSERT_TRUE(Add(disk, "new", data) && Add(disk, "next", data));
        const Contents both = With(With({{"a", "first"}}, "new", data), "next", data);
        EXPECT_EQ(ReadZip(*disk.file), both);
        for (const Disk::Change& change : disk.changes) {
            change.ApplyTo(image, change.bytes.size() + 1);
            const Contents now = ReadZip(image);
            EXPECT_TRUE(!now.empty() && std::equal(now.begin(), now.end(), both.begin()));
        }
    }
    for (const auto& [count, width] : {std::pair{12000U, 214}, {65534U, 5}, {65535U, 5}}) {
        Contents many(count);
        for (std::size_t index = 0; index < count; ++index) {
            many[index].first = fmt::format("{:0{}}", index, width);
        }
        Image image = WriteZip(many, {.zeros = 0xffd30000});  // the directory ends beyond four gigabytes
        Disk disk{.file = image};
        ASSERT_TRUE(Add(disk, "new", "data"));
        EXPECT_TRUE(ReadZip(*disk.file) == With(many, "new", "data"));
        disk.changes.front().ApplyTo(image, disk.changes.front().bytes.size() + 1);
        EXPECT_TRUE(ReadZip(image) == many) << "the copy of the directory, of " << count << " entries";
    }
}

TEST(AppendInPlaceSourceTest, OnlyATornEndIsRepaired) {
    const Image whole = WriteZip({{"a", "first"}, {"b", Noise(1000)}}, {.comment = "looks like PK\5\6 a record"});
    Image torn = whole;
    torn.Write(torn.Size() + 300000, "PK\1\2 the start of a copy");
    Image foreign = whole;  // an end record whose directory is elsewhere, as behind a self-extractor's program
    foreign.Write(foreign.Size(), WriteZip({{"c", "third"}}).Read(0, 1000));
    for (const auto& [before, after] : {std::pair{torn, whole}, {whole, whole}, {foreign, foreign}}) {
        Disk disk{.file = before};
        DiskFile file(disk);
        AppendInPlaceSource source(file);
        EXPECT_TRUE(source.Prepare());
        EXPECT_TRUE(*disk.file == after);
    }
}

}  // namespace
}  // namespace Shared::FileZip
