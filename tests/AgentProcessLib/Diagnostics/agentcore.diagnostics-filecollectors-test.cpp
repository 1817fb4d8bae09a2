#include <gmock/gmock.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-collectors-extensioncopier.h"
#include "agentcore.diagnostics-collectors-filecopier.h"
#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "shared.filesystem-longpath.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using TestSupport::SymbolicLink;
using TestSupport::WriteFile;

fs::path sourceFolder;

fs::path Source() {
    return sourceFolder;
}
fs::path Broken() {
    throw std::runtime_error("no such place");
}

using Dump = FileCopier<Source, "a.dmp", crashReportType>;
using Logs = ExtensionCopier<Source, ".log", "", false, logType>;
using LogTree = ExtensionCopier<Source, ".log", "", true, logType>;
using PrefixedLogs = ExtensionCopier<Source, ".log", "setupapi.dev", false, logType>;
using UserLogs = UserFileCopier<R"(own\Logs)", logType>;
using UserDump = UserFileCopier<"own\\a.dmp", crashReportType>;

class FileCollectors : public testing::Test {
protected:
    FileCollectors() {
        sourceFolder = machine_ / L"source";
        fs::create_directory(sourceFolder);
        zip_.Open();
    }

    template <Collector T>
    CollectorStatus Run(const T& collector = {}) {
        return collector.Collect(L"F", zip_);
    }

    /// The archived files, without their folder.
    std::vector<std::string> Archived() const {
        std::vector<std::string> names;
        for (const libzippp::ZipEntry& entry : zip_.Entries()) {
            if (entry.getName() != "F/") {
                names.push_back(entry.getName().substr(2));
            }
        }
        return names;
    }

    static std::string Utf8(const fs::path& path) { return Shared::Util::ToUtf8(path); }

    TestSupport::TemporaryFolder machine_;
    TestSupport::CapturedLog log_;
    Shared::FileZip::ZipArchiveWrapper zip_{machine_ / L"out.zip"};
};

TEST_F(FileCollectors, FileCopierCopiesOneNamedFile) {
    EXPECT_FALSE(Run<Dump>().success);
    EXPECT_THAT(Run<Dump>().errors, IsEmpty());
    EXPECT_EQ(log_.Text(), "");

    WriteFile(Source() / L"a.dmp", "dump");
    EXPECT_TRUE(Run<Dump>().success);
    EXPECT_THAT(Archived(), ElementsAre("a.dmp"));
    EXPECT_EQ(zip_.Entries().back().readAsText(), "dump");

    fs::create_directory(Source() / L"b.dmp");
    const auto folder = Run<FileCopier<Source, "b.dmp", crashReportType>>();
    EXPECT_FALSE(folder.success);
    EXPECT_THAT(folder.errors, ElementsAre("The file '" + Utf8(Source() / L"b.dmp") + "' is not a regular file."));
    const auto broken = Run<FileCopier<Broken, "a.dmp", crashReportType>>();
    EXPECT_THAT(broken.errors, ElementsAre("FileCopier failed copying file a.dmp: no such place"));
    EXPECT_THAT(log_.Text(), HasSubstr("FileCopier failed copying file a.dmp: no such place"));
}

TEST_F(FileCollectors, ExtensionCopierKeepsTenOfEachBaseName) {
    WriteFile(Source() / L"a.log", "");
    for (int number = 1; number <= 10; ++number) {
        WriteFile(Source() / (L"a." + std::to_wstring(number) + L".log"), "");
    }
    for (const wchar_t* name : {L"b.log", L"c.LOG", L"d.log.old", L".log", L"nodot"}) {
        WriteFile(Source() / name, "");
    }
    // Refused ones take no place of the ten.
    fs::create_directory(Source() / L"a.0.log");
    const auto status = Run<Logs>();
    EXPECT_TRUE(status.success);
    EXPECT_THAT(Archived(), ElementsAre("a.log", "a.1.log", "a.10.log", "a.2.log", "a.3.log", "a.4.log", "a.5.log",
                                        "a.6.log", "a.7.log", "a.8.log", "b.log"));
    EXPECT_THAT(status.errors, ElementsAre("The file '" + Utf8(Source() / L"a.0.log") + "' is not a regular file.",
                                           "Skipped file " + Utf8(Source() / L"a.9.log") +
                                               " as extension copier reached copyable limit."));
}

TEST_F(FileCollectors, ExtensionCopierScansAsItIsTold) {
    WriteFile(Source() / L"setupapi.dev.log", "");
    WriteFile(Source() / L"setupapi.app.log", "");
    WriteFile(Source() / L"sub" / L"inner" / L"deep.log", "");
    WriteFile(machine_ / L"other" / L"linked.log", "");
    const SymbolicLink loop(Source(), Source() / L"sub" / L"loop");
    const SymbolicLink link(machine_ / L"other", Source() / L"sub" / L"link");
    EXPECT_TRUE(Run<PrefixedLogs>().success);
    EXPECT_THAT(Archived(), ElementsAre("setupapi.dev.log"));
    EXPECT_TRUE(Run<LogTree>().success);
    EXPECT_THAT(Archived(), testing::UnorderedElementsAre("deep.log", "setupapi.app.log", "setupapi.dev.log"));

    const auto none = Run<ExtensionCopier<Source, ".txt", "", true, logType>>();
    EXPECT_FALSE(none.success);
    EXPECT_THAT(none.errors, IsEmpty());
    EXPECT_THAT(log_.Text(), HasSubstr("No files with extension .txt were found in directory " + Utf8(Source())));
    EXPECT_THAT((Run<ExtensionCopier<Broken, ".log", "", true, logType>>().errors), IsEmpty());
    EXPECT_THAT(log_.Text(), HasSubstr("Diagnostics failed copying extensions for .log: no such place."));
    EXPECT_EQ((ExtensionCopier<Shared::Util::FixedString(L"C:\\WINDOWS\\inf"), ".log", "a", false, logType>::Origin()),
              "C:\\WINDOWS\\inf");
}

TEST_F(FileCollectors, UserFileCopierTakesOnlyTheUsersOwn) {
    const fs::path profile = machine_ / L"bob";
    EXPECT_THAT(Run(UserLogs(profile)).errors, IsEmpty());
    EXPECT_THAT(Run(UserLogs(fs::path())).errors,
                ElementsAre(StartsWith("User based collector failed: Exception in ")));
    WriteFile(machine_ / L"secret.log", "secret");
    WriteFile(profile / L"own" / L"Logs" / L"a.log", "a");
    WriteFile(profile / L"own" / L"Logs" / L"sub" / L"b.log", "b");
    const SymbolicLink file(machine_ / L"secret.log", profile / L"own" / L"Logs" / L"link.log");
    ASSERT_NE(CreateHardLinkW((profile / L"own" / L"Logs" / L"hard.log").c_str(), (machine_ / L"secret.log").c_str(),
                              nullptr),
              FALSE);
    WriteFile(profile / L"own" / L"Logs" / L"locked.log", "");
    const Shared::Util::FileHandle locked(CreateFileW((profile / L"own" / L"Logs" / L"locked.log").c_str(),
                                                      GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                                                      nullptr));
    const auto status = Run(UserLogs(profile));
    EXPECT_TRUE(status.success);
    EXPECT_THAT(Archived(), ElementsAre("a.log"));
    const std::string folder = Utf8(profile / L"own" / L"Logs") + '\\';
    EXPECT_THAT(status.errors,
                testing::UnorderedElementsAre("The file '" + folder + "sub' is not a regular file.",
                                              "The file '" + folder + "link.log' is not a regular file.",
                                              "The file '" + folder + "hard.log' is not a regular file.",
                                              StartsWith("Cannot archive file " + folder + "locked.log: ")));

    {
        const Shared::Util::FileHandle folderInUse(CreateFileW((profile / L"own" / L"Logs").c_str(), GENERIC_READ, 0,
                                                               nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                                               nullptr));
        EXPECT_THAT(Run(UserLogs(profile)).errors,
                    ElementsAre(StartsWith("User based collector failed: filesystem error: directory_iterator::")));
    }

    WriteFile(profile / L"own" / L"a.dmp", "dump");
    EXPECT_TRUE(Run(UserDump(profile)).success);
    const SymbolicLink moved(profile, machine_ / L"moved");
    EXPECT_TRUE(Run(UserDump(machine_ / L"moved")).success);
    const SymbolicLink stolen(profile / L"own", machine_ / L"eve");
    const fs::path mallory = machine_ / L"mallory";
    fs::create_directory(mallory);
    const SymbolicLink reach(profile / L"own", mallory / L"own");
    EXPECT_THAT(Run(UserDump(mallory)).errors,
                ElementsAre("The file '" + Utf8(mallory / L"own" / L"a.dmp") + "' is not a regular file."));
    EXPECT_THAT(UserDump(profile).CopyFile(machine_ / L"secret.log", L"F", zip_).success, false);
    EXPECT_THAT(Archived(), ElementsAre("a.log", "a.dmp"));
}

TEST_F(FileCollectors, HostileNamesAreArchivedOrNamed) {
    std::mt19937 random(4711);
    static constexpr std::wstring_view alphabet = L"ab. ~'%$\x00e9\x4e2d\xFF0E";
    std::vector<std::wstring> names{L"nul.log", L"con",    L"aux.log.",
                                    L"a.log ",  L"...log", std::wstring(251, L'x') + L".log"};
    for (int count = 0; count < 60; ++count) {
        std::wstring name(1 + random() % 20, L'a');
        for (wchar_t& character : name) {
            character = alphabet[random() % alphabet.size()];
        }
        names.push_back(name + (count % 2 == 0 ? L".log" : L""));
    }
    const fs::path logs = machine_ / L"bob" / L"own" / L"Logs";
    fs::create_directories(logs);
    std::vector<fs::path> made;
    for (const std::wstring& name : names) {
        for (const fs::path& folder : {Source(), logs}) {
            const std::wstring file = Shared::FileSystem::LongForm(folder).native() + L'\\' + name;
            if (Shared::Util::FileHandle(
                    CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr))) {
                made.push_back(folder.native() + L'\\' + name);
            }
        }
    }
    ASSERT_GT(made.size(), 100U);
    const auto tree = Run<ExtensionCopier<Source, ".log", "", true, logType, 1000>>();
    const auto user = Run(UserLogs(machine_ / L"bob"));
    std::string told = log_.Text();
    for (const auto& messages : {tree.errors, user.errors}) {
        for (const std::string& message : messages) {
            told += message + '\n';
        }
    }
    const std::vector<std::string> archived = Archived();
    for (const fs::path& file : made) {
        const NameParts parts(file.filename().native());
        const bool wanted = file.parent_path() == logs || parts.extension == L".log";
        const bool found = std::ranges::find(archived, Utf8(file.filename())) != archived.end();
        EXPECT_TRUE(!wanted || found || told.find(Utf8(file)) != std::string::npos) << Utf8(file);
    }
    EXPECT_GT(archived.size(), 50U);
}

}  // namespace

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
