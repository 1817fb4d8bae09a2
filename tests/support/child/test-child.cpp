// The child process of the C++ tests. Its arguments are steps, done in order:
//   out TEXT, err TEXT    write the text          bytes N      write N bytes of a fixed pattern
//   sleep MS              wait                    read         read standard input to its end
//   close                 close both outputs      probe N      say whether N is an open handle
//   crash                 by an access violation  exit N       end; without it the exit code is 0
//   traffic rdns export F write a file F, as the access agent's tool does; with TEST_CHILD_EXPORT in the environment
//                         make a folder ("folder"), or a hard link to the file that it names
// An unknown step ends the process with exit code 2.

#include <windows.h>

#include <algorithm>
#include <cstdint>
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

void WriteBytes(std::size_t count) {
    std::string bytes(count, '\0');
    std::ranges::generate(bytes, [index = 0]() mutable { return static_cast<char>(index++ % 251); });
    Write(STD_OUTPUT_HANDLE, bytes);
}

int Export(const std::string& name) {
    char kind[MAX_PATH]{};
    if (GetEnvironmentVariableA("TEST_CHILD_EXPORT", kind, sizeof kind) != 0) {
        const bool made = kind == std::string_view("folder") ? CreateDirectoryA(name.c_str(), nullptr) != FALSE
                                                             : CreateHardLinkA(name.c_str(), kind, nullptr) != FALSE;
        return made ? 0 : 1;
    }
    HANDLE file = CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    return WriteFile(file, "export", 6, &written, nullptr) != FALSE ? 0 : 1;
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
        } else if (step == "bytes") {
            WriteBytes(std::stoull(next()));
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
            auto* const handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::stoull(next())));
            Write(STD_OUTPUT_HANDLE, GetHandleInformation(handle, &flags) != FALSE ? "open" : "closed");
        } else if (step == "crash") {
            RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
        } else if (step == "exit") {
            return std::stoi(next());
        } else if (step == "traffic" && next() == "rdns" && next() == "export") {
            return Export(next());
        } else {
            return 2;
        }
    }
    return 0;
}
