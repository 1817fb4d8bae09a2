// Every system call that the collectors rely on fails in turn: always, and at single calls of a run. A program reaches
// a DLL's function through the pointer "__imp_NAME". The definitions below take its place for this whole program, the
// libraries included, and pass calls on until a test wants a failure.

#include <windows.h>

#include <bcrypt.h>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <shlobj.h>
#include <userenv.h>
#include <winternl.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-collectors-commandtofile.h"
#include "agentcore.diagnostics-collectors-copyjob.h"
#include "agentcore.diagnostics-manifest.h"
#include "agentcore.diagnostics-sets.h"
#include "diagnostics-test.h"
#include "shared.exception.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-sourcefolder.h"
#include "shared.util-fixedstring.h"

namespace {

/// The calls of one function, numbered from 1, that fail.
struct Plan {
    std::string_view function{};
    unsigned first = 0;
    unsigned last = 0;
    DWORD error = 0;
    /// What they return instead of their usual failure.
    std::optional<long long> result{};
    /// The only class of GetFileInformationByHandleEx that fails.
    std::optional<FILE_INFO_BY_HANDLE_CLASS> information{};
    /// What FileBasicInfo says beside the file's own attributes.
    DWORD attributes = 0;
} plan;

/// How often a file was opened for its content, or looked at as a program, by its name without the folder.
std::map<std::wstring, unsigned> opens;

void CountOpen(std::wstring_view path) {
    ++opens[std::wstring(path.substr(path.rfind(L'\\') + 1))];
}

void* Find(const char* function) {
    FARPROC found = nullptr;
    for (const char* module : {"kernel32", "advapi32", "bcrypt", "ntdll", "shell32", "userenv"}) {
        found = found != nullptr ? found : GetProcAddress(LoadLibraryA(module), function);
    }
    return reinterpret_cast<void*>(found);  // the compiler warns of the direct cast
}

template <Shared::Util::FixedString function, long long result, class F>
struct Fault;
template <Shared::Util::FixedString function, long long result, class R, class... Args>
struct Fault<function, result, R(Args...)> {
    static inline unsigned calls = 0;

    static R WINAPI Call(Args... arguments) {
        constexpr std::string_view name = function;
        ++calls;
        bool isPlanned = plan.function == name && calls >= plan.first && calls <= plan.last;
        if constexpr (name == "GetFileInformationByHandleEx") {
            isPlanned = isPlanned && plan.information.value_or(std::get<1>(std::tie(arguments...))) ==
                                         std::get<1>(std::tie(arguments...));
        } else if constexpr (name == "CreateFileW" || name == "GetBinaryTypeW") {
            CountOpen(std::get<0>(std::tie(arguments...)));
        }
        if (isPlanned) {
            SetLastError(plan.error);
            if constexpr (std::is_pointer_v<R>) {
                // NOLINTNEXTLINE(performance-no-int-to-ptr): INVALID_HANDLE_VALUE is made in no other way
                return reinterpret_cast<R>(static_cast<INT_PTR>(result));
            } else {
                return static_cast<R>(plan.result.value_or(result));
            }
        }
        static const auto real = reinterpret_cast<R(WINAPI*)(Args...)>(Find(function.characters));
        const R returned = real(arguments...);
        if constexpr (name == "GetFileInformationByHandleEx") {
            if (std::get<1>(std::tie(arguments...)) == FileBasicInfo) {
                static_cast<FILE_BASIC_INFO*>(std::get<2>(std::tie(arguments...)))->FileAttributes |= plan.attributes;
            }
        }
        return returned;
    }
};

}  // namespace

// Each function, and what it returns when it fails.
// clang-format off
#define FAULTS(X) \
    X(RegEnumKeyExW, ERROR_NOACCESS) X(RegEnumValueW, ERROR_NOACCESS) X(RegGetValueW, ERROR_NOACCESS) \
    X(RegOpenKeyExW, ERROR_NOACCESS) X(RegQueryInfoKeyW, ERROR_NOACCESS) X(RegQueryValueExW, ERROR_NOACCESS) \
    X(CreateFileW, -1) X(CreateNamedPipeW, -1) X(WaitForMultipleObjectsEx, -1) \
    X(WaitForSingleObject, -1) \
    X(CompareStringOrdinal, 0) X(ConvertSidToStringSidW, 0) \
    X(ConvertStringSecurityDescriptorToSecurityDescriptorW, 0) X(CreateEventW, 0) X(CreateJobObjectW, 0) \
    X(CreatePipe, 0) X(CreateProcessW, 0) X(FileTimeToSystemTime, 0) X(GetBinaryTypeW, 0) \
    X(GetExitCodeProcess, 0) X(GetFileInformationByHandleEx, 0) X(GetFileSizeEx, 0) X(GetFileType, 0) \
    X(GetFinalPathNameByHandleW, 0) X(GetFullPathNameW, 0) X(GetOverlappedResult, 0) X(GetProfilesDirectoryW, 0) \
    X(GetTokenInformation, 0) \
    X(GetWindowsDirectoryW, 0) X(InitializeProcThreadAttributeList, 0) \
    X(MultiByteToWideChar, 0) X(OpenProcessToken, 0) X(QueryInformationJobObject, 0) X(ReadFile, 0) \
    X(ResetEvent, 0) X(SetFileInformationByHandle, 0) X(SetHandleInformation, 0) X(SetInformationJobObject, 0) \
    X(TerminateJobObject, 0) X(TerminateProcess, 0) X(UpdateProcThreadAttribute, 0) X(WideCharToMultiByte, 0) \
    X(WriteFile, 0)
// clang-format on

#define FAULT_OF(function, result) Fault<#function, result, decltype(function)>

// These are declared as if they were in the program.
using KnownFolderFault = FAULT_OF(SHGetKnownFolderPath, E_ACCESSDENIED);
using OpenFault = FAULT_OF(NtOpenFile, static_cast<NTSTATUS>(0xC0000022));
using RandomFault = FAULT_OF(BCryptGenRandom, static_cast<NTSTATUS>(0xC0000001));

// NOLINTBEGIN(bugprone-reserved-identifier,bugprone-macro-parentheses,readability-inconsistent-declaration-parameter-name):
// the linker asks for these names
#define TAKE_PLACE(function, result) decltype(&function) __imp_##function = &FAULT_OF(function, result)::Call;
extern "C" {
FAULTS(TAKE_PLACE)
HRESULT WINAPI SHGetKnownFolderPath(const GUID& id, DWORD flags, HANDLE token, PWSTR* path) {
    return KnownFolderFault::Call(id, flags, token, path);
}
NTSTATUS WINAPI NtOpenFile(PHANDLE file, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK status,
                           ULONG share, ULONG options) {
    // Wine ignores some of these options, so the request is checked: links not followed, oplocks not waited for,
    // content not recalled, files that are read neither renamed nor deleted.
    constexpr ULONG untrusted = FILE_OPEN_REPARSE_POINT | FILE_COMPLETE_IF_OPLOCKED | 0x00400000;
    EXPECT_EQ(options & untrusted, untrusted);
    EXPECT_EQ((access & DELETE) == 0 ? share & FILE_SHARE_DELETE : 0, 0U);
    CountOpen({attributes->ObjectName->Buffer, attributes->ObjectName->Length / sizeof(wchar_t)});
    return OpenFault::Call(file, access, attributes, status, share, options);
}
NTSTATUS WINAPI BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR bytes, ULONG size, ULONG flags) {
    return RandomFault::Call(algorithm, bytes, size, flags);
}
}
// NOLINTEND(bugprone-reserved-identifier,bugprone-macro-parentheses,readability-inconsistent-declaration-parameter-name)

namespace {

using namespace AgentCore::Diagnostics;

struct Function {
    std::string_view name;
    unsigned& calls;
};
#define ROW(function, result) {#function, FAULT_OF(function, result)::calls},
const Function functions[] = {
    FAULTS(ROW){"SHGetKnownFolderPath", KnownFolderFault::calls},
    {"NtOpenFile", OpenFault::calls},
    {"BCryptGenRandom", RandomFault::calls},
};

/// What a run has collected.
struct Outcome {
    struct Row {
        bool success;
        /// Whether the messages or the log say that something went wrong.
        bool saysWhy;
        /// By name, without the folder.
        std::map<std::string, std::string> files{};
    };
    std::map<std::string, Row> rows;
    std::string log;
    /// How often each function was called, and each file opened.
    std::map<std::string_view, unsigned> calls;
    std::map<std::wstring, unsigned> opens;
};

bool HasWarning(std::string_view log) {
    return log.contains("[warning]") || log.contains("[error]");
}

/// On a machine of which most rows have something to collect, under file names that are used once.
class FaultyMachine : public TestSupport::DiagnosticsTest {
protected:
    FaultyMachine() {
        TestSupport::SetFolders(hive_, machine_.Path().native() + L'\\');
        for (const auto& [key, name] : TestSupport::readKeys) {
            hive_.SetDword(key, name, 1);
        }
        hive_.SetString(LR"(SOFTWARE\Velqor\Portavo)", L"wrap-cp-guid", L"{guid}");
        hive_.SetRaw(LR"(SYSTEM\CurrentControlSet\services\Tcpip\Linkage)", L"Bind", REG_MULTI_SZ,
                     {"\\\0D\0\0\0\0\0", 8});
        int number = 0;
        for (const auto& [folder, ending] : TestSupport::scannedFolders) {
            TestSupport::WriteFile(machine_ / folder / (L"scanned " + std::to_wstring(++number) + ending), "bytes");
        }
        for (const wchar_t* file :
             {LR"(Velqor\OXM\sub\ui.log)", LR"(Velqor\Portavo\vq_pv_hrpt.xml)", LR"(Velqor\Portavo\VqPVS.dmp)",
              LR"(Users\bob\AppData\Local\Velqor\Portavo\VqPVA.log)",
              LR"(Users\bob\AppData\Local\Velqor\Portavo\VqPVA.dmp)"}) {
            TestSupport::WriteFile(machine_ / file, "bytes");
        }
        const auto tool = machine_ / LR"(Velqor\Lumora Access Agent\lacli.exe)";
        std::filesystem::create_directories(tool.parent_path());
        std::filesystem::copy_file(TestSupport::ChildProgram(), tool);
    }
    ~FaultyMachine() override { plan = {}; }

    static std::vector<CollectorRow> Rows(bool withCommands) {
        using Exit =
            Collectors::Cmd::CommandToFile<Shared::Util::FixedString(L"echo out& exit 3"), "Exit.txt", sampleType>;
        std::vector<CollectorRow> rows{
            ToolSet().at(3), {.type = sampleType, .name = "exit 3", .origin = {}, .collectors = {AsRun<Exit>()}}};
        rows.resize(withCommands ? 2 : 0);
        for (const auto& set : {LogSet(), ConfigurationSet(), CrashReportSet(), {SampleSet().back()}}) {
            rows.insert(rows.end(), set.begin(), set.end());
        }
        return rows;
    }

    Outcome Run(bool withCommands, const Plan& failing) {
        Outcome outcome;
        const TestSupport::CapturedLog log;
        Shared::FileZip::ZipArchiveWrapper zip(machine_ / L"faulty.zip", 0, true);
        zip.Open();
        std::vector<CollectorStatus> statuses;
        std::vector<CollectorRow> rows;
        std::map<std::string, std::string> names;
        for (const Function& function : functions) {
            function.calls = 0;
        }
        opens.clear();
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
            // A row that archives nothing leaves its folder's name to the next one.
            if (status.success) {
                names[status.diagnostic.archive_path()] = row.name;
            }
            outcome.rows[row.name] = {.success = status.success,
                                      .saysWhy = !status.errors.empty() || HasWarning(log.Text().substr(before))};
        }
        bool hasManifest = false;
        try {
            WriteManifest(statuses, zip, {});
            hasManifest = true;
        } catch (const std::exception& error) {
            EXPECT_NE(std::string_view(error.what()), "");
        }
        plan = {};
        for (const Function& function : functions) {
            outcome.calls[function.name] = function.calls;
        }
        outcome.opens = opens;
        for (const auto& left : std::filesystem::directory_iterator(working_.Path())) {
            EXPECT_TRUE(log.Text().contains("remov")) << left.path() << log.Text();
            std::filesystem::remove_all(left.path());
        }
        // However it went, the archive takes on what comes next, and opens again.
        if (!hasManifest) {
            WriteManifest(statuses, zip, {});
        }
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
                EXPECT_TRUE(names.contains(entry.getName().substr(0, slash))) << entry.getName() << log.Text();
                outcome.rows.at(names.at(entry.getName().substr(0, slash))).files[entry.getName().substr(slash + 1)] =
                    bytes;
            }
        }
        EXPECT_EQ(manifest.diagnostics_size(), static_cast<int>(statuses.size()));
        outcome.log = log.Text();
        return outcome;
    }
};

TEST(OpenUntrusted, AFileUnderAnOplockCountsAsHeld) {
    plan = {.function = "NtOpenFile",
            .first = 0,
            .last = ~0U,
            .error = 0,
            .result = 0x108};  // STATUS_OPLOCK_BREAK_IN_PROGRESS
    const auto opened = Shared::FileSystem::OpenUntrusted({}, FILE_GENERIC_READ, Shared::FileSystem::shareContent);
    plan = {};
    EXPECT_TRUE(!opened && opened.error() == ERROR_SHARING_VIOLATION);
}

/// Whatever a faulty run lacks, its row says that something went wrong.
void Compare(const Outcome& whole, const Outcome& faulty, bool mayDiffer) {
    for (const auto& [name, row] : whole.rows) {
        const auto found = faulty.rows.find(name);
        if (found == faulty.rows.end()) {
            // Without the users' folders there are no rows for them.
            EXPECT_TRUE(HasWarning(faulty.log)) << name;
            continue;
        }
        EXPECT_TRUE(!found->second.success || !found->second.files.empty()) << name;
        for (const auto& [file, bytes] : row.files) {
            const auto had = found->second.files.find(file);
            const bool isHad = had != found->second.files.end() && (had->second == bytes || mayDiffer);
            EXPECT_TRUE(isHad || found->second.saysWhy) << name << ": " << file << '\n' << faulty.log;
        }
    }
}

/// A value that cannot be read is left out of an export without a word, and an exit code that cannot be had is 0.
bool MayBeLeftOut(std::string_view function) {
    return function == "RegQueryValueExW" || function == "RegGetValueW" || function == "GetExitCodeProcess";
}

/// FAT and exFAT do not know the query for the reparse tag.
TEST_F(FaultyMachine, OnFatLosesNothing) {
    const Plan fat{.function = "GetFileInformationByHandleEx",
                   .first = 1,
                   .last = ~0U,
                   .error = ERROR_INVALID_PARAMETER,
                   .information = FileAttributeTagInfo};
    const Outcome whole = Run(true, {});
    const Outcome onFat = Run(true, fat);
    EXPECT_FALSE(HasWarning(onFat.log)) << onFat.log;
    for (const auto& [name, row] : whole.rows) {
        EXPECT_EQ(row.files, onFat.rows.at(name).files) << name;
    }
    TestSupport::WriteFile(machine_ / LR"(folder\sub\file)", "");
    plan = fat;
    Shared::FileSystem::FileObjectRemover(machine_ / L"folder").Clear();
    plan = {};
    EXPECT_FALSE(std::filesystem::exists(machine_ / L"folder"));
}

/// By the collector, by the check for an executable, and by the library.
TEST_F(FaultyMachine, OpensACollectedFileThreeTimes) {
    for (const auto& [name, count] : Run(false, {}).opens) {
        EXPECT_TRUE(!name.starts_with(L"scanned ") || count <= 3) << std::filesystem::path(name) << ": " << count;
    }
}

TEST(SourceFolder, OpensNoPlaceholderInAConfinedFolder) {
    const TestSupport::TemporaryFolder folder;
    TestSupport::WriteFile(folder / LR"(sub\file)", "");
    const auto source = Shared::FileSystem::SourceFolder::Confined(folder.Path(), folder.Path());
    for (const auto& [attribute, isElsewhere] :
         {std::pair{FILE_ATTRIBUTE_OFFLINE, true}, {0x400000, true}, {0x40000 /* extended attributes */, false}}) {
        plan = {.attributes = static_cast<DWORD>(attribute)};
        for (const wchar_t* name : {L"sub", LR"(sub\file)"}) {
            const auto found = source.Open(folder / name);
            EXPECT_EQ(found ? ERROR_SUCCESS : found.error(), isElsewhere ? ERROR_FILE_OFFLINE : ERROR_SUCCESS);
        }
    }
    plan = {};
}

TEST(CopyJob, EndsAScanAfterAHundredThousandEntries) {
    const TestSupport::TemporaryFolder folder;
    Shared::FileZip::ZipArchiveWrapper zip(folder / L"out.zip");
    zip.Open();
    std::filesystem::create_directory(folder / L"logs");
    const auto source = Shared::FileSystem::SourceFolder::Confined(folder.Path(), folder / L"logs");
    Collectors::FileSystem::CopyJob job(source, 1, {L"row", zip});
    auto listing = ListOrThrow(source.Path(), source.Open(source.Path()));
    // Every query succeeds with an entry without a name.
    plan = {.function = "GetFileInformationByHandleEx", .first = 1, .last = ~0U, .error = 0, .result = TRUE};
    unsigned entries = 0;
    EXPECT_FALSE(
        job.Scan(std::move(listing), Collectors::FileSystem::CopyJob::Depth::Folder, [&](const auto&) { ++entries; }));
    plan = {};
    EXPECT_EQ(entries, 100'000U);
    EXPECT_EQ(std::move(job).Status().errors.size(), 1U);
}

class Faults : public FaultyMachine, public testing::WithParamInterface<std::size_t> {};

constexpr std::size_t groups = 5;

TEST_P(Faults, CostOnlyWhatTheySayAndLeaveAGoodArchive) {
    SCOPED_TRACE("");  // the first one opens a handle for good
    const Outcome withCommands = Run(true, {});
    const Outcome withoutCommands = Run(false, {});
    ASSERT_EQ(std::ranges::count_if(withCommands.rows, [](const auto& row) { return row.second.success; }), 16);
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
        for (const auto& [first, last, error] :
             {std::tuple{1U, ~0U, ERROR_IO_DEVICE}, {calls / 2, calls / 2, ERROR_ACCESS_DENIED}}) {
            SCOPED_TRACE(testing::Message() << function << ", calls " << first << " to " << last << ": " << error);
            Compare(
                whole,
                Run(commands, {.function = function, .first = first, .last = last, .error = static_cast<DWORD>(error)}),
                MayBeLeftOut(function));
        }
    }
    EXPECT_EQ(TestSupport::HandleCount(), handles);
}

INSTANTIATE_TEST_SUITE_P(EverySystemCall, Faults, testing::Range(std::size_t{0}, groups));

}  // namespace
