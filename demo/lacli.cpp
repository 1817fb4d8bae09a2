// Stands in for the access agent's tool on the demo machine: answers the questions that are asked of the tool, and
// writes its export. With LACLI_PAUSE_<question> set to a number of milliseconds, blanks of the question as underscores
// (LACLI_PAUSE_traffic_log=4000), an answer pauses after its first line and an export before it is written. Ctrl+C does
// not end it.
//
// "hold FILE" opens the file without sharing, prints "held", and keeps it open until the process is ended.

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace {

bool Write(HANDLE file, std::string_view text) {
    DWORD written = 0;
    return WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != FALSE;
}

void Hold(const std::string& path) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    Write(GetStdHandle(STD_OUTPUT_HANDLE), file != INVALID_HANDLE_VALUE ? "held\r\n" : "failed\r\n");
    Sleep(INFINITE);
}

DWORD PauseOf(std::string question) {
    std::ranges::replace(question, ' ', '_');
    char milliseconds[16]{};
    GetEnvironmentVariableA(("LACLI_PAUSE_" + question).c_str(), milliseconds, sizeof milliseconds);
    return static_cast<DWORD>(std::strtoul(milliseconds, nullptr, 10));
}

bool Export(const std::string& name) {
    Sleep(PauseOf("traffic rdns export"));
    HANDLE file = CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    return Write(file, "10.20.0.7 files.example.com\r\n10.20.0.9 mail.example.com\r\n");
}

int Answer(const std::string& question) {
    constexpr std::pair<std::string_view, std::string_view> answers[] = {
        {"epm status", "Posture: compliant\r\nLast check: 2024-03-01 07:05:09\r\n"},
        {"status", "Service: running\r\nSigned in: yes\r\n"},
        {"traffic log", "07:05:09 10.20.0.7:443 tunnel\r\n07:05:10 10.20.0.9:443 tunnel\r\n"},
        {"traffic show", "Sessions: 1\r\nOldest: 07:05:09\r\n"},
        {"tunnel", "Tunnel: connected\r\nGateway: gw.example.com\r\n"},
    };
    for (const auto& [asked, answer] : answers) {
        if (question == asked) {
            const std::size_t firstLine = answer.find('\n') + 1;
            HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
            Write(output, answer.substr(0, firstLine));
            Sleep(PauseOf(question));
            Write(output, answer.substr(firstLine));
            return 0;
        }
    }
    Write(GetStdHandle(STD_ERROR_HANDLE), "Unknown command.\r\n");
    return 2;
}

}  // namespace

int main(int count, char** arguments) {
    SetConsoleCtrlHandler(nullptr, TRUE);
    std::string question;
    for (int index = 1; index < count; ++index) {
        question += (index > 1 ? " " : "") + std::string(arguments[index]);
    }
    constexpr std::string_view exportQuestion = "traffic rdns export ";
    constexpr std::string_view holdRequest = "hold ";
    if (question.starts_with(exportQuestion)) {
        return Export(question.substr(exportQuestion.size())) ? 0 : 1;
    }
    if (question.starts_with(holdRequest)) {
        Hold(question.substr(holdRequest.size()));
    }
    return Answer(question);
}
