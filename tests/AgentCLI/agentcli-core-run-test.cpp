// Runs of the command in this process, with some of the system's functions watched, or failing. A program reaches a
// DLL's function through the pointer "__imp_NAME": the definitions below take its place, in the libraries as well.

#include <windows.h>

#include <gmock/gmock.h>
#include <google/protobuf/util/json_util.h>
#include <sddl.h>
#include <spdlog/spdlog.h>

#include <map>
#include <regex>
#include <set>
#include <string>

#include "agentcli-core-collectdiagnostics.h"
#include "agentcli-core-log.h"
#include "agentcli-core-runfacts.h"
#include "agentcore.diagnostics-rows.h"
#include "shared.concurrency-childfolder.h"
#include "shared.concurrency-interrupt.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace {

/// New files with these names cannot be created.
std::wstring refused;
/// How often a file is held when it is opened, by its name.
std::map<std::wstring, int> held;
/// The access lists of what is created, as SDDL.
std::multiset<std::wstring> accessLists;
/// FAT and exFAT do not know the query for the reparse tag.
bool isOnFat = false;
PHANDLER_ROUTINE consoleHandler = nullptr;

template <class F>
F* Real(const char* function) {
    return reinterpret_cast<F*>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32"), function)));
}

void Note(const SECURITY_ATTRIBUTES* attributes) {
    LPWSTR text = nullptr;
    if (attributes != nullptr &&
        ConvertSecurityDescriptorToStringSecurityDescriptorW(attributes->lpSecurityDescriptor, SDDL_REVISION_1,
                                                             DACL_SECURITY_INFORMATION, &text, nullptr) != FALSE) {
        const Shared::Util::LocalMemory memory(text);
        accessLists.insert(text);
    } else {
        accessLists.insert(L"none");
    }
}

HANDLE WINAPI WatchedCreateFile(LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES attributes,
                                DWORD disposition, DWORD flags, HANDLE from) {
    if (disposition != OPEN_EXISTING) {
        Note(attributes);
        if (!refused.empty() && std::wstring_view(path).contains(refused)) {
            SetLastError(ERROR_DISK_FULL);
            return INVALID_HANDLE_VALUE;
        }
    } else {
        for (auto& [name, times] : held) {
            if (std::wstring_view(path).contains(name) && times-- > 0) {
                SetLastError(ERROR_SHARING_VIOLATION);
                return INVALID_HANDLE_VALUE;
            }
        }
    }
    return Real<decltype(CreateFileW)>("CreateFileW")(path, access, sharing, attributes, disposition, flags, from);
}

BOOL WINAPI WatchedCreateDirectory(LPCWSTR path, LPSECURITY_ATTRIBUTES attributes) {
    Note(attributes);
    return Real<decltype(CreateDirectoryW)>("CreateDirectoryW")(path, attributes);
}

BOOL WINAPI WatchedQuery(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID information, DWORD size) {
    if (isOnFat && kind == FileAttributeTagInfo) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return Real<decltype(GetFileInformationByHandleEx)>("GetFileInformationByHandleEx")(file, kind, information, size);
}

BOOL WINAPI WatchedHandler(PHANDLER_ROUTINE handler, BOOL) {
    consoleHandler = handler;
    return TRUE;
}

LPWSTR WINAPI LongCommandLine() {
    static std::wstring text = L"AgentCLI " + std::wstring(3000, L'\x00e9');
    return text.data();
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker asks for these names
extern "C" {
decltype(&GetCommandLineW) __imp_GetCommandLineW = &LongCommandLine;
decltype(&CreateFileW) __imp_CreateFileW = &WatchedCreateFile;
decltype(&CreateDirectoryW) __imp_CreateDirectoryW = &WatchedCreateDirectory;
decltype(&GetFileInformationByHandleEx) __imp_GetFileInformationByHandleEx = &WatchedQuery;
decltype(&SetConsoleCtrlHandler) __imp_SetConsoleCtrlHandler = &WatchedHandler;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace AgentCLI::Core::Commands::Agent {

namespace {

using Shared::FileZip::ZipArchiveWrapper;
using testing::HasSubstr;

/// The program's log in a folder of its own, and a machine on which one key is archived.
class RunTest : public testing::Test {
protected:
    RunTest() {
        // The archived log is small.
        for (const wchar_t* key : {L"OXM", LR"(OXM\Config)", L"Lumora Access Agent"}) {
            hive_.CreateKey(LR"(SOFTWARE\Velqor\)" + std::wstring(key));
        }
        accessLists.clear();
        SetUpLog();
    }
    ~RunTest() override {
        refused.clear();
        held.clear();
        isOnFat = false;
        spdlog::set_default_logger(before_);
        ProcessLogger().reset();
    }

    /// Collects the configuration; returns what is printed.
    static std::string Collect(const std::string& path = {}) {
        testing::internal::CaptureStdout();
        try {
            CollectDiagnostics::Run({.path = path, .config = true});
        } catch (const std::exception& error) {
            return testing::internal::GetCapturedStdout() + "failed: " + error.what();
        }
        return testing::internal::GetCapturedStdout();
    }

    /// The text of an archived file; empty when there is none.
    static std::string Archived(const std::string& entryName) {
        ZipArchiveWrapper zip(L"diagnostics.zip");
        zip.Open();
        for (const libzippp::ZipEntry& entry : zip.Entries()) {
            if (entry.getName() == entryName) {
                return entry.readAsText();
            }
        }
        return {};
    }

    const TestSupport::WorkingFolder folder_;
    // The machine's own, before it gets another registry.
    const ::Diagnostics::Run& facts_ = RunFacts();
    const TestSupport::ThrowAwayHive hive_;
    const std::shared_ptr<spdlog::logger> before_ = spdlog::default_logger();
};

TEST_F(RunTest, WhatItCreatesIsForItsAdministratorAlone) {
    EXPECT_THAT(Collect(), testing::StartsWith("Diagnostics zip located at: "));
    EXPECT_GE(accessLists.size(), 4U) << "the log, the archive, a text, the manifest";
    const std::wregex file(LR"(D:P(\(A;;FA;;;(SY|BA|OW|S-1-5-21-[-0-9]+)\)){4})");
    for (const std::wstring& list : accessLists) {
        EXPECT_TRUE(std::regex_match(list, file)) << testing::PrintToString(list);
    }
    accessLists.clear();
    const Shared::Concurrency::ChildFolder folder;
    ASSERT_EQ(accessLists.size(), 1U);
    const std::wregex contents(LR"(D:P(\(A;OICI;FA;;;(SY|BA|OW|S-1-5-21-[-0-9]+)\)){4})");
    EXPECT_TRUE(std::regex_match(*accessLists.begin(), contents)) << testing::PrintToString(*accessLists.begin());
}

TEST_F(RunTest, WithoutAManifestItFailsAndTheArchivedLogSaysWhy) {
    refused = L"manifest.json";
    EXPECT_THAT(Collect(), testing::AllOf(testing::StartsWith("failed: "), HasSubstr("manifest.json")));
    EXPECT_THAT(Archived("agent-cli.log"), HasSubstr("Cannot create the file manifest.json"));
}

TEST_F(RunTest, ManifestAndLogAreWaitedForASecondEach) {
    // Of 50 milliseconds each.
    held = {{L"lumora-access-agent.txt", 1000}, {L"manifest.json", 12}, {L"agent-cli.log", 12}};
    EXPECT_THAT(Collect(), testing::StartsWith("Diagnostics zip located at: "));
    EXPECT_THAT(Archived("agent-cli.log"), HasSubstr("lumora-access-agent.txt"));
    EXPECT_THAT(Archived("manifest.json"), HasSubstr("lumora-access-agent.txt"));
}

TEST_F(RunTest, ItsFactsAreInTheManifestAndShortenedInTheLogsFirstLine) {
    Collect();
    ::Diagnostics::DiagnosticResponse manifest;
    ASSERT_TRUE(google::protobuf::util::JsonStringToMessage(Archived("manifest.json"), &manifest).ok());
    const ::Diagnostics::Run& run = manifest.run();
    EXPECT_EQ(run.command_line().size(), 6009U);
    EXPECT_TRUE(run.has_elevated() && run.has_interrupted() && run.has_utc_offset_minutes() &&
                run.has_ansi_code_page() && run.has_oem_code_page())
        << run.DebugString();
    const std::string log = Archived("agent-cli.log");
    const std::string line = log.substr(0, log.find('\r'));
    EXPECT_THAT(line, HasSubstr(run.began_at()));
    EXPECT_TRUE(line.ends_with("command line " + run.command_line().substr(0, 999))) << line;
}

TEST_F(RunTest, OnFatTheArchiveIsMovedAndAnEarlierLogIsKept) {
    spdlog::info("earlier");
    spdlog::set_default_logger(before_);
    ProcessLogger().reset();
    isOnFat = true;
    SetUpLog();
    EXPECT_THAT(Collect("moved.zip"), testing::EndsWith("moved.zip\n"));
    EXPECT_TRUE(std::filesystem::exists(L"moved.zip") && !std::filesystem::exists(L"diagnostics.zip"));
    std::filesystem::rename(L"moved.zip", L"diagnostics.zip");
    EXPECT_THAT(Archived("agent-cli.log"), HasSubstr("earlier"));
    EXPECT_NE(Archived("manifest.json"), "");
}

// For a process of its own, since an interruption stays.
TEST(Interrupted, TheRestOfARowAndTheOtherRowsAreNotRun) {
    using namespace AgentCore::Diagnostics;
    const TestSupport::WorkingFolder folder;
    ZipArchiveWrapper zip(L"out.zip");
    zip.Open();
    const Shared::Concurrency::InterruptWatch watch;
    std::string ran;
    const auto collector = [&ran](char name) -> CollectorRow::Run {
        return [&ran, name](const auto&, auto&) {
            ran += name;
            if (name == 'b') {
                consoleHandler(CTRL_C_EVENT);
            }
            return CollectorStatus{.success = true, .diagnostic = {}, .errors = {}};
        };
    };
    const CollectorRow rows[] = {{.type = logType,
                                  .name = "first",
                                  .origin = {},
                                  .collectors = {collector('a'), collector('b'), collector('c')}},
                                 {.type = logType, .name = "second", .origin = {}, .collectors = {collector('d')}}};
    const auto statuses = RunSet(rows, zip);
    EXPECT_EQ(ran, "ab");
    EXPECT_THAT(statuses.at(0).errors, testing::ElementsAre("Interrupted."));
    EXPECT_THAT(statuses.at(1).errors, testing::ElementsAre("Not run: the collection was interrupted."));
}

}  // namespace

}  // namespace AgentCLI::Core::Commands::Agent
