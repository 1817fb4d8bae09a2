#include "agentcli-core-console.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "shared.exception-text.h"

namespace AgentCLI::Core {

ConsoleTitle::ConsoleTitle() {
    DWORD mode = 0;
    if (GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE) {
        // The call does not say how large a buffer a longer title needs.
        std::wstring title(1U << 15U, L'\0');
        const DWORD length = GetConsoleTitleW(title.data(), static_cast<DWORD>(title.size()));
        title.resize(std::min<std::size_t>(length, title.size()));
        before_ = std::move(title);
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
