// Stands in for the access agent's tool on the demo machine, and is the child that the tests run. Its arguments are
// steps, done in order:
//   out TEXT, err TEXT    write the text          bytes N      write N bytes of a fixed pattern
//   noise SEED N          write N random bytes    line N       the same without a line's end
//   sleep MS              wait                    read         read standard input to its end
//   close                 close both outputs      probe N      say whether N is an open handle
//   grandchild MS         start a process that waits, with our handles, and write its id and a blank
//   hold FILE MS          keep the file open for nobody else, say "held", and wait
//   crash                 by an access violation  exit N       end; without it the exit code is 0
// Any other first argument is taken as a question to the tool. TEST_CHILD_EXPORT=folder or =link in the environment
// makes it leave something else than a file where its export should be.

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

namespace {

void Write(DWORD stream, std::string_view text) {
    while (!text.empty()) {
        DWORD written = 0;
        if (WriteFile(GetStdHandle(stream), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) == FALSE) {
            ExitProcess(99);
        }
        text.remove_prefix(written);
    }
}

void WriteBytes(std::size_t count, char lineEnd) {
    std::string chunk(std::size_t{251} * 256, '\0');
    std::ranges::generate(chunk, [index = 0]() mutable { return static_cast<char>(index++ % 251); });
    std::ranges::replace(chunk, '\n', lineEnd);
    for (; count > chunk.size(); count -= chunk.size()) {
        Write(STD_OUTPUT_HANDLE, chunk);
    }
    Write(STD_OUTPUT_HANDLE, std::string_view(chunk).substr(0, count));
}

void WriteNoise(unsigned seed, std::size_t count) {
    std::mt19937 random(seed);
    std::string noise(count, '\0');
    std::ranges::generate(noise, [&] { return static_cast<char>(random()); });
    Write(STD_OUTPUT_HANDLE, noise);
}

void StartGrandchild(const std::string& milliseconds) {
    char self[MAX_PATH]{};
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string line = '"' + std::string(self) + "\" sleep " + milliseconds;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    CreateProcessA(self, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
    Write(STD_OUTPUT_HANDLE, std::to_string(process.dwProcessId) + ' ');
}

void Hold(const std::string& path, const std::string& milliseconds) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    Write(STD_OUTPUT_HANDLE, file != INVALID_HANDLE_VALUE ? "held\r\n" : "failed\r\n");
    Sleep(static_cast<DWORD>(std::stoul(milliseconds)));
}

int Export(const std::string& name) {
    char kind[8]{};
    GetEnvironmentVariableA("TEST_CHILD_EXPORT", kind, sizeof kind);
    if (kind == std::string_view("folder")) {
        return CreateDirectoryA(name.c_str(), nullptr) != FALSE ? 0 : 1;
    }
    if (kind == std::string_view("link")) {
        return CreateHardLinkA(name.c_str(), "secret", nullptr) != FALSE ? 0 : 1;
    }
    HANDLE file = CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    constexpr std::string_view text = "10.20.0.7 files.example.com\r\n10.20.0.9 mail.example.com\r\n";
    DWORD written = 0;
    return WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != FALSE ? 0 : 1;
}

int AnswerAsTool(const std::string& question) {
    constexpr std::string_view exportQuestion = "traffic rdns export ";
    if (question.starts_with(exportQuestion)) {
        return Export(question.substr(exportQuestion.size()));
    }
    constexpr std::pair<std::string_view, std::string_view> answers[] = {
        {"epm status", "Posture: compliant\r\nLast check: 2024-03-01 07:05:09\r\n"},
        {"status", "Service: running\r\nSigned in: yes\r\n"},
        {"traffic log", "07:05:09 10.20.0.7:443 tunnel\r\n"},
        {"traffic show", "Sessions: 1\r\n"},
        {"tunnel", "Tunnel: connected\r\nGateway: gw.example.com\r\n"},
    };
    for (const auto& [asked, answer] : answers) {
        if (question == asked) {
            Write(STD_OUTPUT_HANDLE, answer);
            return 0;
        }
    }
    Write(STD_ERROR_HANDLE, "Unknown command.\r\n");
    return 2;
}

}  // namespace

int main(int count, char** arguments) {
    // A crash ends the program with the exception's code and waits for no debugger.
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_EXECUTE_HANDLER; });
    for (int index = 1; index < count; ++index) {
        const std::string_view step = arguments[index];
        const auto next = [&]() -> std::string { return index + 1 < count ? arguments[++index] : ""; };
        if (step == "out" || step == "err") {
            Write(step == "out" ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE, next());
        } else if (step == "bytes" || step == "line") {
            WriteBytes(std::stoull(next()), step == "bytes" ? '\n' : '\0');
        } else if (step == "noise") {
            const std::string seed = next();
            WriteNoise(static_cast<unsigned>(std::stoul(seed)), std::stoull(next()));
        } else if (step == "sleep") {
            Sleep(static_cast<DWORD>(std::stoul(next())));
        } else if (step == "read") {
            char byte = 0;
            for (DWORD got = 1;
                 got != 0 && ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &got, nullptr) != FALSE;) {
            }
        } else if (step == "close") {
            CloseHandle(GetStdHandle(STD_OUTPUT_HANDLE));
            CloseHandle(GetStdHandle(STD_ERROR_HANDLE));
        } else if (step == "probe") {
            DWORD flags = 0;
            // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle is a number that others tell
            auto* const handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::stoull(next())));
            Write(STD_OUTPUT_HANDLE, GetHandleInformation(handle, &flags) != FALSE ? "open" : "closed");
        } else if (step == "grandchild") {
            StartGrandchild(next());
        } else if (step == "hold") {
            const std::string path = next();
            Hold(path, next());
        } else if (step == "crash") {
            RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
        } else if (step == "exit") {
            return std::stoi(next());
        } else {
            std::string question(step);
            while (++index < count) {
                question += std::string(" ") + arguments[index];
            }
            return AnswerAsTool(question);
        }
    }
    return 0;
}
