#include <windows.h>

#include <gmock/gmock.h>

#include <random>
#include <thread>

#include "shared.exception.h"
#include "shared.filezip-ziparchivewrapper.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "test-support.h"
#include "zip-image.h"

namespace Shared::FileZip {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using TestSupport::Contents;

std::string Noise(std::size_t size) {
    std::mt19937_64 random(size);
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

/// The archive on disk at this moment, read by other code; opening it also shows that a user may look at it.
Contents OnDisk(const fs::path& path) {
    TestSupport::Image image;
    image.Write(0, TestSupport::ReadFile(path));
    return TestSupport::ReadZip(image);
}

Util::FileHandle Hold(const fs::path& path, DWORD access, DWORD sharing) {
    Util::FileHandle file(CreateFileW(path.c_str(), access, sharing, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(file);
    return file;
}

std::string ErrorOf(const ZipArchiveWrapper::AddResult& result) {
    return result ? "added" : result.error();
}

class ZipArchiveWrapperTest : public testing::Test {
protected:
    fs::path Source(const fs::path& name, std::string_view bytes) {
        TestSupport::WriteFile(folder_ / name, bytes);
        return folder_ / name;
    }

    TestSupport::TemporaryFolder folder_;
    const fs::path path_ = folder_ / L"out.zip";
    ZipArchiveWrapper zip_{path_};
};

TEST(FormatSizeTest, UsesTheLargestUnitThatFits) {
    for (const auto& [bytes, text] : std::initializer_list<std::pair<std::uint64_t, const char*>>{
             {0, "0 B"}, {1023, "1023 B"}, {1024, "1 kB"}, {1048575, "1023 kB"}, {1048576, "1 MB"}}) {
        EXPECT_EQ(FormatSize(bytes), text);
    }
}

TEST_F(ZipArchiveWrapperTest, EveryAddIsOnDiskAtOnce) {
    const std::string longName(200, 'n');
    zip_.Open();
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_TRUE(zip_.AddFile("LOG_0\\first.log", Source(L"first.log", "first")));
    Contents expected{{"LOG_0/", ""}, {"LOG_0/first.log", "first"}};
    EXPECT_EQ(OnDisk(path_), expected);
    EXPECT_TRUE(zip_.AddFileToFolder(L"LOG_1", Source(L"s\u00e9cond.log", "")));
    expected.insert(expected.end(), {{"LOG_1/", ""}, {"LOG_1/s\u00e9cond.log", ""}});
    EXPECT_EQ(OnDisk(path_), expected);
    // Behind the prefix for long paths the test makes a folder that no plain path reaches.
    const fs::path deep = LR"(\\?\)" + (folder_ / longName).native() + L"\\" + fs::path(longName).native();
    ASSERT_TRUE(CreateDirectoryW(deep.parent_path().c_str(), nullptr) && CreateDirectoryW(deep.c_str(), nullptr));
    const std::string data = Noise(3U << 20U);
    fs::rename(Source(L"deep.log", data), deep / L"deep.log");
    EXPECT_TRUE(zip_.AddFileToFolder(L"LOG_1", folder_ / longName / longName / L"deep.log"));
    expected.emplace_back("LOG_1/deep.log", TestSupport::Brief(data));
    EXPECT_TRUE(zip_.AddFile("LOG_0/first.log", Source(L"first.log", "replaced")));
    expected.erase(expected.begin() + 1);
    expected.emplace_back("LOG_0/first.log", "replaced");
    EXPECT_EQ(OnDisk(path_), expected);
    EXPECT_EQ(zip_.Entries().size(), expected.size());
    zip_.Close();

    ZipArchiveWrapper again(path_);
    again.Open();
    EXPECT_TRUE(again.AddFile("more", folder_ / L"first.log"));
    expected.emplace_back("more", "replaced");
    EXPECT_EQ(OnDisk(path_), expected);
    DeleteFileW((deep / L"deep.log").c_str());
    RemoveDirectoryW(deep.c_str());
    RemoveDirectoryW(deep.parent_path().c_str());
}

TEST_F(ZipArchiveWrapperTest, EntriesKeepTheTimeOfTheirFile) {
    const fs::path source = Source(L"old.log", "old");
    const std::time_t lastYear = std::time(nullptr) - 365LL * 24 * 3600;
    fs::last_write_time(source, fs::file_time_type::clock::now() - std::chrono::hours(365 * 24));
    zip_.Open();
    ASSERT_TRUE(zip_.AddFile("old.log", source));
    EXPECT_NEAR(static_cast<double>(zip_.Entries()[0].getDate()), static_cast<double>(lastYear), 10);
}

TEST_F(ZipArchiveWrapperTest, AFileThatCannotBeReadCostsItselfOnly) {
    zip_.Open();
    ASSERT_TRUE(zip_.AddFile("kept", Source(L"kept", "kept")));
    const fs::path locked = Source(L"lock\u00e9d", "locked");
    fs::create_directory(folder_ / L"folder");
    const Util::FileHandle lock = Hold(locked, GENERIC_READ, 0);
    const unsigned handles = TestSupport::HandleCount();
    for (const auto& [source, code] : {std::pair{folder_ / L"missing", ERROR_FILE_NOT_FOUND},
                                       {folder_ / L"no folder" / L"missing", ERROR_PATH_NOT_FOUND},
                                       {folder_ / L"folder", ERROR_ACCESS_DENIED},
                                       {locked, ERROR_SHARING_VIOLATION}}) {
        EXPECT_THAT(ErrorOf(zip_.AddFile("name", source)),
                    AllOf(HasSubstr(Util::ToUtf8(source)), HasSubstr("(" + std::to_string(code) + ")")));
    }
    EXPECT_THAT(ErrorOf(zip_.AddFile("", folder_ / L"kept")), HasSubstr("kept"));
    EXPECT_EQ(TestSupport::HandleCount(), handles);
    EXPECT_TRUE(zip_.AddFile("next", folder_ / L"kept"));
    EXPECT_EQ(OnDisk(path_), (Contents{{"kept", "kept"}, {"next", "kept"}}));
}

TEST_F(ZipArchiveWrapperTest, FilesThatOthersHoldOpenAreArchived) {
    zip_.Open();
    const fs::path source = Source(L"held", "held");
    for (const auto& [access, sharing] : {std::pair<DWORD, DWORD>{GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE},
                                          {GENERIC_WRITE, FILE_SHARE_READ},
                                          {GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE}}) {
        const Util::FileHandle held = Hold(source, access, sharing);
        EXPECT_EQ(ErrorOf(zip_.AddFile("held", source)), "added");
    }
}

TEST_F(ZipArchiveWrapperTest, AFileThatChangesItsSizeMeanwhileIsReported) {
    zip_.Open();
    ASSERT_TRUE(zip_.AddFile("kept", Source(L"kept", "kept")));
    const std::string data = Noise(24U << 20U);
    const auto addWhile = [&](const char* name, std::uint64_t newSize) {
        const fs::path source = Source(Util::PathFromUtf8(name), data);
        const std::uintmax_t before = fs::file_size(path_);
        std::jthread change([&, newSize](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                if (fs::file_size(path_) != before) {  // the add has begun to write
                    fs::resize_file(source, newSize);
                    return;
                }
            }
        });
        return ErrorOf(zip_.AddFile(name, source));
    };
    EXPECT_THAT(addWhile("shrinking", 1000), AllOf(HasSubstr("shrinking"), HasSubstr("it shrank from 25165824 to ")));
    EXPECT_EQ(OnDisk(path_), (Contents{{"kept", "kept"}}));
    EXPECT_THAT(addWhile("growing", data.size() + 1), AllOf(HasSubstr("growing"), HasSubstr("grew to 25165825 bytes")));
    EXPECT_EQ(OnDisk(path_), (Contents{{"kept", "kept"}, {"growing", TestSupport::Brief(data)}}));
}

TEST_F(ZipArchiveWrapperTest, TheLimitIsForTheFileOnDisk) {
    const fs::path source = Source(L"noise.bin", Noise(5000));
    const auto sizeWith = [&](const fs::path& path, std::uint64_t limit, std::string& error) {
        ZipArchiveWrapper zip(path, limit);
        zip.Open();
        EXPECT_TRUE(zip.AddFile("F_0/small", Source(L"small", "small")));
        error = ErrorOf(zip.AddFile("F_0/noise.bin", source));
        return fs::file_size(path);
    };
    std::string error;
    const std::uintmax_t size = sizeWith(path_, 0, error);
    EXPECT_EQ(sizeWith(folder_ / L"exact.zip", size, error), size);
    EXPECT_EQ(error, "added");
    EXPECT_LT(sizeWith(folder_ / L"over.zip", size - 1, error), size - 5000);
    EXPECT_EQ(error, "Excluded file " + Util::ToUtf8(source) + " (4 kB) as it exceeds the maximum archive size (" +
                         FormatSize(size - 1) + ").");
    EXPECT_EQ(OnDisk(folder_ / L"over.zip"), (Contents{{"F_0/", ""}, {"F_0/small", "small"}}));
    ZipArchiveWrapper tiny(folder_ / L"tiny.zip", 10);
    tiny.Open();
    EXPECT_FALSE(tiny.AddFile("only", source));
    EXPECT_FALSE(fs::exists(folder_ / L"tiny.zip"));
}

TEST_F(ZipArchiveWrapperTest, OnlyAnArchiveOfItsOwnIsOpened) {
    EXPECT_THROW(ZipArchiveWrapper(fs::path()).Open(), Exception::RuntimeException);
    const auto reason = [](const fs::path& path) -> std::string {
        try {
            ZipArchiveWrapper(path).Open();
            return "opened";
        } catch (const Exception::RuntimeException& failure) {
            return failure.what();
        }
    };
    const fs::path text = Source(L"text.zip", "this is no archive, but some text");
    EXPECT_THAT(reason(text), AllOf(HasSubstr("text.zip"), HasSubstr("Not a zip archive")));
    EXPECT_EQ(TestSupport::ReadFile(text).size(), 33U);
    EXPECT_THAT(reason(folder_ / L"none" / L"out.zip"), HasSubstr("(3)"));

    zip_.Open();
    ASSERT_TRUE(zip_.AddFile("kept", Source(L"kept", "kept")));
    zip_.Close();
    ASSERT_TRUE(CreateHardLinkW((folder_ / L"link.zip").c_str(), path_.c_str(), nullptr));
    EXPECT_THAT(reason(path_), HasSubstr("hard links"));
    ASSERT_TRUE(DeleteFileW((folder_ / L"link.zip").c_str()));

    {
        const Util::FileHandle lock = Hold(path_, GENERIC_READ, FILE_SHARE_READ);
        EXPECT_THAT(ErrorOf(zip_.AddFile("next", folder_ / L"kept")), AllOf(HasSubstr("kept"), HasSubstr("(32)")));
        EXPECT_TRUE(zip_.Entries().empty());
    }
    EXPECT_TRUE(zip_.AddFile("next", folder_ / L"kept"));
    zip_.Close();
    TestSupport::WriteFile(path_, TestSupport::ReadFile(path_) + std::string(100000, '\0') + "PK\1\2 a torn copy");
    zip_.Open();
    EXPECT_EQ(OnDisk(path_), (Contents{{"kept", "kept"}, {"next", "kept"}}));
    EXPECT_EQ(zip_.Entries().size(), 2U);

    zip_.Close();
    zip_.SetPath(folder_ / L"second.zip");
    zip_.Open();
    EXPECT_TRUE(zip_.Entries().empty());
    {
        ZipArchiveWrapper passing(folder_ / L"passing.zip", 0, true);
        passing.Open();
        EXPECT_TRUE(passing.AddFile("kept", folder_ / L"kept"));
        EXPECT_TRUE(fs::exists(passing.Path()));
    }
    EXPECT_FALSE(fs::exists(folder_ / L"passing.zip"));
}

}  // namespace
}  // namespace Shared::FileZip
