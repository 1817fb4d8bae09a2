#include <gmock/gmock.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-collectors-extensioncopier.h"
#include "agentcore.diagnostics-collectors-filecopier.h"
#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "agentcore.diagnostics-crashset.h"
#include "agentcore.diagnostics-filechecks.h"
#include "agentcore.diagnostics-logset.h"
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
        const std::string message = refused.before + Shared::Util::ToUtf8(refused.file) + refused.behind;
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
    return Shared::Util::ToUtf8(path);
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

TEST_F(FileCollectors, ExtensionCopierScansAsItIsTold) {
    for (const wchar_t* name : {L"setupapi.dev.log", L"setupapi.app.log", LR"(sub\inner\deep.log)"}) {
        WriteFile(Source() / name, "");
    }
    WriteFile(machine_ / L"other" / L"linked.log", "");
    const SymbolicLink loop(Source(), Source() / L"sub" / L"loop");
    const SymbolicLink link(machine_ / L"other", Source() / L"sub" / L"link");
    EXPECT_TRUE((Run<ExtensionCopier<Source, ".log", "setupapi.dev", false, logType>>().success));
    EXPECT_THAT(Archived(), ElementsAre("F/setupapi.dev.log"));
    EXPECT_TRUE((Run<ExtensionCopier<Source, ".log", "", true, logType>>().success));
    EXPECT_THAT(Archived(), UnorderedElementsAre("F/deep.log", "F/setupapi.app.log", "F/setupapi.dev.log"));

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
    EXPECT_THAT(Archived(), ElementsAre("F/a.log", "F/a.dmp"));
}

TEST_F(FileCollectors, HostileNamesAreArchivedOrNamed) {
    std::vector<std::wstring> names{L"nul.log", L"con",  L"aux.log.", L"a.log ", L"...log",
                                    L" '.log",  L".log", L"%a%~.log", L"$.log~", L"\x4e2d\x00e9\xFF0E.log"};
    names.push_back(std::wstring(251, L'x') + L".log");
    const fs::path logs = machine_ / L"bob" / L"own" / L"Logs";
    fs::create_directories(logs);
    std::vector<fs::path> wanted;
    for (const std::wstring& name : names) {
        for (const fs::path& folder : {Source(), logs}) {
            const fs::path file = folder.native() + L'\\' + name;
            const Shared::Util::FileHandle made(CreateFileW(Shared::FileSystem::LongForm(file).c_str(), GENERIC_WRITE,
                                                            0, nullptr, CREATE_NEW, 0, nullptr));
            if (made && (folder == logs || NameParts(name).extension == L".log")) {
                wanted.push_back(file);
            }
        }
    }
    ASSERT_GT(wanted.size(), 10U);
    std::string told;
    for (const auto& status :
         {Run<ExtensionCopier<Source, ".log", "", true, logType, 1000>>(), Run(UserLogs(machine_ / L"bob"))}) {
        for (const std::string& message : status.errors) {
            told += message + '\n';
        }
    }
    told += log_.Text();
    const std::vector<std::string> archived = Archived();
    for (const fs::path& file : wanted) {
        EXPECT_TRUE(std::ranges::count(archived, "F/" + Utf8(file.filename())) != 0 || told.contains(Utf8(file)))
            << Utf8(file);
    }
}

class FileSets : public TestSupport::DiagnosticsTest {
protected:
    FileSets() {
        const std::wstring list = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList)";
        hive_.SetString(list, L"ProfilesDirectory", (machine_ / L"Users").native());
        hive_.SetString(list, L"ProgramData", (machine_ / L"ProgramData").native());
    }

    void Put(const std::vector<std::wstring>& files) const {
        for (const std::wstring& file : files) {
            WriteFile(machine_ / file, "");
        }
    }

    std::vector<CollectorStatus> Run() {
        std::vector<CollectorStatus> statuses = RunSet(LogSet(), zip_);
        std::ranges::move(RunSet(CrashReportSet(), zip_), std::back_inserter(statuses));
        return statuses;
    }
};

TEST_F(FileSets, GiveEachUsersLogsAndDumpsRowByRow) {
    hive_.SetString(LR"(SOFTWARE\Velqor\OXM)", L"Path", (machine_ / LR"(Velqor\OXM\)").native());
    Put({LR"(Velqor\OXM\sub\agent.dmp)", LR"(Velqor\Portavo\VqPVS.dmp)", LR"(Users\not-a-profile.txt)"});
    for (const std::wstring user : {L"alice", L"bob", L"default", L"Default User", L"Public"}) {
        const std::wstring local = LR"(Users\)" + user + LR"(\AppData\Local\Velqor\)";
        Put({local + LR"(Lumora Access Agent\Logs\u.log)", local + LR"(Portavo\VqPVA.log)",
             local + LR"(Portavo\VqPVA.log.old)", local + LR"(OXM\ViewpaneUI\ui.txt)", local + LR"(OXM\Viewpane\v.txt)",
             local + LR"(Portavo\VqPVA.dmp)", LR"(Users\)" + user + LR"(\VqPVS.dmp)"});
    }
    const auto statuses = Run();

    using Row = std::vector<std::string>;
    std::vector<std::pair<std::string, Row>> expected;
    for (int user = 0; user < 3; ++user) {
        expected.insert(expected.end(), {{"Logs", {"u.log"}},
                                         {"VqPVA.log, VqPVA.log.old", {"VqPVA.log", "VqPVA.log.old"}},
                                         {"ViewpaneUI", {"ui.txt"}},
                                         {"Viewpane", {"v.txt"}}});
    }
    expected.insert(expected.end(), {{"VqPVS.dmp", {"VqPVS.dmp"}}, {"*.dmp", {"agent.dmp"}}});
    for (int user = 0; user < 3; ++user) {
        expected.insert(expected.end(), {{"VqPVS.dmp, VqPVA.dmp", {"VqPVS.dmp"}}, {"VqPVA.dmp", {"VqPVA.dmp"}}});
    }

    std::map<std::string, Row> archived;
    for (const std::string& name : Archived()) {
        const auto slash = name.find('/');
        archived[name.substr(0, slash)].push_back(name.substr(slash + 1));
    }
    ASSERT_EQ(statuses.size(), 19U + 8U);
    std::vector<std::pair<std::string, Row>> actual;
    for (std::size_t index = 7; index < statuses.size(); ++index) {
        const auto& row = statuses[index].diagnostic;
        EXPECT_EQ(row.type(), index < 19 ? logType : crashReportType);
        EXPECT_THAT(statuses[index].errors, IsEmpty());
        actual.emplace_back(row.name(), archived[row.archive_path()]);
    }
    EXPECT_THAT(actual, ElementsAreArray(expected));

    const auto origin = [&](std::size_t row) { return statuses[row].diagnostic.origin(); };
    const auto below = [&](const wchar_t* path) { return Shared::Util::ToUtf8(machine_ / path); };
    EXPECT_EQ(origin(0), below(LR"(Velqor\OXM)"));
    EXPECT_EQ(origin(1), below(LR"(Velqor\Portavo)"));
    EXPECT_EQ(origin(5), R"(C:\WINDOWS\inf)");
    EXPECT_THAT(origin(7), EndsWith(R"(\AppData\Local\Velqor\Lumora Access Agent\Logs)"));
    EXPECT_THAT(std::vector({origin(21), origin(23), origin(25)}), Contains(below(LR"(Users\default)")));
}

TEST_F(FileSets, WithoutUsersHaveTheirRowsAllTheSame) {
    const auto statuses = Run();
    ASSERT_EQ(statuses.size(), 7U + 2U);
    EXPECT_THAT(statuses[1].errors, ElementsAre(StartsWith("FileCopier failed copying file vq_pv_hrpt.xml: "),
                                                StartsWith("FileCopier failed copying file update_tmp.bat: ")));
    EXPECT_EQ(statuses[1].diagnostic.origin(), "");
    EXPECT_THAT(log_.Text(), HasSubstr("User based collector failed: "));
}

}  // namespace

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
