#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-collectors-copyjob.h"
#include "agentcore.diagnostics-collectors-extensioncopier.h"
#include "agentcore.diagnostics-collectors-filechecks.h"
#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "agentcore.diagnostics-sets.h"
#include "diagnostics-test.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.system-installpaths.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace {

std::filesystem::path scanned;
std::filesystem::path TrustedScan() {
    return scanned;
}
std::filesystem::path ConfinedScan() {
    return scanned;
}

}  // namespace

template <>
struct Shared::FileSystem::TrustOf<&TrustedScan> : TrustedFolder {};
template <>
struct Shared::FileSystem::TrustOf<&ConfinedScan> : ProgramDataFolder {};

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

namespace fs = std::filesystem;
using Reason = CheckError::Reason;
using namespace testing;
using TestSupport::Hold;
using TestSupport::WriteFile;

std::string Utf8(const fs::path& path) {
    return Shared::Util::ToUtf8Lossy(path);
}

TEST(FileChecksPass, RefusesInItsOrder) {
    const TestSupport::TemporaryFolder folder;
    constexpr std::uint64_t megabyte = 1U << 20U;
    WriteFile(folder / L"two.dmp", std::string(2 * megabyte, 'x'));
    // Reached by its long form alone: the path is long, and the name ends with a blank.
    const fs::path program = folder / std::wstring(150, L'f') / (std::wstring(150, L'n') + L".log ");
    CreateDirectoryW(Shared::FileSystem::LongForm(program.parent_path()).c_str(), nullptr);
    ASSERT_NE(CopyFileW(TestSupport::ChildProgram().c_str(), Shared::FileSystem::LongForm(program).c_str(), TRUE),
              FALSE);
    EXPECT_TRUE(FileChecksPass(folder / L"two.dmp", 2 * megabyte));
    const std::tuple<fs::path, std::uint64_t, Reason, std::string> cases[] = {
        {folder / L"none.log", 4, Reason::NotFound, "' does not exist."},
        {folder.Path(), 4, Reason::NotRegularFile, "' is not a regular file."},
        {folder / L"two.dmp", megabyte, Reason::TooLarge,
         "' (2 MB) because it exceeds the maximum file size limit of 1 MB."},
        {program, 1, Reason::TooLarge, " MB) because it exceeds the maximum file size limit of 0 MB."},
        {program, maxFileSize, Reason::Executable, "' is an executable binary and will be ignored."},
    };
    for (const auto& [file, maxSize, reason, end] : cases) {
        const TestSupport::CapturedLog log;
        const CheckResult result = FileChecksPass(file, maxSize);
        ASSERT_FALSE(result) << file;
        EXPECT_EQ(result.error().reason, reason);
        EXPECT_THAT(result.error().message, AllOf(HasSubstr("file '" + Utf8(file)), EndsWith(end)));
        EXPECT_THAT(log.Text(),
                    AllOf(HasSubstr(result.error().message + " ["), ContainsRegex("info.*filechecks\\.cpp\\(\\d+\\)")));
    }
}

using UserLogs = UserFileCopier<R"(own\Logs)", logType>;
using UserDump = UserFileCopier<"own\\a.dmp", crashReportType>;

class FileCollectors : public TestSupport::DiagnosticsTest {
protected:
    template <Collector T>
    CollectorStatus Run(const T& collector) {
        return collector.Collect(L"F", zip_);
    }
};

TEST_F(FileCollectors, UserFileCopierSaysWhatItCannotOpen) {
    const fs::path profile = machine_ / L"bob";
    const fs::path logs = profile / L"own" / L"Logs";
    EXPECT_THAT(Run(UserLogs(profile)).errors, IsEmpty());
    EXPECT_THAT(Run(UserLogs(fs::path())).errors,
                ElementsAre(StartsWith("User based collector failed: Exception in ")));
    for (const fs::path& file : {machine_ / L"secret.dmp", logs / L"a.log", logs / L"locked.log"}) {
        WriteFile(file, "");
    }
    const auto locked = Hold(logs / L"locked.log");
    EXPECT_THAT(Run(UserLogs(profile)).errors,
                ElementsAre(StartsWith("Cannot archive file " + Utf8(logs / L"locked.log") + ": ")));
    EXPECT_FALSE(UserDump(profile).CopyFile(machine_ / L"secret.dmp", L"F", zip_).success);
    EXPECT_THAT(Archived(), ElementsAre("F/a.log"));
    const auto folderInUse = Hold(logs);
    EXPECT_THAT(Run(UserLogs(profile)).errors,
                ElementsAre(StartsWith("User based collector failed: filesystem error: directory_iterator::")));
}

TEST_F(FileCollectors, HeldFilesCostARowASecond) {
    const fs::path profile = machine_ / L"bob";
    std::vector<Shared::Util::FileHandle> held;
    for (int number = 0; number < 50; ++number) {
        const fs::path file = profile / L"own" / L"Logs" / (std::to_wstring(number) + L".log");
        WriteFile(file, "");
        held.push_back(Hold(file));
    }
    const CollectorRow row{.type = logType, .name = "", .origin = {}, .collectors = {AsRun(UserLogs(profile))}};
    for (int run = 0; run < 2; ++run) {
        const ULONGLONG start = GetTickCount64();
        EXPECT_THAT(RunRow(row, zip_).errors, SizeIs(50));
        EXPECT_THAT(GetTickCount64() - start, AllOf(Ge(900U), Le(5000U)));
    }
}

TEST_F(FileCollectors, WhatUsersCanWriteToIsBounded) {
    scanned = machine_ / LR"(a\b\c)";
    std::wstring deep;
    for (int level = 0; level < 70; ++level) {
        deep += LR"(d\)";
    }
    WriteFile(scanned / deep / L"deep.txt", "");
    const auto cut = HasSubstr(" was cut at ");
    EXPECT_THAT(Run(ExtensionCopier<&ConfinedScan, ".txt", "", true, logType>()).errors, ElementsAre(cut));
    EXPECT_THAT(log_.Text(), Not(HasSubstr("No files with extension")));
    EXPECT_THAT(Run(ExtensionCopier<&TrustedScan, ".txt", "", true, logType>()).errors, IsEmpty());
    EXPECT_THAT(Archived(), ElementsAre("F/deep.txt"));

    // The size that counts is the opened file's.
    const fs::path file = scanned / L"a.log";
    WriteFile(file, "");
    constexpr std::uint64_t gigabyte = std::uint64_t{1} << 30U;
    const Destination destination{L"F", zip_};
    for (const auto provider : {&SourceOf<&ConfinedScan>, &SourceOf<&TrustedScan>}) {
        const auto source = provider();
        CopyJob job(source, gigabyte, destination);
        auto found = source.Open(file);
        found->opened.facts.size = gigabyte;
        EXPECT_TRUE(job.Copy(file, found, "status"));
        found->opened.facts.size = 1;
        EXPECT_EQ(job.Copy(file, found, "status"), !source.IsConfined());
        if (source.IsConfined()) {
            EXPECT_THAT(std::move(job).Status().errors,
                        ElementsAre("1 further entries of the folder " + Utf8(scanned) +
                                    " were left out: at most 1000 files and 1 GiB are taken."));
        }
    }
}

TEST_F(FileCollectors, ProfilesThatCannotBeListedAreARowOfTheirOwn) {
    hive_.SetString(LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList)", L"ProfilesDirectory",
                    (machine_ / L"Users").native());
    const auto reported = [this](const std::vector<CollectorStatus>& statuses, std::size_t rows) {
        ASSERT_EQ(statuses.size(), rows + 1);
        const auto& row = statuses.back();
        EXPECT_EQ(row.diagnostic.name(), "user profiles");
        EXPECT_EQ(row.diagnostic.origin(), Utf8(machine_ / L"Users"));
        EXPECT_FALSE(row.success);
        EXPECT_THAT(row.errors, ElementsAre(StartsWith("User based collector failed: ")));
    };
    reported(RunSet(CrashReportSet(), zip_), 2);
    reported(RunSet(LogSet(), zip_), 7);
    EXPECT_THAT(log_.Text(), HasSubstr("User based collector failed: "));
}

}  // namespace

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
