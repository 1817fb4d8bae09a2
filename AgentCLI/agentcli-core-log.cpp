#include "agentcli-core-log.h"

#include <windows.h>

#include <fmt/format.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <mutex>
#include <string>
#include <utility>

#include "agentcli-core-runfacts.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace AgentCLI::Core {

namespace {

using namespace Shared::FileSystem;
using Shared::Util::FileHandle;

constexpr const wchar_t* logName = L"agent-cli.log";
constexpr std::size_t maxLogSize = 10240;
constexpr std::chrono::seconds flushInterval{5};
constexpr std::chrono::seconds openInterval{2};

[[noreturn]] void ThrowCannotOpen(DWORD code) {
    throw Shared::Exception::Win32Exception("Cannot open the file agent-cli.log", code);
}

// Opens what exists under the name so that other processes can neither rename nor delete it.
OpenedFile Hold() {
    auto file =
        RetryWhileHeld([name = NativeForm(logName)] { return OpenUntrusted(name, FILE_GENERIC_READ, shareContent); });
    if (!file && IsNotFound(file.error())) {
        return {.path = {}, .handle = {}, .facts = {.kind = FileKind::NotFound}};
    }
    const auto facts = file ? FactsOf(file->Get()) : std::unexpected(file.error());
    if (!facts) {
        ThrowCannotOpen(facts.error());
    }
    return {.path = logName, .handle = *std::move(file), .facts = *facts};
}

// A file of one name, whose content is on this machine.
bool IsPlain(const FileFacts& facts) {
    return facts.kind == FileKind::Regular && !facts.isLink && !facts.isStoredElsewhere && facts.links <= 1;
}

std::string LastLines(const OpenedFile& file) {
    const std::uint64_t size = file.facts.size;
    std::string text(static_cast<std::size_t>(std::min<std::uint64_t>(size, maxLogSize)), '\0');
    LARGE_INTEGER start{};
    start.QuadPart = static_cast<LONGLONG>(size - text.size());
    DWORD read = 0;
    if (SetFilePointerEx(file.handle.Get(), start, nullptr, FILE_BEGIN) == FALSE ||
        ReadFile(file.handle.Get(), text.data(), static_cast<DWORD>(text.size()), &read, nullptr) == FALSE) {
        ThrowCannotOpen(GetLastError());
    }
    text.resize(read);
    if (size > maxLogSize) {
        text.erase(0, std::min(text.find('\n'), text.size() - 1) + 1);
    }
    return text;
}

// Replaces the file by a private one that holds its last lines, and holds that.
FileHandle Replace() {
    OpenedFile file = Hold();
    const std::string text = IsPlain(file.facts) ? LastLines(file) : std::string();
    file.handle.Reset();
    // A rename does not replace a link to a folder.
    if (const auto removed = file.facts.isLink ? RemoveName(logName) : Shared::Util::Win32Result<void>(); !removed) {
        ThrowCannotOpen(removed.error());
    }
    GeneratedFile replacement = GeneratedFile::Unique(logName);
    replacement.WriteBytes(text);
    replacement.RenameOver(logName);
    file = Hold();
    // It was closed for a moment, in which another process could put a link in its place.
    if (!IsPlain(file.facts)) {
        ThrowCannotOpen(ERROR_CANT_RESOLVE_FILENAME);
    }
    return std::move(file.handle);
}

class LogSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    LogSink() { Open(); }

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        const std::scoped_lock lock(fileMutex_);
        // A message that is logged while the file is replaced arrives here on the same thread; it has no file yet.
        if (std::exchange(isWriting_, true)) {
            return;
        }
        const auto write = [&] { file_->log(message); };
        // A rotation that fails empties the file, and the second attempt finds room there.
        if (IsOpen() && !Try(write) && IsOpen() && !Try(write)) {
            openAgain_ = std::chrono::steady_clock::now() + openInterval;
        }
        isWriting_ = false;
    }

    void flush_() override {
        const std::scoped_lock lock(fileMutex_);
        if (file_) {
            static_cast<void>(Try([this] { file_->flush(); }));
        }
    }

private:
    void Open() {
        spdlog::file_event_handlers events;
        events.before_open = [this](const auto&) {
            try {
                held_ = Replace();
            } catch (const Shared::Exception::Win32Exception& error) {
                throw spdlog::spdlog_ex(fmt::format("Failed opening file agent-cli.log for writing: {}",
                                                    Shared::Exception::Win32Message(error.Code())));
            }
        };
        events.after_open = [this](const auto&, std::FILE*) { held_.Reset(); };
        file_ = std::make_unique<spdlog::sinks::rotating_file_sink_st>(SPDLOG_FILENAME_T("agent-cli.log"), maxLogSize,
                                                                       1, false, events);
    }

    [[nodiscard]] bool IsOpen() {
        if (!file_ && std::chrono::steady_clock::now() >= openAgain_ && !Try([this] { Open(); })) {
            openAgain_ = std::chrono::steady_clock::now() + openInterval;
        }
        return file_ != nullptr;
    }

    template <class Action>
    [[nodiscard]] bool Try(const Action& action) {
        try {
            action();
            return true;
        } catch (const std::exception&) {
            // After a failed rotation the library has no file to write to.
            file_.reset();
            held_.Reset();
            return false;
        }
    }

    std::recursive_mutex fileMutex_;
    bool isWriting_ = false;
    // Keeps the replaced file under its name until the library has opened it.
    FileHandle held_;
    // Null while the file cannot be opened.
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> file_;
    std::chrono::steady_clock::time_point openAgain_;
};

}  // namespace

void SetUpLog() {
    // Until the log is open, spdlog's own logger prints to standard output: at this level only main's error.
    spdlog::set_level(spdlog::level::err);
    ProcessLogger() = std::make_shared<spdlog::logger>("default", std::make_shared<LogSink>());
    spdlog::set_default_logger(ProcessLogger());
    spdlog::set_level(spdlog::level::info);
    spdlog::flush_every(flushInterval);
    ProcessLogger()->log(RunFacts().elevated() ? spdlog::level::info : spdlog::level::warn, DescribeRun());
}

std::shared_ptr<spdlog::logger>& ProcessLogger() noexcept {
    static std::shared_ptr<spdlog::logger> logger;
    return logger;
}

}  // namespace AgentCLI::Core
