#pragma once

#include <filesystem>
#include <string_view>

#include "shared.filesystem-removal.h"

namespace Shared::Concurrency {

/// The current directory of children: this process's own or, where the interpreter cannot work in that one, a new
/// private folder below the Windows directory's Temp folder, removed with its contents on destruction. The interpreter
/// takes no directory that begins with two backslashes (network and `\\?\` folders).
class ChildFolder {
public:
    /// Throws Win32Exception when a folder is needed and cannot be created.
    ChildFolder();
    /// For a process whose current directory is that one.
    explicit ChildFolder(std::wstring_view currentDirectory);

    /// Empty when it is the current directory of this process.
    [[nodiscard]] const std::filesystem::path& Path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
    FileSystem::FileObjectRemover remover_;
};

}  // namespace Shared::Concurrency
