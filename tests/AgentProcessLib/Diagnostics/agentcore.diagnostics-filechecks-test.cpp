#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

#include "agentcore.diagnostics-filechecks.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.util-functions.h"
#include "test-support.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using TestSupport::TemporaryFolder;
using Reason = CheckError::Reason;

TEST(FileChecksPass, RefusesInItsOrderWithItsTexts) {
    const TemporaryFolder folder;
    TestSupport::WriteFile(folder / L"plain.log", "text");
    TestSupport::WriteEmptyFile(folder / L"most.dmp", 209715200);
    TestSupport::WriteEmptyFile(folder / L"more.dmp", 209715201);
    fs::create_directory(folder / L"folder.log");
    wchar_t program[MAX_PATH]{};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const fs::path longFolder = folder / std::wstring(150, L'f');
    const fs::path longName = longFolder / (std::wstring(150, L'n') + L".log");
    CreateDirectoryW(Shared::FileSystem::LongForm(longFolder).c_str(), nullptr);
    ASSERT_NE(CopyFileW(program, Shared::FileSystem::LongForm(longName).c_str(), TRUE), FALSE);

    EXPECT_TRUE(FileChecksPass(folder / L"plain.log", maxFileSize));
    EXPECT_TRUE(FileChecksPass(folder / L"most.dmp", maxFileSize));

    struct Case {
        fs::path file;
        Reason reason;
        std::string before;
        std::string behind;
    };
    const std::vector<Case> cases{
        {folder / L"none.log", Reason::NotFound, "The file '", "' does not exist."},
        {folder / L"folder.log", Reason::NotRegularFile, "The file '", "' is not a regular file."},
        {folder / L"more.dmp", Reason::TooLarge, "Excluded file '",
         "' (200 MB) because it exceeds the maximum file size limit of 200 MB."},
        {longName, Reason::Executable, "The file '", "' is an executable binary and will be ignored."},
    };
    for (const Case& refused : cases) {
        const TestSupport::CapturedLog log;
        const CheckResult result = FileChecksPass(refused.file, maxFileSize);
        ASSERT_FALSE(result) << refused.file;
        EXPECT_EQ(result.error().reason, refused.reason);
        const std::string message = refused.before + Shared::Util::ToUtf8(refused.file) + refused.behind;
        EXPECT_EQ(result.error().message, message);
        EXPECT_THAT(log.Text(), testing::HasSubstr(message + " ["));
        EXPECT_THAT(log.Text(), ContainsRegex("info.*filechecks\\.cpp\\(\\d+\\)"));
    }
    // A size limit comes before the look into the file.
    EXPECT_EQ(FileChecksPass(longName, 1).error().reason, Reason::TooLarge);
}

TEST(FileDescriptor, SplitsNames) {
    struct Case {
        std::wstring file;
        std::string name, stem, extension, baseName;
    };
    const std::vector<Case> cases{
        {LR"(C:\x\setupapi.dev.log)", "setupapi.dev.log", "setupapi.dev", ".log", "setupapi"},
        {LR"(C:\x.y\.hidden)", ".hidden", ".hidden", "", ""},
        {LR"(C:\x\a.log:zone.txt)", "a.log", "a", ".log", "a"},
        {LR"(C:\x\a.)", "a.", "a", ".", "a"},
        {LR"(C:\x\..)", "..", "..", "", ""},
        {L"C:\\x\\\x00e9\xD800.b.log", "\xC3\xA9\xEF\xBF\xBD.b.log", "\xC3\xA9\xEF\xBF\xBD.b", ".log",
         "\xC3\xA9\xEF\xBF\xBD"},
    };
    for (const Case& one : cases) {
        const FileDescriptor file{fs::path(one.file)};
        EXPECT_EQ(file.name, one.name);
        EXPECT_EQ(file.stem, one.stem);
        EXPECT_EQ(file.extension, one.extension);
        EXPECT_EQ(file.path.native(), one.file);
        EXPECT_EQ(file.baseName, one.baseName);
    }
    EXPECT_EQ(FileDescriptor::Extract("a.b.c"), "a");
    try {
        (void)FileDescriptor(LR"(C:\x.y\nodot)");
        FAIL() << "a name without a dot has no base name";
    } catch (const Shared::Exception::RuntimeException& error) {
        EXPECT_THAT(error.what(), ContainsRegex("Extract.*filechecks.*No extension detected in nodot\\."));
    }
}

TEST(NameParts, HoldForAnyName) {
    std::mt19937 random(20240607);
    static constexpr std::wstring_view alphabet = L"ab.. :\xD800\xDC00\x00e9\xFFFF~$\x0001";
    for (int round = 0; round < 20000; ++round) {
        std::wstring fileName(random() % 12, L'\0');
        for (wchar_t& character : fileName) {
            character = alphabet[random() % alphabet.size()];
        }
        const NameParts parts(fileName);
        EXPECT_EQ(std::wstring(parts.stem) + std::wstring(parts.extension), parts.name);
        EXPECT_TRUE(fileName.starts_with(parts.name));
        EXPECT_EQ(parts.name.find(L':'), std::wstring_view::npos);
        EXPECT_EQ(parts.extension.rfind(L'.'), parts.extension.empty() ? std::wstring_view::npos : 0U);
        if (!parts.extension.empty()) {
            EXPECT_NO_THROW((void)FileDescriptor(fs::path(L"C:\\x\\" + fileName)));
        }
    }
}

}  // namespace

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
