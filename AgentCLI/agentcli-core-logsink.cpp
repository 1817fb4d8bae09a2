#include "agentcli-core-logsink.h"

#include <windows.h>

#include <aclapi.h>
#include <fmt/format.h>
#include <sddl.h>
#include <spdlog/details/os.h>

#include <algorithm>
#include <string>
#include <utility>

#include "shared.exception-messages.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.filesystem-privatefile.h"
#include "shared.filesystem-removal.h"
#include "shared.filesystem-status.h"
#include "shared.util-functions.h"
#include "shared.util-win32result.h"

namespace AgentCLI::Core {

namespace {

using namespace Shared::FileSystem;
using Shared::Util::FileHandle;
using Shared::Util::LocalMemory;
using Shared::Util::Win32Result;

constexpr std::chrono::seconds openInterval{2};

/// Owner and access list as text; empty when they cannot be read.
std::wstring AccessOf(const FileHandle& file) {
    constexpr SECURITY_INFORMATION wanted = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(file.Get(), SE_FILE_OBJECT, wanted, nullptr, nullptr, nullptr, nullptr, &descriptor) !=
        ERROR_SUCCESS) {
        return {};
    }
    const LocalMemory descriptorMemory(descriptor);
    LPWSTR text = nullptr;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, wanted, &text, nullptr) ==
        FALSE) {
        return {};
    }
    const LocalMemory textMemory(text);
    return text;
}

/// Whether a file has the owner and the access list of one that is created now.
bool IsPrivate(const FileHandle& file, const std::filesystem::path& path) {
    auto created = CreateUniqueFile(path, FILE_GENERIC_READ, FILE_SHARE_READ);
    if (!created) {
        return false;
    }
    const FileObjectRemover remover(created->path);
    const FileHandle fresh = std::move(created->handle);
    const std::wstring access = AccessOf(file);
    return !access.empty() && access == AccessOf(fresh);
}

Win32Result<FileHandle> CreateWith(const std::filesystem::path& path, const std::string& text) {
    auto file = RetryWhileHeld([&path] { return CreatePrivateFile(path, GENERIC_WRITE, shareContent); });
    DWORD written = 0;
    if (file && WriteFile(file->Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) == FALSE) {
        return Shared::Util::LastError();
    }
    return file;
}

/// Makes sure that the file is this program's own, or too large to be written to before it is rotated.
Win32Result<FileHandle> Prepare(const std::filesystem::path& path, std::size_t maxSize) {
    std::string text;
    auto file =
        RetryWhileHeld([name = NativeForm(path)] { return OpenUntrusted(name, FILE_GENERIC_READ, shareContent); });
    if (!file) {
        return IsNotFound(file.error()) ? CreateWith(path, text) : std::move(file);
    }
    if (CheckPlainFile(file->Get())) {
        if (SizeOf(file->Get()) > maxSize || IsPrivate(*file, path)) {
            return file;
        }
        text.resize(maxSize);
        DWORD read = 0;
        if (ReadFile(file->Get(), text.data(), static_cast<DWORD>(text.size()), &read, nullptr) == FALSE) {
            read = 0;
        }
        text.resize(read);
    }
    file->Reset();
    if (const auto removed = RemoveName(path); !removed) {
        return std::unexpected(removed.error());
    }
    return CreateWith(path, text);
}

}  // namespace

LogSink::LogSink(spdlog::filename_t name, std::size_t maxSize, spdlog::level::level_enum headingLevel,
                 std::string heading)
    : name_(std::move(name)),
      maxSize_(maxSize),
      headingText_(std::move(heading)),
      heading_("default", headingLevel, headingText_) {
    Open();
    if (!hasHeading_) {
        sink_it_(heading_);
    }
}

/// Begins an empty file.
void LogSink::WriteHeading(std::FILE* file) {
    if (spdlog::details::os::filesize(file) == 0) {
        spdlog::memory_buf_t line;
        heading_.time = spdlog::log_clock::now();
        formatter_->format(heading_, line);
        hasHeading_ = std::fwrite(line.data(), 1, line.size(), file) == line.size();
    }
}

void LogSink::Open() {
    spdlog::file_event_handlers events;
    events.before_open = [this](const spdlog::filename_t& name) {
        auto file = Prepare(name, maxSize_);
        if (!file) {
            throw spdlog::spdlog_ex(fmt::format("Failed opening file {} for writing: {}",
                                                Shared::Util::ToUtf8Lossy(std::filesystem::path(name)),
                                                Shared::Exception::Win32Message(file.error())));
        }
        checked_ = *std::move(file);
    };
    events.after_open = [this](const auto&, std::FILE* file) {
        checked_.Reset();
        WriteHeading(file);
    };
    // The library does not count what is written in its events.
    constexpr std::size_t lineStart = 64;
    const std::size_t uncounted = std::min(maxSize_ / 2, headingText_.size() + lineStart);
    file_ = std::make_unique<spdlog::sinks::rotating_file_sink_st>(name_, maxSize_ - uncounted, 1, false, events);
    file_->set_formatter(formatter_->clone());
}

template <class Write>
bool LogSink::Try(const Write& write) {
    try {
        write();
        return true;
    } catch (const std::exception&) {
        // After a failed rotation the library may have no file to write to.
        file_.reset();
        checked_.Reset();
        return false;
    }
}

bool LogSink::IsOpen() {
    if (!file_ && std::chrono::steady_clock::now() >= openAgain_ && !Try([this] { Open(); })) {
        openAgain_ = std::chrono::steady_clock::now() + openInterval;
    }
    return file_ != nullptr;
}

void LogSink::sink_it_(const spdlog::details::log_msg& message) {
    const auto write = [&] { file_->log(message); };
    if (IsOpen() && !Try(write) && IsOpen() && !Try(write)) {
        openAgain_ = std::chrono::steady_clock::now() + openInterval;
    }
}

void LogSink::flush_() {
    if (file_) {
        static_cast<void>(Try([this] { file_->flush(); }));
    }
}

}  // namespace AgentCLI::Core
