#include "agentcli-core-console.h"

#include <windows.h>

#include "shared.exception-text.h"

namespace AgentCLI::Core {

ConsoleTitle::ConsoleTitle() {
    DWORD mode = 0;
    if (GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE) {
        before_ = Shared::Exception::TextOfAnyLength(
            [](wchar_t* buffer, DWORD size) { return GetConsoleTitleW(buffer, size); });
    }
}

ConsoleTitle::~ConsoleTitle() {
    if (before_) {
        SetConsoleTitleW(before_->c_str());
    }
}

void ConsoleTitle::Show(std::string_view text) const {
    if (before_) {
        SetConsoleTitleW(Shared::Exception::Widen(text).c_str());
    }
}

}  // namespace AgentCLI::Core
