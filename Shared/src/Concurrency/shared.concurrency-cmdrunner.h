#pragma once

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

#include "shared.exception.h"

namespace Shared::Concurrency {

/// The result of one command.
struct CmdRunStatus {
    /// The interpreter's exit code as it was when its output had ended: 259 (STILL_ACTIVE) for one that closed its
    /// output and lives on, 258 (WAIT_TIMEOUT) for one that was terminated because it stopped writing, 3221225786
    /// (STATUS_CONTROL_C_EXIT) for one that was terminated because the run was interrupted.
    std::uint32_t exitCode = 0;
    /// The command as it was given, without the interpreter.
    std::wstring command;
    /// The bytes of standard output and standard error as they came; those before a timeout or an interruption
    /// included.
    std::string output;
};

/// "CMD IO operation timed out.", with what had been read until then.
class ReadTimeout : public Exception::TimeoutException {
public:
    explicit ReadTimeout(std::string output, const std::source_location& location = std::source_location::current(),
                         const Exception::StackTrace& trace = Exception::StackTrace::Capture());
    [[nodiscard]] std::string& Output() noexcept { return output_; }

private:
    std::string output_;
};

/// Starts a process whose standard input is `stdinRead` and whose standard output and error are `stdoutWrite`, in this
/// process's environment and in `currentDirectory`, or this process's own for null; it inherits these two handles and
/// no other. Without an application name the command line begins with the program. The caller closes both handles of
/// the result.
///
/// With a job the process belongs to it from its first instruction on, so that nothing that it starts can escape. When
/// it cannot be created in the job it runs outside, with a warning in the log.
///
/// Throws Win32Exception "CreateProcessW() failed".
[[nodiscard]] PROCESS_INFORMATION CreateChildProcess(const std::wstring& applicationName,
                                                     const std::wstring& commandLine, HANDLE stdinRead,
                                                     HANDLE stdoutWrite, HANDLE job = nullptr,
                                                     const wchar_t* currentDirectory = nullptr);

/// Reads an overlapped pipe to its end: until no process has its write end open, or one writes zero bytes. The timeout
/// bounds the wait for each chunk, not the whole: a writer that never pauses that long is read without end. When the
/// run is interrupted, returns what has been read. Throws ReadTimeout and what Event throws. No read is under way any
/// more when it returns or throws.
[[nodiscard]] std::string ReadFromPipe(HANDLE pipe, std::chrono::milliseconds timeout);

/// As Execute(), without a parser.
[[nodiscard]] CmdRunStatus RunCommand(const std::wstring& command, std::chrono::milliseconds timeout,
                                      const std::filesystem::path& folder);

/// The output as it is.
[[nodiscard]] inline std::string EmptyParser(std::string output) {
    return output;
}

/// Runs a command through the system's command interpreter ("{} /c {}", the command unchanged, but between one more
/// pair of quotation marks where the interpreter would take its own away) and passes what it writes through the parser.
/// The interpreter is the one in the Windows directory and nothing else. Its standard input is a pipe that stays open
/// and empty: a command that asks for input runs into the timeout. Its current directory is `folder`, this process's
/// own for an empty one, and a ChildFolder in place of one that begins with two backslashes (network and `\\?\`
/// folders), which the interpreter does not take.
///
/// A command that writes nothing for the length of the timeout, or during which the run is interrupted, is terminated
/// together with everything that it has started. What is still alive when a run ends otherwise is terminated as well:
/// nothing outlives the call.
///
/// Throws RuntimeException "Please specify a cmd command.", Win32Exception "CreatePipe() failed" and
/// "CreateProcessW() failed" (ERROR_FILE_NOT_FOUND without an interpreter), and what GetWindowsPath(), FullPath(),
/// ChildFolder and, apart from the timeout, ReadFromPipe() throw.
template <std::string (*Parser)(std::string)>
[[nodiscard]] CmdRunStatus Execute(const std::wstring& command, std::chrono::milliseconds timeout,
                                   const std::filesystem::path& folder = {}) {
    CmdRunStatus status = RunCommand(command, timeout, folder);
    status.output = Parser(std::move(status.output));
    return status;
}

}  // namespace Shared::Concurrency
