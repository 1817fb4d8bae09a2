#pragma once

#include <filesystem>
#include <string_view>

#include "shared.filesystem-privatefile.h"
#include "shared.filesystem-removal.h"
#include "shared.util-handle.h"

namespace Shared::FileSystem {

/// A text file that this program writes, archives and removes again. It is always new and for the administrator alone;
/// what existed under its name is removed before (of a link the link, not its target). When that name cannot be had,
/// another one that no file has takes its place. While the object exists, other processes can neither write, rename nor
/// delete the file. Destruction removes it.
class GeneratedFile {
public:
    /// Throws Win32Exception when no file can be created.
    explicit GeneratedFile(std::filesystem::path name);

    /// With a name that no file has, beginning with `name`: nothing that exists is removed.
    [[nodiscard]] static GeneratedFile Unique(std::filesystem::path name);

    /// Appends text; each "\n" is written as CR LF. Throws Win32Exception when the file cannot be written.
    void WriteText(std::string_view text);

    /// Appends bytes as they are. Throws Win32Exception when the file cannot be written.
    void WriteBytes(std::string_view bytes);

    /// Closes the file and gives it the name of an existing file or link to a file, which is removed. Destruction
    /// leaves it there. Throws Win32Exception when the name cannot be had; what exists there stays.
    void RenameOver(const std::filesystem::path& path);

    /// The name that the file was asked for, under which it is archived.
    [[nodiscard]] const std::filesystem::path& Name() const noexcept { return name_; }
    /// Where the file is.
    [[nodiscard]] const std::filesystem::path& Path() const noexcept { return path_; }

private:
    GeneratedFile(std::filesystem::path name, NamedFile created);

    std::filesystem::path name_;
    std::filesystem::path path_;
    /// Before the handle, which is closed first.
    FileObjectRemover remover_;
    Util::FileHandle file_;
};

}  // namespace Shared::FileSystem
