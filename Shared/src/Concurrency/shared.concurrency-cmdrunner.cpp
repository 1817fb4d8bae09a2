#include "shared.concurrency-cmdrunner.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <expected>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "shared.concurrency-childfolder.h"
#include "shared.concurrency-event.h"
#include "shared.concurrency-interrupt.h"
#include "shared.concurrency-pipe.h"
#include "shared.exception-guardedlog.h"
#include "shared.filesystem-longpath.h"
#include "shared.system-functions.h"
#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::Concurrency {

namespace {

constexpr std::size_t chunkSize = 4096;
constexpr DWORD endGraceMilliseconds = 1000;
constexpr DWORD interruptGraceMilliseconds = 500;

DWORD ToWait(std::chrono::milliseconds timeout) {
    return static_cast<DWORD>(std::clamp<std::chrono::milliseconds::rep>(timeout.count(), 0, INFINITE - 1));
}

struct AttributeListKind : Util::PointerKind<LPPROC_THREAD_ATTRIBUTE_LIST> {
    static void Close(Value list) noexcept { DeleteProcThreadAttributeList(list); }
};

// The attributes of a process to be created. The handles that they point to must outlive the object.
class AttributeList {
public:
    [[nodiscard]] static Util::Win32Result<AttributeList> Create(DWORD count) {
        AttributeList list;
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, count, 0, &size);
        list.storage_.resize(size);
        auto* const memory = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list.storage_.data());
        if (InitializeProcThreadAttributeList(memory, count, 0, &size) == FALSE) {
            return Util::LastError();
        }
        list.list_.Reset(memory);
        return list;
    }

    [[nodiscard]] bool Add(DWORD_PTR attribute, std::span<HANDLE> handles) const {
        return UpdateProcThreadAttribute(Get(), 0, attribute, static_cast<void*>(handles.data()), handles.size_bytes(),
                                         nullptr, nullptr) != FALSE;
    }
    [[nodiscard]] LPPROC_THREAD_ATTRIBUTE_LIST Get() const { return list_.Get(); }

private:
    AttributeList() = default;

    std::vector<std::byte> storage_;
    Util::UniqueHandle<AttributeListKind> list_;
};

// How a child is started.
struct ChildStart {
    const std::wstring& applicationName;
    const std::wstring& commandLine;
    std::array<HANDLE, 2> standardHandles;
    const wchar_t* currentDirectory;
};

Util::Win32Result<PROCESS_INFORMATION> Start(const ChildStart& child, HANDLE job) {
    auto attributes = AttributeList::Create(2);
    if (!attributes) {
        return std::unexpected(attributes.error());
    }
    auto handles = child.standardHandles;
    // Without the list a child would inherit every inheritable handle of this process.
    if (!attributes->Add(PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles) ||
        (job != nullptr && !attributes->Add(PROC_THREAD_ATTRIBUTE_JOB_LIST, {&job, 1}))) {
        return Util::LastError();
    }
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = handles[0];
    startup.StartupInfo.hStdOutput = handles[1];
    startup.StartupInfo.hStdError = handles[1];
    startup.lpAttributeList = attributes->Get();
    std::wstring writable = child.commandLine;
    PROCESS_INFORMATION process{};
    if (CreateProcessW(child.applicationName.empty() ? nullptr : child.applicationName.c_str(), writable.data(),
                       nullptr, nullptr, TRUE, EXTENDED_STARTUPINFO_PRESENT, nullptr, child.currentDirectory,
                       &startup.StartupInfo, &process) == FALSE) {
        return Util::LastError();
    }
    return process;
}

// A job that ends its processes when its only handle is closed, also because this process is killed. A crash in it
// ends the process without a dialog. None when the system creates no job.
Util::KernelHandle CreateChildJob() {
    Util::KernelHandle job(CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags =
        JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_DIE_ON_UNHANDLED_EXCEPTION;
    if (!job ||
        SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limits, sizeof limits) == FALSE) {
        Exception::LogWarning("A command runs without a job: {}", Exception::Win32Message(GetLastError()));
        job.Reset();
    }
    return job;
}

// A running child; on destruction it is terminated with everything that it has started.
class Child {
public:
    Child(const std::wstring& applicationName, const std::wstring& commandLine, HANDLE stdinRead, HANDLE stdoutWrite,
          const std::filesystem::path& folder)
        : job_(CreateChildJob()) {
        const PROCESS_INFORMATION started = CreateChildProcess(applicationName, commandLine, stdinRead, stdoutWrite,
                                                               job_.Get(), folder.empty() ? nullptr : folder.c_str());
        process_.Reset(started.hProcess);
        const Util::KernelHandle thread(started.hThread);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        Terminate(WAIT_TIMEOUT);
        AwaitEnd();
    }

    // Does nothing to processes that have ended.
    void Terminate(UINT exitCode) const noexcept {
        if (job_) {
            TerminateJobObject(job_.Get(), exitCode);
        }
        // It may run outside the job.
        TerminateProcess(process_.Get(), exitCode);
    }

    [[nodiscard]] std::uint32_t ExitCode(std::uint32_t unlessKnown) const noexcept {
        DWORD code = unlessKnown;
        GetExitCodeProcess(process_.Get(), &code);
        return code;
    }

private:
    // TerminateProcess returns before the process has ended, and until then its files stay open.
    void AwaitEnd() const noexcept {
        const ULONGLONG deadline = GetTickCount64() + endGraceMilliseconds;
        JOBOBJECT_BASIC_ACCOUNTING_INFORMATION job{};
        WaitForSingleObject(process_.Get(), endGraceMilliseconds);
        while (job_ &&
               QueryInformationJobObject(job_.Get(), JobObjectBasicAccountingInformation, &job, sizeof job, nullptr) !=
                   FALSE &&
               job.ActiveProcesses != 0 && GetTickCount64() < deadline) {
            Sleep(1);
        }
    }

    Util::KernelHandle job_;
    Util::KernelHandle process_;
};

// One overlapped read into a buffer of its own. The system writes to both until the read has ended, for which the
// destructor waits.
class PendingRead {
public:
    PendingRead(HANDLE pipe, const Event& event) : pipe_(pipe), event_(event) {}
    PendingRead(const PendingRead&) = delete;
    PendingRead& operator=(const PendingRead&) = delete;
    ~PendingRead() { Cancel(); }

    // False when there is nothing more to read.
    [[nodiscard]] bool Begin() {
        overlapped_ = {};
        overlapped_.hEvent = event_.Handle();
        underWay_ =
            ReadFile(pipe_, buffer_.data(), static_cast<DWORD>(buffer_.size()), nullptr, &overlapped_) != FALSE ||
            GetLastError() == ERROR_IO_PENDING;
        if (!underWay_) {
            Ended(GetLastError());
        }
        return underWay_;
    }

    // The bytes of a read that has ended; none after its failure.
    [[nodiscard]] std::string_view End() {
        const std::string_view bytes = Finish(FALSE);
        if (bytes.empty()) {
            Ended(GetLastError());
        }
        return bytes;
    }

    // Ends the read early; the bytes that came in before that.
    std::string_view Cancel() {
        if (!underWay_) {
            return {};
        }
        CancelIoEx(pipe_, &overlapped_);
        return Finish(TRUE);
    }

private:
    // The end of the output is a broken pipe, or nothing read; after anything else a part of it is missing.
    static void Ended(DWORD error) {
        if (error != ERROR_BROKEN_PIPE && error != ERROR_SUCCESS) {
            Exception::LogWarning("A command's output could not be read to its end: {}",
                                  Exception::Win32Message(error));
        }
    }

    std::string_view Finish(BOOL wait) {
        DWORD count = 0;
        SetLastError(ERROR_SUCCESS);
        if (GetOverlappedResult(pipe_, &overlapped_, &count, wait) == FALSE) {
            count = 0;
        }
        underWay_ = false;
        return {buffer_.data(), count};
    }

    HANDLE pipe_;
    const Event& event_;
    OVERLAPPED overlapped_{};
    std::array<char, chunkSize> buffer_{};
    bool underWay_ = false;
};

// When a command begins with a quotation mark and has a special character between its first two, as in the path of a
// program below "Program Files (x86)", the interpreter takes away the first and the last mark ("cmd /?"). Such a
// command gets one more pair.
std::wstring CommandLine(const std::wstring& interpreter, const std::wstring& command) {
    const std::size_t second = command.starts_with(L'"') ? command.find(L'"', 1) : std::wstring::npos;
    const bool losesQuotes = second != std::wstring::npos && command.find_first_of(L"&<>()@^|") < second;
    return losesQuotes ? fmt::format(L"{} /c \"{}\"", interpreter, command)
                       : fmt::format(L"{} /c {}", interpreter, command);
}

// Ctrl+C reaches a child and this process at the same time, and may end the child first.
void AwaitInterruption(std::uint32_t exitCode) {
    if (exitCode == STATUS_CONTROL_C_EXIT && InterruptEvent() != nullptr) {
        WaitForSingleObject(InterruptEvent(), interruptGraceMilliseconds);
    }
}

}  // namespace

ReadTimeout::ReadTimeout(std::string output, const std::source_location& location, const Exception::StackTrace& trace)
    : Exception::TimeoutException("CMD IO operation timed out.", location, trace), output_(std::move(output)) {}

PROCESS_INFORMATION CreateChildProcess(const std::wstring& applicationName, const std::wstring& commandLine,
                                       HANDLE stdinRead, HANDLE stdoutWrite, HANDLE job,
                                       const wchar_t* currentDirectory) {
    const ChildStart child{.applicationName = applicationName,
                           .commandLine = commandLine,
                           .standardHandles = {stdinRead, stdoutWrite},
                           .currentDirectory = currentDirectory};
    auto process = Start(child, job);
    if (!process && job != nullptr) {
        const DWORD error = process.error();
        process = Start(child, nullptr);
        if (process) {
            Exception::LogWarning("A command runs outside its job: {}", Exception::Win32Message(error));
        }
    }
    if (!process) {
        throw Exception::Win32Exception("CreateProcessW() failed", process.error());
    }
    return *process;
}

std::string ReadFromPipe(HANDLE pipe, std::chrono::milliseconds timeout) {
    std::string output;
    output.reserve(chunkSize);
    Event event;
    event.InternalCreate(true, false, {});
    PendingRead read(pipe, event);
    while (!IsInterrupted() && read.Begin()) {
        switch (event.WaitOnEventOr(InterruptEvent(), ToWait(timeout))) {
            case Event::Waited::TimedOut:
                output += read.Cancel();
                throw ReadTimeout(std::move(output));
            case Event::Waited::OtherSignalled:
                output += read.Cancel();
                return output;
            case Event::Waited::Signalled:
                break;
        }
        const std::string_view bytes = read.End();
        if (bytes.empty()) {
            break;
        }
        output += bytes;
        event.Reset();
    }
    return output;
}

CmdRunStatus RunCommand(const std::wstring& command, std::chrono::milliseconds timeout,
                        const std::filesystem::path& folder) {
    if (command.empty()) {
        throw Exception::RuntimeException("Please specify a cmd command.");
    }
    std::optional<ChildFolder> substitute;
    if ((folder.empty() ? FileSystem::FullPath(L".") : folder).native().starts_with(LR"(\\)")) {
        substitute.emplace();
    }
    Pipe output = CreateOutputPipe();
    Pipe input = CreateInputPipe();
    const std::wstring interpreter = fmt::format(L"{}\\System32\\cmd.exe", System::GetWindowsPath().native());
    const Child child(interpreter, CommandLine(interpreter, command), input.read.Get(), output.write.Get(),
                      substitute ? substitute->Path() : folder);
    // The end of the output is reported when no process has the write end open any more.
    output.write.Reset();
    input.read.Reset();

    CmdRunStatus status;
    status.command = command;
    try {
        status.output = ReadFromPipe(output.read.Get(), timeout);
    } catch (ReadTimeout& timedOut) {
        status.output = std::move(timedOut.Output());
        child.Terminate(WAIT_TIMEOUT);
        status.exitCode = WAIT_TIMEOUT;
    }
    if (IsInterrupted()) {
        child.Terminate(STATUS_CONTROL_C_EXIT);
        status.exitCode = STATUS_CONTROL_C_EXIT;
    }
    status.exitCode = child.ExitCode(status.exitCode);
    AwaitInterruption(status.exitCode);
    return status;
}

}  // namespace Shared::Concurrency
