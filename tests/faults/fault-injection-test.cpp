// Every system call that the collectors rely on fails in turn: always, and at single calls of a run. A program reaches
// a DLL's function through the pointer "__imp_NAME". The definitions below take its place for this whole program, the
// libraries included, and pass calls on until a test wants a failure.

#include <windows.h>

#include <bcrypt.h>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>
#include <shlobj.h>
#include <userenv.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-configurationset.h"
#include "agentcore.diagnostics-crashset.h"
#include "agentcore.diagnostics-logset.h"
#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-sampleset.h"
#include "agentcore.diagnostics-toolset.h"
#include "shared.concurrency-cmdrunner.h"
#include "shared.exception.h"
#include "shared.util-fixedstring.h"
#include "test-support.h"

namespace {

/// The calls of one function, numbered from 1, that fail.
struct Plan {
    std::string_view function;
    unsigned first;
    unsigned last;
    /// What they return instead of their usual failure.
    std::optional<long long> result;
} plan;

template <Shared::Util::FixedString module, Shared::Util::FixedString function, long long result, DWORD error, class F>
struct Fault;
template <Shared::Util::FixedString module, Shared::Util::FixedString function, long long result, DWORD error, class R,
          class... Args>
struct Fault<module, function, result, error, R(Args...)> {
    static inline unsigned calls = 0;

    static R WINAPI Call(Args... arguments) {
        ++calls;
        if (plan.function == function.ToView() && calls >= plan.first && calls <= plan.last) {
            SetLastError(error);
            if constexpr (std::is_pointer_v<R>) {
                // NOLINTNEXTLINE(performance-no-int-to-ptr): INVALID_HANDLE_VALUE is made in no other way
                return reinterpret_cast<R>(static_cast<INT_PTR>(result));
            } else {
                return static_cast<R>(plan.result.value_or(result));
            }
        }
        // NOLINTBEGIN(bugprone-casting-through-void): the compiler warns of the direct cast
        static const auto real = reinterpret_cast<R(WINAPI*)(Args...)>(
            reinterpret_cast<void*>(GetProcAddress(LoadLibraryA(module.characters), function.characters)));
        // NOLINTEND(bugprone-casting-through-void)
        return real(arguments...);
    }
};

constexpr long long no = 0;
constexpr long long invalidHandle = -1;
constexpr DWORD denied = ERROR_ACCESS_DENIED;

}  // namespace

// Module, function, what it returns when it fails, and the error that it leaves.
#define FAULTS(X)                                                               \
    X(advapi32, RegEnumKeyExW, ERROR_NOACCESS, denied)                          \
    X(advapi32, RegEnumValueW, ERROR_NOACCESS, denied)                          \
    X(advapi32, RegGetValueW, ERROR_NOACCESS, denied)                           \
    X(advapi32, RegOpenKeyExW, ERROR_ACCESS_DENIED, denied)                     \
    X(advapi32, RegQueryInfoKeyW, ERROR_NOACCESS, denied)                       \
    X(advapi32, RegQueryValueExW, ERROR_KEY_DELETED, denied)                    \
    X(kernel32, CompareStringOrdinal, no, ERROR_INVALID_PARAMETER)              \
    X(kernel32, CreateEventW, no, ERROR_NO_SYSTEM_RESOURCES)                    \
    X(kernel32, CreateFileW, invalidHandle, denied)                             \
    X(kernel32, CreateJobObjectW, no, ERROR_NO_SYSTEM_RESOURCES)                \
    X(kernel32, CreateNamedPipeW, invalidHandle, ERROR_PIPE_BUSY)               \
    X(kernel32, CreatePipe, no, ERROR_NO_SYSTEM_RESOURCES)                      \
    X(kernel32, CreateProcessW, no, ERROR_NOT_ENOUGH_MEMORY)                    \
    X(kernel32, DeleteFileW, no, denied)                                        \
    X(kernel32, FileTimeToSystemTime, no, ERROR_INVALID_PARAMETER)              \
    X(kernel32, FindFirstFileExW, invalidHandle, denied)                        \
    X(kernel32, FindNextFileW, no, ERROR_FILE_CORRUPT)                          \
    X(kernel32, GetBinaryTypeW, no, denied)                                     \
    X(kernel32, GetDateFormatEx, no, ERROR_INVALID_PARAMETER)                   \
    X(kernel32, GetExitCodeProcess, no, denied)                                 \
    X(kernel32, GetFileAttributesExW, no, denied)                               \
    X(kernel32, GetFileAttributesW, -1, denied)                                 \
    X(kernel32, GetFileInformationByHandle, no, ERROR_IO_DEVICE)                \
    X(kernel32, GetFileInformationByHandleEx, no, ERROR_IO_DEVICE)              \
    X(kernel32, GetFileSizeEx, no, ERROR_IO_DEVICE)                             \
    X(kernel32, GetFileType, no, ERROR_IO_DEVICE)                               \
    X(kernel32, GetFinalPathNameByHandleW, no, ERROR_IO_DEVICE)                 \
    X(kernel32, GetFullPathNameW, no, ERROR_NOT_ENOUGH_MEMORY)                  \
    X(kernel32, GetOverlappedResult, no, ERROR_IO_DEVICE)                       \
    X(kernel32, GetTimeFormatEx, no, ERROR_INVALID_PARAMETER)                   \
    X(kernel32, GetWindowsDirectoryW, no, denied)                               \
    X(kernel32, InitializeProcThreadAttributeList, no, ERROR_NOT_ENOUGH_MEMORY) \
    X(kernel32, IsProcessInJob, no, denied)                                     \
    X(kernel32, MultiByteToWideChar, no, ERROR_NO_UNICODE_TRANSLATION)          \
    X(kernel32, QueryInformationJobObject, no, denied)                          \
    X(kernel32, ReadFile, no, ERROR_CRC)                                        \
    X(kernel32, ResetEvent, no, ERROR_INVALID_HANDLE)                           \
    X(kernel32, SetFileInformationByHandle, no, ERROR_DISK_FULL)                \
    X(kernel32, SetHandleInformation, no, ERROR_INVALID_HANDLE)                 \
    X(kernel32, SetInformationJobObject, no, denied)                            \
    X(kernel32, TerminateJobObject, no, denied)                                 \
    X(kernel32, TerminateProcess, no, denied)                                   \
    X(kernel32, UpdateProcThreadAttribute, no, ERROR_NOT_ENOUGH_MEMORY)         \
    X(kernel32, WaitForSingleObject, WAIT_FAILED, denied)                       \
    X(kernel32, WaitForSingleObjectEx, WAIT_FAILED, denied)                     \
    X(kernel32, WideCharToMultiByte, no, ERROR_NO_UNICODE_TRANSLATION)          \
    X(kernel32, WriteFile, no, ERROR_DISK_FULL)                                 \
    X(userenv, GetProfilesDirectoryW, no, denied)

#define FAULT_OF(module, function, result, error) Fault<#module, #function, result, error, decltype(function)>

// These are declared as if they were in the program.
using KnownFolderFault = FAULT_OF(shell32, SHGetKnownFolderPath, E_ACCESSDENIED, denied);
using RandomFault = FAULT_OF(bcrypt, BCryptGenRandom, static_cast<NTSTATUS>(0xC0000001), denied);

// NOLINTBEGIN(bugprone-reserved-identifier,bugprone-macro-parentheses,readability-inconsistent-declaration-parameter-name):
// the linker asks for these names
#define TAKE_PLACE(module, function, result, error) \
    decltype(&function) __imp_##function = &FAULT_OF(module, function, result, error)::Call;
extern "C" {
FAULTS(TAKE_PLACE)
HRESULT WINAPI SHGetKnownFolderPath(const GUID& id, DWORD flags, HANDLE token, PWSTR* path) {
    return KnownFolderFault::Call(id, flags, token, path);
}
NTSTATUS WINAPI BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR bytes, ULONG size, ULONG flags) {
    return RandomFault::Call(algorithm, bytes, size, flags);
}
}
// NOLINTEND(bugprone-reserved-identifier,bugprone-macro-parentheses,readability-inconsistent-declaration-parameter-name)

namespace {

using namespace AgentCore::Diagnostics;
using Shared::FileZip::ZipArchiveWrapper;

struct Function {
    std::string_view name;
    unsigned& calls;
};
#define ROW(module, function, result, error) {#function, FAULT_OF(module, function, result, error)::calls},
const Function functions[] = {
    FAULTS(ROW){"SHGetKnownFolderPath", KnownFolderFault::calls},
    {"BCryptGenRandom", RandomFault::calls},
};

/// What a run has collected.
struct Outcome {
    struct Row {
        std::string name;
        bool success;
        /// Whether the messages or the log say that something went wrong.
        bool saysWhy;
        /// What the manifest names as its folder.
        std::string folder;
    };
    std::vector<Row> rows;
    /// By name, without the folder.
    std::map<std::string, std::string> files;
    std::map<std::string, std::string> folders;
    std::string log;
    /// How often each function was called.
    std::map<std::string_view, unsigned> calls;
};

bool HasWarning(std::string_view log) {
    return log.contains("[warning]") || log.contains("[error]");
}

/// A machine of which most rows have something to collect, under file names that are used once.
class AllCollectors : public testing::Test {
protected:
    AllCollectors() {
        const std::wstring profiles = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList)";
        const std::wstring velqor = LR"(SOFTWARE\Velqor\)";
        hive_.SetString(profiles, L"ProfilesDirectory", (root_ / L"Users").native());
        hive_.SetString(profiles, L"ProgramData", (root_ / L"ProgramData").native());
        hive_.SetString(velqor + L"OXM", L"Path", (root_ / LR"(Velqor\OXM\)").native());
        hive_.SetDword(velqor + LR"(OXM\Config)", L"n", 1);
        hive_.SetDword(velqor + L"Lumora Access Agent", L"n", 2);
        hive_.SetDword(velqor + LR"(Lumora Access Agent\sub)", L"n", 3);
        hive_.SetRaw(velqor + LR"(Portavo\VqPVS)", L"PreferredIP", REG_DWORD, "\x0A\x01\xFE\x63");
        hive_.SetString(velqor + L"Portavo", L"wrap-cp-guid", L"{guid}");
        hive_.SetDword(velqor + LR"(Portavo\VqSetup)", L"Prelogon", 1);
        hive_.SetDword(velqor + LR"(Portavo\Settings)", L"n", 4);
        hive_.CreateKey(LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\Authentication\Credential Provider Filters\{1})");
        hive_.SetRaw(LR"(SYSTEM\CurrentControlSet\services\Tcpip\Linkage)", L"Bind", REG_MULTI_SZ,
                     {"\\\0D\0\0\0\0\0", 8});
        for (const wchar_t* file :
             {LR"(Velqor\OXM\agent.log)", LR"(Velqor\OXM\sub\ui.log)", LR"(Velqor\OXM\sub\agent.dmp)",
              LR"(Velqor\Portavo\pv.log)", LR"(Velqor\Portavo\vq_pv_hrpt.xml)", LR"(Velqor\Portavo\VqPVS.dmp)",
              LR"(ProgramData\Velqor\Lumora Access Agent\Logs\laa.log)", LR"(ProgramData\Velqor\DLP\logs\dlp.txt)",
              LR"(Users\bob\AppData\Local\Velqor\OXM\Viewpane\v.txt)",
              LR"(Users\bob\AppData\Local\Velqor\Portavo\VqPVA.log)",
              LR"(Users\bob\AppData\Local\Velqor\Portavo\VqPVA.dmp)"}) {
            TestSupport::WriteFile(root_ / file, "bytes");
        }
        const auto tool = root_ / LR"(Velqor\Lumora Access Agent\lacli.exe)";
        std::filesystem::create_directories(tool.parent_path());
        std::filesystem::copy_file(TestSupport::ChildProgram(), tool);
    }
    TestSupport::WorkingFolder working_;
    TestSupport::TemporaryFolder root_;
    TestSupport::ThrowAwayHive hive_;
};

class Faults : public AllCollectors, public testing::WithParamInterface<std::size_t> {
protected:
    ~Faults() override { plan = {}; }

    static std::vector<CollectorRow> Rows(bool withCommands) {
        std::vector<CollectorRow> rows = LogSet();
        const auto append = [&rows](const std::vector<CollectorRow>& set) {
            rows.insert(rows.end(), set.begin(), set.end());
        };
        append(ConfigurationSet());
        append(CrashReportSet());
        append({SampleSet().back()});
        if (withCommands) {
            using Exit =
                Collectors::Cmd::CommandToFile<Shared::Util::FixedString(L"echo out& exit 3"), "Exit.txt", sampleType>;
            append(
                {ToolSet().at(3), {.type = sampleType, .name = "exit 3", .origin = {}, .collectors = {AsRun<Exit>()}}});
        }
        return rows;
    }

    Outcome Run(bool withCommands, const Plan& failing) {
        Outcome outcome;
        const TestSupport::CapturedLog log;
        ZipArchiveWrapper zip(root_ / L"out.zip", 0, true);
        zip.Open();
        std::vector<CollectorStatus> statuses;
        std::vector<CollectorRow> rows;
        for (const Function& function : functions) {
            function.calls = 0;
        }
        plan = failing;
        try {
            rows = Rows(withCommands);
        } catch (const Shared::Exception::Win32Exception&) {
            // Without its tables of rows the program ends with the reason.
            plan = {};
            rows = Rows(withCommands);
            plan = failing;
        }
        for (const CollectorRow& row : rows) {
            const std::size_t before = log.Text().size();
            const CollectorStatus& status = statuses.emplace_back(RunRow(row, zip));
            outcome.rows.push_back({.name = row.name,
                                    .success = status.success,
                                    .saysWhy = !status.errors.empty() || HasWarning(log.Text().substr(before)),
                                    .folder = status.diagnostic.archive_path()});
        }
        try {
            WriteManifest(statuses, zip);
        } catch (const std::exception& error) {
            EXPECT_NE(std::string_view(error.what()), "");
        }
        plan = {};
        for (const Function& function : functions) {
            outcome.calls[function.name] = function.calls;
        }
        EXPECT_TRUE(std::filesystem::is_empty(working_.Path()) || log.Text().contains("Failed removing file"));
        // However it went, the archive takes on what comes next, and opens again.
        WriteManifest(statuses, zip);
        zip.Close();
        zip.Open();
        ::Diagnostics::DiagnosticResponse manifest;
        for (const libzippp::ZipEntry& entry : zip.Entries()) {
            const std::string bytes = entry.readAsText();
            EXPECT_EQ(bytes.size(), entry.getSize()) << entry.getName();
            if (entry.getName() == "manifest.json") {
                EXPECT_TRUE(google::protobuf::util::JsonStringToMessage(bytes, &manifest).ok());
            } else if (entry.isFile()) {
                const std::size_t slash = entry.getName().find('/');
                outcome.folders[entry.getName().substr(slash + 1)] = entry.getName().substr(0, slash);
                outcome.files[entry.getName().substr(slash + 1)] = bytes;
            }
        }
        EXPECT_EQ(manifest.diagnostics_size(), static_cast<int>(statuses.size()));
        outcome.log = log.Text();
        return outcome;
    }
};

TEST_F(AllCollectors, LeaveNoHandleOpen) {
    unsigned handles = TestSupport::HandleCount();
    for (const bool isFirst : {true, false}) {
        {
            const TestSupport::CapturedLog log;
            ZipArchiveWrapper zip(root_ / L"out.zip", 0, true);
            zip.Open();
            for (const auto& set : {LogSet(), ConfigurationSet(), SampleSet(), ToolSet(), CrashReportSet()}) {
                WriteManifest(RunSet(set, zip), zip);
            }
        }
        // What is opened once for good is opened by the first run.
        handles = isFirst ? TestSupport::HandleCount() : handles;
    }
    EXPECT_EQ(TestSupport::HandleCount(), handles);
}

TEST_F(AllCollectors, WhatIsNoFileIsNotStartedAsTheInterpreter) {
    const auto run = [] {
        return Shared::Concurrency::Execute<Shared::Concurrency::EmptyParser>(L"exit 3", std::chrono::seconds(30));
    };
    EXPECT_EQ(run().exitCode, 3U);
    plan = {.function = "GetFileAttributesW", .first = 0, .last = ~0U, .result = FILE_ATTRIBUTE_DIRECTORY};
    EXPECT_THROW((void)run(), Shared::Exception::Win32Exception);
    plan = {};
}

/// Whatever a faulty run lacks, its row says that something went wrong.
void Compare(const Outcome& whole, const Outcome& faulty, bool mayDiffer) {
    for (const auto& [file, bytes] : whole.files) {
        const auto found = faulty.files.find(file);
        if (found != faulty.files.end() && (found->second == bytes || mayDiffer)) {
            continue;
        }
        const auto owner = std::ranges::find_if(
            whole.rows, [&](const Outcome::Row& row) { return row.success && row.folder == whole.folders.at(file); });
        const auto row = std::ranges::find(faulty.rows, owner->name, &Outcome::Row::name);
        // Without the users' folders there are no rows for them.
        EXPECT_TRUE(row == faulty.rows.end() ? HasWarning(faulty.log) : row->saysWhy) << file << '\n' << faulty.log;
    }
    for (const Outcome::Row& row : faulty.rows) {
        EXPECT_TRUE(!row.success || std::ranges::any_of(faulty.folders, [&row](const auto& file) {
            return file.second == row.folder;
        })) << row.name;
    }
}

/// A value that cannot be read is left out of an export without a word, and an exit code that cannot be had is 0.
bool MayBeLeftOut(std::string_view function) {
    return function == "RegQueryValueExW" || function == "RegGetValueW" || function == "GetExitCodeProcess";
}

constexpr std::size_t groups = 5;

TEST_P(Faults, CostOnlyWhatTheySayAndLeaveAGoodArchive) {
    SCOPED_TRACE("");  // the first one opens a handle for good
    const Outcome withCommands = Run(true, {});
    const Outcome withoutCommands = Run(false, {});
    ASSERT_EQ(withCommands.files.size(), 18U);
    // What a faulty run says is about its fault then.
    ASSERT_FALSE(HasWarning(withCommands.log)) << withCommands.log;
    const unsigned handles = TestSupport::HandleCount();
    for (std::size_t index = GetParam(); index < std::size(functions); index += groups) {
        const std::string_view function = functions[index].name;
        const unsigned calls = withCommands.calls.at(function);
        ASSERT_NE(calls, 0U) << "no collector calls " << function;
        // Starting programs takes longer than all the rest.
        const bool commands = calls != withoutCommands.calls.at(function);
        const Outcome& whole = commands ? withCommands : withoutCommands;
        for (const auto& [first, last] :
             std::set<std::pair<unsigned, unsigned>>{{1, ~0U}, {1, 1}, {calls / 2, calls / 2}, {calls, calls}}) {
            SCOPED_TRACE(testing::Message() << function << ", calls " << first << " to " << last << " fail");
            Compare(whole, Run(commands, {.function = function, .first = first, .last = last, .result = {}}),
                    MayBeLeftOut(function));
        }
    }
    EXPECT_EQ(TestSupport::HandleCount(), handles);
}

INSTANTIATE_TEST_SUITE_P(EverySystemCall, Faults, testing::Range(std::size_t{0}, groups));

}  // namespace
