#pragma once

#include <windows.h>

#include <spdlog/spdlog.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "shared.util-handle.h"

namespace TestSupport {

/// A new empty folder below the system's temporary folder, removed with its contents at the end. Unique per process
/// and object, so that test processes can run side by side.
class TemporaryFolder {
public:
    TemporaryFolder();
    TemporaryFolder(TemporaryFolder&&) = delete;
    ~TemporaryFolder();
    [[nodiscard]] const std::filesystem::path& Path() const { return path_; }
    [[nodiscard]] std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// A temporary folder that is also the process's current directory while the object lives.
class WorkingFolder : public TemporaryFolder {
public:
    WorkingFolder();
    ~WorkingFolder();

private:
    std::filesystem::path before_;
};

/// The text's bytes, as the registry stores them.
[[nodiscard]] std::string Raw(std::wstring_view text);

/// Gives HKEY_LOCAL_MACHINE an empty throw-away hive while the object lives.
class ThrowAwayHive {
public:
    ThrowAwayHive();
    ThrowAwayHive(ThrowAwayHive&&) = delete;
    ~ThrowAwayHive();

    /// Creates the key below HKEY_LOCAL_MACHINE when needed and sets a value (an empty name is the default value).
    void SetRaw(const std::wstring& key, const std::wstring& name, DWORD type, std::string_view bytes) const;
    void SetString(const std::wstring& key, const std::wstring& name, const std::wstring& text) const;
    void SetDword(const std::wstring& key, const std::wstring& name, std::uint32_t number) const;
    void CreateKey(const std::wstring& key) const;

private:
    HKEY hive_ = nullptr;
    std::wstring name_;
};

/// The default logger writing into memory while the object lives.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    [[nodiscard]] std::string Text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::shared_ptr<spdlog::logger> before_;
};

void WriteFile(const std::filesystem::path& path, std::string_view bytes);
/// Keeps an existing file or folder open without sharing.
[[nodiscard]] Shared::Util::FileHandle Hold(const std::filesystem::path& path);
[[nodiscard]] std::string ReadFile(const std::filesystem::path& path);

/// The program whose arguments say what it does (tests/support/child/test-child.cpp).
[[nodiscard]] std::filesystem::path ChildProgram();

/// The number of open handles of this process.
[[nodiscard]] unsigned HandleCount();

}  // namespace TestSupport
