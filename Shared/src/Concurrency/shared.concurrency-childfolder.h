#pragma once

#include <filesystem>

#include "shared.filesystem-removal.h"

namespace Shared::Concurrency {

/// A new private folder for a command, below the Windows directory's Temp folder. Destruction removes it with its
/// contents.
class ChildFolder {
public:
    /// Throws Win32Exception when it cannot be created.
    ChildFolder();

    [[nodiscard]] const std::filesystem::path& Path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
    FileSystem::FileObjectRemover remover_;
};

}  // namespace Shared::Concurrency
