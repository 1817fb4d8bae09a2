#include "test-support.h"

#include <spdlog/sinks/ostream_sink.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "shared.exception-stacktrace.h"
#include "shared.filesystem-removal.h"

namespace TestSupport {

namespace {

void Check(LSTATUS status, const char* what) {
    if (status != ERROR_SUCCESS) {
        throw std::system_error(static_cast<int>(status), std::system_category(), what);
    }
}

std::wstring UniqueName() {
    static std::atomic<unsigned> count{0};
    return L"agentcli-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(count++);
}

}  // namespace

TemporaryFolder::TemporaryFolder() : path_(std::filesystem::temp_directory_path() / UniqueName()) {
    Shared::FileSystem::FileObjectRemover(path_).Clear();
    std::filesystem::create_directories(path_);
}

// The standard library would follow links, and never ends on names that only a `\\?\` path reaches.
TemporaryFolder::~TemporaryFolder() {
    Shared::FileSystem::FileObjectRemover(path_).Clear();
}

WorkingFolder::WorkingFolder() : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(Path());
}

WorkingFolder::~WorkingFolder() {
    std::error_code ignored;
    std::filesystem::current_path(before_, ignored);
}

std::string Raw(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

ThrowAwayHive::ThrowAwayHive() : name_(L"Software\\" + UniqueName()) {
    Check(RegCreateKeyW(HKEY_CURRENT_USER, name_.c_str(), &hive_), "RegCreateKeyW");
    Check(RegOverridePredefKey(HKEY_LOCAL_MACHINE, hive_), "RegOverridePredefKey");
}

ThrowAwayHive::~ThrowAwayHive() {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegCloseKey(hive_);
    RegDeleteTreeW(HKEY_CURRENT_USER, name_.c_str());
}

void ThrowAwayHive::SetRaw(const std::wstring& key, const std::wstring& name, DWORD type,
                           std::string_view bytes) const {
    Check(RegSetKeyValueW(hive_, key.c_str(), name.c_str(), type, bytes.data(), static_cast<DWORD>(bytes.size())),
          "RegSetKeyValueW");
}

void ThrowAwayHive::SetString(const std::wstring& key, const std::wstring& name, const std::wstring& text) const {
    SetRaw(key, name, REG_SZ, Raw({text.c_str(), text.size() + 1}));
}

void ThrowAwayHive::SetDword(const std::wstring& key, const std::wstring& name, std::uint32_t number) const {
    SetRaw(key, name, REG_DWORD, {reinterpret_cast<const char*>(&number), sizeof number});
}

void ThrowAwayHive::CreateKey(const std::wstring& key) const {
    HKEY handle = nullptr;
    Check(RegCreateKeyW(hive_, key.c_str(), &handle), "RegCreateKeyW");
    RegCloseKey(handle);
}

CapturedLog::CapturedLog() : before_(spdlog::default_logger()) {
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(text_, true);
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("captured", std::move(sink)));
}

CapturedLog::~CapturedLog() {
    spdlog::set_default_logger(before_);
}

void WriteFile(const std::filesystem::path& path, std::string_view bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream stream(path, std::ios::binary);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!stream.flush()) {
        throw std::runtime_error("cannot write a test's file");
    }
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw std::runtime_error("cannot read a test's file");
    }
    return {std::istreambuf_iterator<char>(stream), {}};
}

Shared::Util::FileHandle Hold(const std::filesystem::path& path) {
    return Shared::Util::FileHandle(
        CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

std::filesystem::path ChildProgram() {
    wchar_t self[MAX_PATH]{};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    for (std::filesystem::path folder(self); folder != folder.root_path(); folder = folder.parent_path()) {
        if (auto program = folder.parent_path() / "support" / "child" / "test-child.exe";
            std::filesystem::exists(program)) {
            return program;
        }
    }
    throw std::runtime_error("test-child.exe is not built");
}

unsigned HandleCount() {
    // What the first stack trace loads stays open for good.
    static const std::string warm = Shared::Exception::StackTrace::Capture().ToString();
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) != FALSE && count != 0) {
        return count;
    }
    // Wine's count is always 0: try the values that handles take.
    for (std::uintptr_t value = 4; value < 0x8000; value += 4) {
        DWORD flags = 0;
        count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) != FALSE ? 1 : 0;
    }
    return count;
}

}  // namespace TestSupport
