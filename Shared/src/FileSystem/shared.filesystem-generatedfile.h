#pragma once

#include <filesystem>
#include <string_view>

#include "shared.util-handle.h"

namespace Shared::FileSystem {

/// A text file that this program writes, archives and removes again. The file is always a new one: whatever held the
/// name before is removed first (a link is removed, never its target), and no link is followed while it is created.
/// Until the object goes, nobody else can write, rename or delete the file; everybody may read it. Destruction
/// removes it in every case.
class GeneratedFile {
public:
    /// Throws Win32Exception when the name cannot be freed or the file cannot be created.
    explicit GeneratedFile(std::filesystem::path path);
    GeneratedFile(const GeneratedFile&) = delete;
    GeneratedFile& operator=(const GeneratedFile&) = delete;
    ~GeneratedFile();

    /// Appends text; each "\n" is written as CR LF. Throws Win32Exception when the file cannot be written.
    void WriteText(std::string_view text);

    /// Appends bytes as they are. Throws Win32Exception when the file cannot be written.
    void WriteBytes(std::string_view bytes);

    [[nodiscard]] const std::filesystem::path& Path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
    Util::FileHandle file_;
};

}  // namespace Shared::FileSystem
