#include "shared.exception-stacktrace.h"

#include <windows.h>

#include <dbghelp.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <span>
#include <string_view>
#include <unordered_map>

#include "shared.exception-text.h"

namespace Shared::Exception {

namespace {

struct Frame {
    std::string description;
    std::string file;
    DWORD line = 0;
};

// Functions that run before main: of no use to a reader, and different on every machine.
constexpr std::array<std::string_view, 6> startUp{"invoke_main",       "ucrtbase",       "__scrt_common_main_seh",
                                                  "__tmainCRTStartup", "mainCRTStartup", "WinMainCRTStartup"};

std::wstring FileNameOf(HMODULE module) {
    return TextOfAnyLength([module](wchar_t* buffer, DWORD size) { return GetModuleFileNameW(module, buffer, size); });
}

std::wstring_view WithoutExtension(std::wstring_view path) {
    const std::size_t mark = path.find_last_of(L".\\/");
    return mark != std::wstring_view::npos && path[mark] == L'.' ? path.substr(0, mark) : path;
}

std::string NameOf(std::wstring_view path) {
    return Narrow(WithoutExtension(path.substr(path.find_last_of(L"\\/") + 1)));
}

// DbgHelp, for the executable alone, whose PDB lies beside it. Frames of all other modules read "module+offset": for a
// PDB that is not in the search path DbgHelp also tries the bare name in the current directory, to which unprivileged
// users may be able to write.
class Symbols {
public:
    static Symbols& Instance() {
        static Symbols symbols;
        return symbols;
    }

    // Frames of the executable are cached; its base address does not change while the process runs.
    Frame Resolve(const void* frame) {
        HMODULE module = nullptr;
        if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                               static_cast<const wchar_t*>(frame), &module) == FALSE) {
            return {.description = fmt::format("{}", frame), .file = {}};
        }
        const auto returnAddress = reinterpret_cast<std::uintptr_t>(frame);
        const std::uintptr_t offset = returnAddress - reinterpret_cast<std::uintptr_t>(module);
        if (module != executable_) {
            return {.description = fmt::format("{}+{:#x}", NameOf(FileNameOf(module)), offset), .file = {}};
        }
        const std::lock_guard lock(mutex_);
        const auto [entry, isNew] = known_.try_emplace(returnAddress);
        if (isNew) {
            entry->second = ResolveOwn(returnAddress, offset);
        }
        return entry->second;
    }

private:
    static constexpr std::size_t maxNameLength = 2000;

    Symbols() : executable_(GetModuleHandleW(nullptr)) {
        const std::wstring path = FileNameOf(executable_);
        name_ = NameOf(path);
        const std::wstring folder = path.substr(0, path.find_last_of(L"\\/"));
        // A semicolon would split the folder into several search paths.
        if (folder.contains(L';') ||
            GetFileAttributesW((std::wstring(WithoutExtension(path)) + L".pdb").c_str()) == INVALID_FILE_ATTRIBUTES) {
            return;
        }
        SymSetOptions(SYMOPT_LOAD_LINES | SYMOPT_UNDNAME | SYMOPT_FAIL_CRITICAL_ERRORS | SYMOPT_NO_PROMPTS);
        ready_ = SymInitializeW(session_, folder.c_str(), FALSE) != FALSE &&
                 SymLoadModuleExW(session_, nullptr, path.c_str(), nullptr,
                                  reinterpret_cast<std::uintptr_t>(executable_), 0, nullptr, 0) != 0;
    }

    Frame ResolveOwn(std::uintptr_t returnAddress, std::uintptr_t offset) const {
        Frame frame{.description = fmt::format("{}+{:#x}", name_, offset), .file = {}};
        if (!ready_) {
            return frame;
        }
        // The return address lies behind the call, which may be the next line or even the next function.
        const DWORD64 address = returnAddress - 1;
        alignas(SYMBOL_INFOW) std::array<std::byte, sizeof(SYMBOL_INFOW) + (maxNameLength * sizeof(wchar_t))> buffer{};
        auto* symbol = reinterpret_cast<SYMBOL_INFOW*>(buffer.data());
        symbol->SizeOfStruct = sizeof(SYMBOL_INFOW);
        symbol->MaxNameLen = maxNameLength;
        DWORD64 displacement = 0;
        if (SymFromAddrW(session_, address, &displacement, symbol) != FALSE) {
            frame.description = fmt::format("{}!{}+{:#x}", name_, Narrow(symbol->Name), displacement + 1);
        }
        IMAGEHLP_LINEW64 line{};
        line.SizeOfStruct = sizeof line;
        DWORD column = 0;
        if (SymGetLineFromAddrW64(session_, address, &column, &line) != FALSE && line.FileName != nullptr) {
            frame.file = Narrow(line.FileName);
            frame.line = line.LineNumber;
        }
        return frame;
    }

    // Any unique value will do. For a process handle DbgHelp would look at the process and all of its modules.
    HANDLE session_ = this;
    HMODULE executable_;
    std::string name_;
    bool ready_ = false;
    std::mutex mutex_;
    std::unordered_map<std::uintptr_t, Frame> known_;
};

}  // namespace

StackTrace StackTrace::Capture(unsigned framesToSkip) noexcept {
    const LastErrorKeeper lastError;
    StackTrace trace;
    trace.count_ =
        CaptureStackBackTrace(framesToSkip + 1, static_cast<DWORD>(maxFrames), trace.frames_.data(), nullptr);
    return trace;
}

std::string StackTrace::ToString() const {
    const LastErrorKeeper lastError;
    std::string text = "Stacktrace:\n";
    for (const void* address : std::span(frames_).first(count_)) {
        if (address == nullptr) {
            break;
        }
        const Frame frame = Symbols::Instance().Resolve(address);
        if (std::ranges::any_of(startUp, [&](std::string_view name) { return frame.description.contains(name); })) {
            break;
        }
        fmt::format_to(std::back_inserter(text), "\tFrame: {}\n", frame.description);
        if (!frame.file.empty()) {
            fmt::format_to(std::back_inserter(text), "\tSource file: {}:{}\n", frame.file, frame.line);
        }
        text += "\t------------------------------------\n";
        // The caller of main is start-up code as well, even where its name is not known.
        if (frame.description.contains("!main+")) {
            break;
        }
    }
    return text;
}

}  // namespace Shared::Exception
