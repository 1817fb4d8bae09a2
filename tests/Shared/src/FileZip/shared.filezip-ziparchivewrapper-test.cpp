#include <windows.h>

#include <gmock/gmock.h>

#include <thread>

#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filezip-ziparchivewrapper.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "test-support.h"
#include "zip-contents.h"

namespace Shared::FileZip {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Pair;
using TestSupport::Contents;
using TestSupport::Noise;

/// What the archive's file holds, which nothing can read before it is closed.
Contents OnDisk(ZipArchiveWrapper& zip) {
    zip.Close();
    libzippp::ZipArchive archive(Util::ToUtf8Lossy(zip.Path()));
    const bool opened = archive.open(libzippp::ZipArchive::ReadOnly, true);
    Contents contents = opened ? TestSupport::ContentsOf(archive) : Contents{{"fault", ""}};
    archive.discard();
    zip.Open(ZipArchiveWrapper::Creation::Never);
    return contents;
}

Util::FileHandle Hold(const fs::path& path, DWORD access, DWORD sharing) {
    Util::FileHandle file(CreateFileW(path.c_str(), access, sharing, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(file);
    return file;
}

std::string ErrorOf(const ZipArchiveWrapper::AddResult& result) {
    return result ? "added" : (result.error().isArchived ? "in part: " : "") + result.error().message;
}

class ZipArchiveWrapperTest : public testing::Test {
protected:
    ZipArchiveWrapperTest() {
        zip_.Open();
        EXPECT_EQ(OnDisk(zip_), Contents());
        EXPECT_TRUE(zip_.AddFile("kept", Source(L"kept", "kept")));
    }

    fs::path Source(const fs::path& name, std::string_view bytes) {
        TestSupport::WriteFile(folder_ / name, bytes);
        return folder_ / name;
    }

    TestSupport::TemporaryFolder folder_;
    const fs::path path_ = folder_ / L"out.zip";
    ZipArchiveWrapper zip_{path_};
};

TEST_F(ZipArchiveWrapperTest, EveryAddIsOnDiskAtOnce) {
    EXPECT_TRUE(zip_.AddFile("LOG_0\\first.log", Source(L"first.log", "first")));
    Contents expected{{"kept", "kept"}, {"LOG_0/", ""}, {"LOG_0/first.log", "first"}};
    EXPECT_EQ(OnDisk(zip_), expected);
    EXPECT_TRUE(zip_.AddFileToFolder(L"LOG_1", Source(L"s\u00e9cond.log", "")));
    expected.insert(expected.end(), {{"LOG_1/", ""}, {"LOG_1/s\u00e9cond.log", ""}});
    EXPECT_EQ(OnDisk(zip_), expected);
    const fs::path deep = folder_ / std::wstring(200, L'n') / std::wstring(200, L'n');
    for (const fs::path& folder : {deep.parent_path(), deep}) {
        ASSERT_TRUE(CreateDirectoryW(FileSystem::LongForm(folder).c_str(), nullptr));
    }
    const std::string data = Noise(3U << 20U);
    fs::rename(Source(L"deep.log", data), FileSystem::LongForm(deep / L"deep.log"));
    EXPECT_TRUE(zip_.AddFileToFolder(L"LOG_1", deep / L"deep.log"));
    EXPECT_TRUE(zip_.AddFile("LOG_0/first.log", Source(L"first.log", "replaced")));
    expected.erase(expected.begin() + 2);
    expected.insert(expected.end(), {{"LOG_1/deep.log", TestSupport::Brief(data)}, {"LOG_0/first.log", "replaced"}});
    EXPECT_EQ(OnDisk(zip_), expected);
}

TEST_F(ZipArchiveWrapperTest, AFileThatCannotBeReadCostsItselfOnly) {
    const fs::path locked = Source(L"lock\u00e9d", "locked");
    {
        const Util::FileHandle lock = Hold(locked, GENERIC_READ, 0);
        const unsigned handles = TestSupport::HandleCount();
        for (const auto& [source, code] : {std::pair{folder_ / L"missing", ERROR_FILE_NOT_FOUND},
                                           {folder_ / L"no folder" / L"missing", ERROR_PATH_NOT_FOUND},
                                           {folder_.Path(), ERROR_ACCESS_DENIED},
                                           {locked, ERROR_SHARING_VIOLATION}}) {
            EXPECT_THAT(ErrorOf(zip_.AddFile("name", source)),
                        AllOf(HasSubstr(Util::ToUtf8Lossy(source)), HasSubstr("(" + std::to_string(code) + ")")));
        }
        EXPECT_THAT(ErrorOf(zip_.AddFile("", folder_ / L"kept")), HasSubstr("kept"));
        EXPECT_EQ(TestSupport::HandleCount(), handles);
    }
    const Util::FileHandle held = Hold(locked, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_EQ(ErrorOf(zip_.AddFile("next", locked)), "added");
    EXPECT_EQ(OnDisk(zip_), (Contents{{"kept", "kept"}, {"next", "locked"}}));
}

TEST_F(ZipArchiveWrapperTest, AFileThatChangesItsSizeMeanwhileIsReported) {
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
    // Some releases of the library give the part that could be read, others nothing: then the rest is read.
    const std::string shrinking = addWhile("shrinking", 1000);
    const bool isWhole = OnDisk(zip_).back().second == TestSupport::Brief(data.substr(0, 1000));
    EXPECT_THAT(shrinking, AnyOf(isWhole ? "added" : "", AllOf(HasSubstr("in part: "), HasSubstr("it shrank from "))));
    EXPECT_THAT(addWhile("growing", data.size() + 1),
                AllOf(HasSubstr("in part: "), HasSubstr("grew to 25165825 bytes")));
    EXPECT_THAT(OnDisk(zip_), testing::ElementsAre(Pair("kept", "kept"), Pair("shrinking", HasSubstr(" bytes ")),
                                                   Pair("growing", TestSupport::Brief(data))));
}

TEST_F(ZipArchiveWrapperTest, FilesOfOneNameAreNumbered) {
    for (const wchar_t* name : {L"a\\x.tar.log", L"b\\x.tar.log", L"c\\X.TAR.log", L"a\\.log", L"b\\.log"}) {
        fs::create_directories((folder_ / name).parent_path());
        EXPECT_TRUE(zip_.AddFileToFolder(L"L", Source(name, "x")));
    }
    std::string names;
    for (const libzippp::ZipEntry& entry : zip_.Entries()) {
        names += entry.getName() + '\n';
    }
    EXPECT_EQ(names, "kept\nL/\nL/x.tar.log\nL/x.tar (2).log\nL/X.TAR (3).log\nL/.log\nL/.log (2)\n");
}

TEST_F(ZipArchiveWrapperTest, AnArchiveThatCannotBeWrittenStaysAsItIs) {
    // Beside a name of this length there is none for the file that replaces the archive.
    ZipArchiveWrapper zip(folder_ / std::wstring(250, L'n'));
    zip.Open();
    EXPECT_TRUE(zip.AddFile("kept", folder_ / L"kept"));
    testing::internal::CaptureStderr();
    EXPECT_THAT(ErrorOf(zip.AddFile("kept", Source(L"other", "other"))), HasSubstr("could not be written: "));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(zip.AddFile("next", folder_ / L"other"));
    EXPECT_EQ(OnDisk(zip), (Contents{{"kept", "kept"}, {"next", "other"}}));
}

TEST_F(ZipArchiveWrapperTest, EntryTimesAreLocalTimeByWindows) {
    // In that hour the clocks of the zone that the C library would take go from 2 to 3.
    ASSERT_EQ(_wputenv_s(L"TZ", L"EST5EDT"), 0);
    _tzset();
    zip_.Close();
    zip_.Open();
    const SYSTEMTIME local{2024, 3, 0, 10, 2, 30, 8, 0};
    SYSTEMTIME utc{};
    FILETIME time{};
    ASSERT_TRUE(TzSpecificLocalTimeToSystemTime(nullptr, &local, &utc) && SystemTimeToFileTime(&utc, &time));
    ASSERT_TRUE(SetFileTime(Hold(Source(L"new", "new"), FILE_WRITE_ATTRIBUTES, 0).Get(), nullptr, nullptr, &time));
    EXPECT_TRUE(zip_.AddFile("new", folder_ / L"new") && zip_.AddFile("next", folder_ / L"kept"));
    zip_.Close();
    const std::string bytes = TestSupport::ReadFile(path_);
    for (const auto& [signature, offset] : {std::pair{"PK\3\4", 30U}, {"PK\1\2", 46U}}) {
        std::size_t record = bytes.find(signature, bytes.find(signature) + 1);
        EXPECT_EQ(bytes.substr(record + offset, 3), "new");
        EXPECT_EQ(bytes.substr(record + offset - (offset == 30U ? 20U : 34U), 4), "\xC4\x13\x6A\x58");
    }
    std::size_t length = 0;
    _wgetenv_s(&length, nullptr, 0, L"TZ");
    EXPECT_EQ(length, 0U);
    EXPECT_NE(GetEnvironmentVariableW(L"TZ", nullptr, 0), 0U);  // child processes keep it
}

TEST_F(ZipArchiveWrapperTest, FilesOverALimitAreTakenOutAgain) {
    EXPECT_EQ(FormatSize(1023) + FormatSize(1024) + FormatSize(1048575) + FormatSize(1048576), "1023 B1 kB1023 kB1 MB");
    const fs::path source = Source(L"noise.bin", Noise(5000));
    const auto addWith = [&](std::uint64_t limit, const Contents& expected) {
        ZipArchiveWrapper zip(folder_ / std::to_wstring(limit), limit);
        zip.Open();
        EXPECT_TRUE(zip.AddFile("F_0/small", Source(L"small", "small")) || limit == 10);
        const std::string error = ErrorOf(zip.AddFile("F_0/noise.bin", source));
        EXPECT_EQ(OnDisk(zip), expected);
        return error;
    };
    const Contents small{{"F_0/", ""}, {"F_0/small", "small"}};
    Contents both = small;
    both.emplace_back("F_0/noise.bin", TestSupport::Brief(Noise(5000)));
    EXPECT_EQ(addWith(0, both), "added");
    const std::uintmax_t size = fs::file_size(folder_ / L"0");
    EXPECT_EQ(addWith(size, both), "added");
    for (const auto& [limit, expected] : {std::pair{size - 1, small}, {10, {{"F_0/", ""}}}}) {
        EXPECT_EQ(addWith(limit, expected), "Excluded file " + Util::ToUtf8Lossy(source) +
                                                " (4 kB) as it exceeds the maximum archive size (" + FormatSize(limit) +
                                                ").");
    }

    const auto tooLarge = zip_.AddFileToFolder(L"F_0", source, 4999);
    EXPECT_TRUE(!tooLarge && tooLarge.error().tooLarge == 5000U && !tooLarge.error().isArchived);
    EXPECT_EQ(OnDisk(zip_), (Contents{{"kept", "kept"}}));
    EXPECT_TRUE(zip_.AddFileToFolder(L"F_0", source, 5000));
}

TEST_F(ZipArchiveWrapperTest, OnlyAnArchiveOfItsOwnIsOpened) {
    using enum ZipArchiveWrapper::Creation;
    zip_.Close();
    const fs::path linked = Source(L"linked.zip", TestSupport::ReadFile(path_));
    ASSERT_TRUE(CreateHardLinkW((folder_ / L"link.zip").c_str(), linked.c_str(), nullptr));
    for (const auto& [path, creation, reason] :
         {std::tuple{fs::path(), IfMissing, "Path to archive was empty"},
          {Source(L"text.zip", "this is no archive, but some text"), IfMissing, "text.zip: it is not a zip archive"},
          {folder_ / L"none" / L"out.zip", IfMissing, "(3)"},
          {folder_ / L"missing.zip", Never, "(2)"},
          {path_, New, "(80)"},
          {linked, IfMissing, "hard links"}}) {
        EXPECT_THAT([&] { ZipArchiveWrapper(path).Open(creation); },
                    testing::ThrowsMessage<std::runtime_error>(HasSubstr(reason)));
    }
    EXPECT_FALSE(fs::exists(folder_ / L"missing.zip"));
    {
        const Util::FileHandle lock = Hold(path_, GENERIC_READ, FILE_SHARE_READ);
        EXPECT_THAT(ErrorOf(zip_.AddFile("next", folder_ / L"kept")), AllOf(HasSubstr("kept"), HasSubstr("(32)")));
    }
    EXPECT_TRUE(zip_.AddFile("next", folder_ / L"kept"));
    zip_.Close();
    TestSupport::WriteFile(path_, TestSupport::ReadFile(path_) + std::string(100000, '\0') + "PK\1\2 a torn copy");
    zip_.Open();
    EXPECT_EQ(OnDisk(zip_), (Contents{{"kept", "kept"}, {"next", "kept"}}));
}

TEST_F(ZipArchiveWrapperTest, NoOtherProcessChangesItWhileItIsOpenOrCopied) {
    const auto access = [](const fs::path& path, DWORD wanted) {
        const Util::FileHandle file(
            CreateFileW(path.c_str(), wanted, FileSystem::shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
        return file ? ERROR_SUCCESS : GetLastError();
    };
    for (const char* name : {"next", "kept"}) {  // added, and replaced, which makes another file
        EXPECT_TRUE(zip_.AddFile(name, folder_ / L"kept"));
        EXPECT_EQ(access(path_, GENERIC_READ), DWORD{ERROR_SHARING_VIOLATION});
    }
    zip_.Close();
    {
        const Util::FileHandle copied = zip_.ReopenToCopy();
        EXPECT_EQ(access(path_, GENERIC_READ), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(access(path_, GENERIC_WRITE), DWORD{ERROR_SHARING_VIOLATION});
        EXPECT_EQ(access(path_, DELETE), DWORD{ERROR_SHARING_VIOLATION});
    }
    fs::rename(path_, folder_ / L"moved");
    fs::copy_file(folder_ / L"moved", path_);
    EXPECT_THROW((void)zip_.ReopenToCopy(), Exception::Win32Exception);

    {
        ZipArchiveWrapper passing(folder_ / L"passing.zip", 0, true);
        passing.Open(ZipArchiveWrapper::Creation::New);
        EXPECT_EQ(access(passing.Path(), GENERIC_READ), DWORD{ERROR_SHARING_VIOLATION});
    }
    EXPECT_FALSE(fs::exists(folder_ / L"passing.zip"));
}

}  // namespace
}  // namespace Shared::FileZip
