#include <windows.h>

#include <gmock/gmock.h>

#include <functional>
#include <thread>
#include <utility>

#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filezip-ziparchivewrapper.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "test-support.h"
#include "zip-contents.h"

namespace {

/// What happens right after the next query of an open file's size, and how many cuts of files still fail.
std::function<void()> afterQuery;
unsigned failingCuts = 0;
/// How files are flushed.
DWORD flushError = ERROR_SUCCESS;
/// What open files have beside their own attributes.
DWORD attributes = 0;

template <class Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), name)));
}

BOOL WINAPI Query(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, void* information, DWORD size) {
    const BOOL result = Real<decltype(Query)>("GetFileInformationByHandleEx")(file, kind, information, size);
    if (kind == FileBasicInfo) {
        static_cast<FILE_BASIC_INFO*>(information)->FileAttributes |= attributes;
    }
    if (const auto hook = kind == FileStandardInfo ? std::exchange(afterQuery, nullptr) : nullptr) {
        hook();
    }
    return result;
}

BOOL WINAPI Set(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, void* information, DWORD size) {
    if (kind == FileEndOfFileInfo && failingCuts > 0) {
        --failingCuts;
        SetLastError(ERROR_USER_MAPPED_FILE);
        return FALSE;
    }
    return Real<decltype(Set)>("SetFileInformationByHandle")(file, kind, information, size);
}

BOOL WINAPI Flush(HANDLE /*file*/) {
    SetLastError(flushError);
    return flushError == ERROR_SUCCESS ? TRUE : FALSE;
}

}  // namespace

// A program reaches a DLL's function through the pointer of this name.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {
decltype(&GetFileInformationByHandleEx) __imp_GetFileInformationByHandleEx = &Query;
decltype(&SetFileInformationByHandle) __imp_SetFileInformationByHandle = &Set;
decltype(&FlushFileBuffers) __imp_FlushFileBuffers = &Flush;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

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
    zip.Open();
    return contents;
}

std::string ErrorOf(const ZipArchiveWrapper::AddResult& result) {
    return result ? "added" : (result.error().archived ? "in part: " : "") + result.error().message;
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
    const auto first = zip_.AddFile("LOG_0\\first.log", Source(L"first.log", "first"));
    EXPECT_TRUE(first && first->entryName == "LOG_0/first.log" && first->size == 5);
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
    EXPECT_THAT(ErrorOf(zip_.AddFile("LOG_0/first.log", Source(L"first.log", "other"))), HasSubstr("has an entry"));
    expected.emplace_back("LOG_1/deep.log", TestSupport::Brief(data));
    EXPECT_EQ(OnDisk(zip_), expected);
}

TEST_F(ZipArchiveWrapperTest, AFileThatCannotBeReadCostsItselfOnly) {
    const fs::path locked = Source(L"lock\u00e9d", "locked");
    {
        const Util::FileHandle lock = TestSupport::Hold(locked);
        for (const auto& [source, reason] : {std::pair{folder_ / L"missing", "(2)"},
                                             {folder_ / L"no folder" / L"missing", "(3)"},
                                             {folder_.Path(), "it is not a regular file"},
                                             {locked, "(32)"}}) {
            EXPECT_THAT(ErrorOf(zip_.AddFile("name", source)),
                        AllOf(HasSubstr(Util::ToUtf8Lossy(source)), HasSubstr(reason)));
        }
        EXPECT_THAT(ErrorOf(zip_.AddFile("", folder_ / L"kept")), HasSubstr("kept"));
    }
    const Util::FileHandle written(
        CreateFileW(locked.c_str(), GENERIC_WRITE, FileSystem::shareContent, nullptr, OPEN_EXISTING, 0, nullptr));
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

TEST_F(ZipArchiveWrapperTest, AnAddReadsWhatWasChecked) {
    const auto addWhile = [&](const char* name, std::string_view bytes, std::uintmax_t newSize) {
        const fs::path source = Source(name, bytes);
        afterQuery = [=] { fs::resize_file(source, newSize); };
        return zip_.AddFile(name, source, 100);
    };
    const auto emptied = addWhile("emptied", "checked", 0);
    EXPECT_TRUE(emptied && emptied->size == 0);
    const auto longer = addWhile("longer", "checked", 9);
    EXPECT_TRUE(longer && longer->size == 9);
    const auto tooLong = addWhile("too long", "checked", 101);
    EXPECT_TRUE(!tooLong && tooLong.error().tooLarge == 101U);
    // The library would read an empty file for as long as it grows.
    EXPECT_THAT(ErrorOf(addWhile("begun", "", 9)), AllOf(HasSubstr("in part: "), HasSubstr("grew to 9 bytes")));
    // Of a deduplicated file the library states no size, as of an empty one: what it then reads counts.
    attributes = FILE_ATTRIBUTE_REPARSE_POINT;
    EXPECT_THAT(ErrorOf(addWhile("deduplicated", "checked", 0)),
                AllOf(HasSubstr("in part: "), HasSubstr("to 0 bytes")));
    attributes = 0;
    const auto addChanging = [&](const char* name, std::uintmax_t second) {
        const fs::path source = Source(name, "checked");
        afterQuery = [=] {
            fs::resize_file(source, 9);
            afterQuery = [=] { fs::resize_file(source, second); };
        };
        return zip_.AddFile(name, source, 100);
    };
    EXPECT_THAT(ErrorOf(addChanging("changing", 0)), HasSubstr("it shrank from 9 to 0 bytes"));
    EXPECT_FALSE(addChanging("changing", 101));
    EXPECT_TRUE(addChanging("growing", 10));
    const std::string nine("checked\0\0", 9);
    EXPECT_EQ(OnDisk(zip_), (Contents{{"kept", "kept"},
                                      {"emptied", ""},
                                      {"longer", nine},
                                      {"begun", ""},
                                      {"deduplicated", ""},
                                      {"growing", nine + '\0'}}));
}

TEST_F(ZipArchiveWrapperTest, CuttingTheArchiveWaitsForFilterDrivers) {
    failingCuts = 3;
    EXPECT_TRUE(zip_.AddFile("next", folder_ / L"kept"));
    EXPECT_EQ(failingCuts, 0U);
    failingCuts = ~0U;
    EXPECT_THAT(ErrorOf(zip_.AddFile("failing", folder_ / L"kept")), HasSubstr("could not be written: "));
    failingCuts = 0;
    EXPECT_TRUE(zip_.AddFile("last", folder_ / L"kept"));
    EXPECT_EQ(OnDisk(zip_), (Contents{{"kept", "kept"}, {"next", "kept"}, {"last", "kept"}}));
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

TEST_F(ZipArchiveWrapperTest, FilesOverALimitAreTakenOutAgain) {
    EXPECT_EQ(FormatSize(1023) + FormatSize(1024) + FormatSize(1048575) + FormatSize(1048576), "1023 B1 kB1023 kB1 MB");
    const fs::path source = Source(L"noise.bin", Noise(5000));
    EXPECT_TRUE(zip_.AddFile("F_0/noise.bin", source));
    const Contents both = OnDisk(zip_);
    const std::uintmax_t size = fs::file_size(path_);
    for (const std::uint64_t limit : {std::uint64_t{size}, std::uint64_t{size - 1}}) {
        ZipArchiveWrapper zip(folder_ / L"limited.zip", limit, true);
        zip.Open(ZipArchiveWrapper::Creation::New);
        EXPECT_TRUE(zip.AddFile("kept", folder_ / L"kept"));
        EXPECT_EQ(ErrorOf(zip.AddFile("F_0/noise.bin", source)),
                  limit == size ? "added"
                                : "Excluded file " + Util::ToUtf8Lossy(source) +
                                      " (4 kB) as it exceeds the maximum archive size (" + FormatSize(limit) + ").");
        EXPECT_EQ(OnDisk(zip), limit == size ? both : Contents(both.begin(), both.end() - 1));
    }
    EXPECT_FALSE(fs::exists(folder_ / L"limited.zip"));
    const auto tooLarge = zip_.AddFileToFolder(L"F_1", source, 4999);
    EXPECT_TRUE(!tooLarge && tooLarge.error().tooLarge == 5000U && !tooLarge.error().archived);
    EXPECT_EQ(OnDisk(zip_), both);
    EXPECT_TRUE(zip_.AddFileToFolder(L"F_1", source, 5000));
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
          {path_, New, "(80)"},
          {linked, IfMissing, "hard links"}}) {
        EXPECT_THAT([&] { ZipArchiveWrapper(path).Open(creation); },
                    testing::ThrowsMessage<std::runtime_error>(HasSubstr(reason)));
    }
}

TEST_F(ZipArchiveWrapperTest, NoOtherProcessOpensItOrItsCopy) {
    const auto access = [](const fs::path& path) {
        const Util::FileHandle file(
            CreateFileW(path.c_str(), GENERIC_READ, FileSystem::shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
        return file ? ERROR_SUCCESS : GetLastError();
    };
    EXPECT_EQ(access(path_), DWORD{ERROR_SHARING_VIOLATION});
    const fs::path copy = folder_ / L"copy.zip";
    EXPECT_EQ(zip_.CopyTo(copy, [] { return true; }), std::unexpected<DWORD>(ERROR_REQUEST_ABORTED));
    flushError = ERROR_DISK_FULL;
    EXPECT_EQ(zip_.CopyTo(copy, [] { return false; }), std::unexpected<DWORD>(ERROR_DISK_FULL));
    EXPECT_FALSE(fs::exists(copy));
    flushError = ERROR_NOT_SUPPORTED;  // as some redirectors answer
    EXPECT_TRUE(zip_.AddFile("next", Source(L"noise", Noise(3U << 20U))) && zip_.CopyTo(copy, [] { return false; }));
    EXPECT_EQ(access(copy), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(access(path_), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(TestSupport::ReadFile(path_).size(), fs::file_size(copy));
    EXPECT_EQ(OnDisk(zip_), (Contents{{"kept", "kept"}, {"next", TestSupport::Brief(Noise(3U << 20U))}}));
    EXPECT_EQ(zip_.CopyTo(path_, [] { return false; }), std::unexpected<DWORD>(ERROR_FILE_EXISTS));
}

}  // namespace
}  // namespace Shared::FileZip
