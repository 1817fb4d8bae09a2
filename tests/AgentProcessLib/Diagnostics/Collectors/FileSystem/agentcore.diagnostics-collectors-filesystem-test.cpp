#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-collectors-extensioncopier.h"
#include "agentcore.diagnostics-collectors-filechecks.h"
#include "agentcore.diagnostics-collectors-filecopier.h"
#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "agentcore.diagnostics-sets.h"
#include "diagnostics-test.h"
#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

namespace fs = std::filesystem;
using Reason = CheckError::Reason;
using namespace testing;
using TestSupport::SymbolicLink;
using TestSupport::WriteFile;

TEST(FileChecksPass, RefusesInItsOrderWithItsTexts) {
    const TestSupport::TemporaryFolder folder;
    for (const auto& [name, size] : {std::pair(L"most.dmp", 209715200U), std::pair(L"more.dmp", 209715201U)}) {
        WriteFile(folder / name, "");
        fs::resize_file(folder / name, size);
    }
    fs::create_directory(folder / L"folder.log");
    const fs::path longFolder = folder / std::wstring(150, L'f');
    const fs::path longName = longFolder / (std::wstring(150, L'n') + L".log");
    CreateDirectoryW(Shared::FileSystem::LongForm(longFolder).c_str(), nullptr);
    ASSERT_NE(CopyFileW(TestSupport::ChildProgram().c_str(), Shared::FileSystem::LongForm(longName).c_str(), TRUE),
              FALSE);
    EXPECT_TRUE(FileChecksPass(folder / L"most.dmp", maxFileSize));

    struct Case {
        fs::path file;
        Reason reason;
        std::string before, behind;
    };
    for (const Case& refused : {
             Case{folder / L"none.log", Reason::NotFound, "The file '", "' does not exist."},
             Case{folder / L"folder.log", Reason::NotRegularFile, "The file '", "' is not a regular file."},
             Case{folder / L"more.dmp", Reason::TooLarge, "Excluded file '",
                  "' (200 MB) because it exceeds the maximum file size limit of 200 MB."},
             Case{longName, Reason::Executable, "The file '", "' is an executable binary and will be ignored."},
         }) {
        const TestSupport::CapturedLog log;
        const CheckResult result = FileChecksPass(refused.file, maxFileSize);
        ASSERT_FALSE(result) << refused.file;
        EXPECT_EQ(result.error().reason, refused.reason);
        const std::string message = refused.before + Shared::Util::ToUtf8Lossy(refused.file) + refused.behind;
        EXPECT_EQ(result.error().message, message);
        EXPECT_THAT(log.Text(), HasSubstr(message + " ["));
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
    for (const Case& one : {
             Case{LR"(C:\x\setupapi.dev.log)", "setupapi.dev.log", "setupapi.dev", ".log", "setupapi"},
             Case{LR"(C:\x.y\.hidden)", ".hidden", ".hidden", "", ""},
             Case{LR"(C:\x\a.log:zone.txt)", "a.log", "a", ".log", "a"},
             Case{LR"(C:\x\a.)", "a.", "a", ".", "a"},
             Case{LR"(C:\x\..)", "..", "..", "", ""},
             Case{L"C:\\x\\\x00e9\xD800.b.log", "\xC3\xA9\xEF\xBF\xBD.b.log", "\xC3\xA9\xEF\xBF\xBD.b", ".log",
                  "\xC3\xA9\xEF\xBF\xBD"},
         }) {
        const FileDescriptor file{fs::path(one.file)};
        EXPECT_EQ(std::tie(file.name, file.stem, file.extension, file.baseName),
                  std::tie(one.name, one.stem, one.extension, one.baseName));
        EXPECT_EQ(file.path.native(), one.file);
    }
    EXPECT_THAT([] { (void)FileDescriptor(LR"(C:\x.y\nodot)"); },
                ThrowsMessage<Shared::Exception::RuntimeException>(
                    ContainsRegex("Extract.*filechecks.*No extension detected in nodot\\.")));
}

fs::path sourceFolder;

fs::path Source() {
    return sourceFolder;
}
fs::path Broken() {
    throw std::runtime_error("no such place");
}

using UserLogs = UserFileCopier<R"(own\Logs)", logType>;
using UserDump = UserFileCopier<"own\\a.dmp", crashReportType>;

std::string Utf8(const fs::path& path) {
    return Shared::Util::ToUtf8Lossy(path);
}

class FileCollectors : public TestSupport::DiagnosticsTest {
protected:
    FileCollectors() {
        sourceFolder = machine_ / L"source";
        fs::create_directory(sourceFolder);
    }

    template <Collector T>
    CollectorStatus Run(const T& collector = {}) {
        return collector.Collect(L"F", zip_);
    }
};

TEST_F(FileCollectors, FileCopierNamesWhatItCannotCopy) {
    EXPECT_THAT((Run<FileCopier<Source, "a.dmp", crashReportType>>().errors), IsEmpty());
    EXPECT_EQ(log_.Text(), "");
    fs::create_directory(Source() / L"b.dmp");
    const auto folder = Run<FileCopier<Source, "b.dmp", crashReportType>>();
    EXPECT_FALSE(folder.success);
    EXPECT_THAT(folder.errors, ElementsAre("The file '" + Utf8(Source() / L"b.dmp") + "' is not a regular file."));
    const auto broken = Run<FileCopier<Broken, "a.dmp", crashReportType>>();
    EXPECT_THAT(broken.errors, ElementsAre("FileCopier failed copying file a.dmp: no such place"));
    EXPECT_THAT(log_.Text(), HasSubstr("FileCopier failed copying file a.dmp: no such place"));
}

TEST_F(FileCollectors, ExtensionCopierKeepsTenOfEachBaseName) {
    for (int number = 1; number <= 10; ++number) {
        WriteFile(Source() / (L"a." + std::to_wstring(number) + L".log"), "");
    }
    for (const wchar_t* name : {L"a.log", L"b.log", L"c.LOG", L"d.log.old", L".log", L"nodot"}) {
        WriteFile(Source() / name, "");
    }
    // Refused ones take no place of the ten.
    fs::create_directory(Source() / L"a.0.log");
    const auto status = Run<ExtensionCopier<Source, ".log", "", false, logType>>();
    EXPECT_TRUE(status.success);
    EXPECT_THAT(Archived(), ElementsAre("F/a.log", "F/a.1.log", "F/a.10.log", "F/a.2.log", "F/a.3.log", "F/a.4.log",
                                        "F/a.5.log", "F/a.6.log", "F/a.7.log", "F/a.8.log", "F/b.log"));
    EXPECT_THAT(status.errors, ElementsAre("The file '" + Utf8(Source() / L"a.0.log") + "' is not a regular file.",
                                           "Skipped file " + Utf8(Source() / L"a.9.log") +
                                               " as extension copier reached copyable limit."));
}

TEST_F(FileCollectors, ExtensionCopierLogsThatItFoundNothing) {
    const auto none = Run<ExtensionCopier<Source, ".txt", "", true, logType>>();
    EXPECT_FALSE(none.success);
    EXPECT_THAT(none.errors, IsEmpty());
    EXPECT_THAT(log_.Text(), HasSubstr("No files with extension .txt were found in directory " + Utf8(Source())));
    EXPECT_THAT((Run<ExtensionCopier<Broken, ".log", "", true, logType>>().errors), IsEmpty());
    EXPECT_THAT(log_.Text(), HasSubstr("Diagnostics failed copying extensions for .log: no such place."));
}

TEST_F(FileCollectors, UserFileCopierTakesOnlyTheUsersOwn) {
    const fs::path profile = machine_ / L"bob";
    const fs::path logs = profile / L"own" / L"Logs";
    const fs::path secret = machine_ / L"secret.log";
    EXPECT_THAT(Run(UserLogs(profile)).errors, IsEmpty());
    EXPECT_THAT(Run(UserLogs(fs::path())).errors,
                ElementsAre(StartsWith("User based collector failed: Exception in ")));
    for (const fs::path& file : {secret, logs / L"a.log", logs / L"sub" / L"b.log", logs / L"locked.log"}) {
        WriteFile(file, "");
    }
    const SymbolicLink file(secret, logs / L"link.log");
    ASSERT_NE(CreateHardLinkW((logs / L"hard.log").c_str(), secret.c_str(), nullptr), FALSE);
    const auto hold = [](const fs::path& path) {
        return Shared::Util::FileHandle(
            CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    };
    const auto locked = hold(logs / L"locked.log");
    const auto status = Run(UserLogs(profile));
    EXPECT_TRUE(status.success);
    EXPECT_THAT(Archived(), ElementsAre("F/a.log"));
    const auto refused = [&](const wchar_t* name) {
        return "The file '" + Utf8(logs / name) + "' is not a regular file.";
    };
    EXPECT_THAT(status.errors,
                UnorderedElementsAre(refused(L"sub"), refused(L"link.log"), refused(L"hard.log"),
                                     StartsWith("Cannot archive file " + Utf8(logs / L"locked.log") + ": ")));
    {
        const auto folderInUse = hold(logs);
        EXPECT_THAT(Run(UserLogs(profile)).errors,
                    ElementsAre(StartsWith("User based collector failed: filesystem error: directory_iterator::")));
    }

    WriteFile(profile / L"own" / L"a.dmp", "dump");
    EXPECT_TRUE(Run(UserDump(profile)).success);
    const SymbolicLink moved(profile, machine_ / L"moved");
    EXPECT_TRUE(Run(UserDump(machine_ / L"moved")).success);
    const fs::path mallory = machine_ / L"mallory";
    fs::create_directory(mallory);
    const SymbolicLink reach(profile / L"own", mallory / L"own");
    EXPECT_THAT(Run(UserDump(mallory)).errors,
                ElementsAre("The file '" + Utf8(mallory / L"own" / L"a.dmp") + "' is not a regular file."));
    EXPECT_FALSE(UserDump(profile).CopyFile(secret, L"F", zip_).success);
    EXPECT_THAT(Archived(), ElementsAre("F/a.log", "F/a.dmp", "F/a (2).dmp"));
}

TEST_F(FileCollectors, ProgramDataIsReadWithoutLeavingIt) {
    const fs::path data = machine_ / L"ProgramData";
    const fs::path logs = data / LR"(Velqor\DLP\logs)";
    const fs::path secret = machine_ / L"secret.txt";
    hive_.SetString(LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList)", L"ProgramData", data.native());
    for (const fs::path& file : {secret, machine_ / L"other" / L"b.txt", logs / L"a.txt", logs / L"sub" / L"c.txt"}) {
        WriteFile(file, "");
    }
    const SymbolicLink file(secret, logs / L"link.txt");
    const SymbolicLink folder(machine_ / L"other", logs / L"folder");
    ASSERT_NE(CreateHardLinkW((logs / L"hard.txt").c_str(), secret.c_str(), nullptr), FALSE);
    const fs::path access = data / LR"(Velqor\Lumora Access Agent)";
    WriteFile(machine_ / L"other" / L"LumoraAccessAgentLog.etl.000", "");
    WriteFile(access / L"x", "");
    const SymbolicLink reach(machine_ / L"other", access / L"Logs");
    const auto rows = LogSet();
    const auto refused = [](const fs::path& path) { return "The file '" + Utf8(path) + "' is not a regular file."; };
    EXPECT_THAT(
        RunRow(rows[3], zip_).errors,
        UnorderedElementsAre(refused(logs / L"link.txt"), refused(logs / L"hard.txt"), refused(logs / L"folder")));
    EXPECT_THAT(Archived(), UnorderedElementsAre("DIAGNOSTIC_TYPE_LOG_ALL_0/a.txt", "DIAGNOSTIC_TYPE_LOG_ALL_0/c.txt"));
    const auto led = RunRow(rows[2], zip_);
    EXPECT_FALSE(led.success);
    EXPECT_THAT(led.errors,
                ElementsAre(refused(access / L"Logs"), refused(access / LR"(Logs\LumoraAccessAgentLog.etl.000)")));
}

TEST_F(FileCollectors, HeldFilesCostARowASecond) {
    const fs::path profile = machine_ / L"bob";
    std::vector<Shared::Util::FileHandle> held;
    for (int number = 0; number < 500; ++number) {
        const fs::path file = profile / L"own" / L"Logs" / (std::to_wstring(number) + L".log");
        WriteFile(file, "");
        held.emplace_back(CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    }
    const CollectorRow row{.type = logType, .name = "", .origin = {}, .collectors = {AsRun(UserLogs(profile))}};
    for (int run = 0; run < 2; ++run) {
        const ULONGLONG start = GetTickCount64();
        EXPECT_THAT(RunRow(row, zip_).errors, SizeIs(500));
        EXPECT_THAT(GetTickCount64() - start, AllOf(Ge(900U), Le(5000U)));
    }
}

TEST_F(FileCollectors, ARowTakesAThousandFilesAndAUserAGigabyte) {
    const fs::path logs = machine_ / L"bob" / L"own" / L"Logs";
    const auto make = [&](const std::wstring& name, int minute, std::uint64_t size) {
        WriteFile(logs / name, "");
        fs::resize_file(logs / name, size);
        fs::last_write_time(logs / name, fs::file_time_type::clock::now() + std::chrono::minutes(minute));
    };
    for (int number = 0; number < 1005; ++number) {
        make(std::to_wstring(number) + L".log", number < 5 ? -9 : -5, 0);
    }
    auto status = Run(UserLogs(machine_ / L"bob"));
    EXPECT_TRUE(status.success);
    EXPECT_THAT(status.errors, ElementsAre(StartsWith("5 further files of the folder " + Utf8(logs))));
    EXPECT_THAT(Archived(), AllOf(SizeIs(1000), Contains("F/5.log"), Not(Contains("F/4.log"))));
    // What one run has archived counts for the next one of the row.
    sourceFolder = logs;
    EXPECT_THAT((Run<ExtensionCopier<Source, ".log", "", false, logType>>().errors),
                ElementsAre(StartsWith("1005 further")));

    Shared::FileSystem::FileObjectRemover(logs).Clear();
    for (int number = 0; number < 6; ++number) {
        make(L"large" + std::to_wstring(number) + L".bin", number, 209715200);
    }
    make(L"over.bin", 7, 209715201);
    status = UserLogs(machine_ / L"bob").Collect(L"G", zip_);
    EXPECT_THAT(status.errors, ElementsAre(HasSubstr("exceeds the maximum"), StartsWith("1 further files")));
    EXPECT_THAT(Archived(), AllOf(SizeIs(1005), Contains("G/large1.bin"), Not(Contains("G/large0.bin"))));
}

TEST_F(FileCollectors, WhatOutgrowsTheLimitAfterTheGateIsRefusedAsThere) {
    WriteFile(Source() / L"a.dmp", "four");
    const auto refused = AddWithinLimit(Source() / L"a.dmp", 3, {L"F", zip_});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().reason, Reason::TooLarge);
    EXPECT_EQ(refused.error().message, "Excluded file '" + Utf8(Source() / L"a.dmp") +
                                           "' (0 MB) because it exceeds the maximum file size limit of 0 MB.");
    EXPECT_THAT(Archived(), IsEmpty());
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
    const auto statuses = RunSet(LogSet(), zip_);
    reported(statuses, 7);
    EXPECT_THAT(statuses[1].errors, ElementsAre(StartsWith("FileCopier failed copying file vq_pv_hrpt.xml: "),
                                                StartsWith("FileCopier failed copying file update_tmp.bat: ")));
    EXPECT_EQ(statuses[1].diagnostic.origin(), "");
    EXPECT_THAT(log_.Text(), HasSubstr("User based collector failed: "));
}

}  // namespace

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
