#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "agentcore.diagnostics-collectors-filechecks.h"
#include "agentcore.diagnostics-collectors.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// Copies files of one user's profile. The user decides what lies there, so nothing is read outside of the profile:
/// what a link or a hard link leads to is refused as not being a regular file. Every file is held while it is checked
/// and archived.
class ProfileCopier {
public:
    ProfileCopier(std::filesystem::path profile, std::uint64_t maxSize)
        : profile_(std::move(profile)), maxSize_(maxSize) {}

    /// Copies the file or folder at the path below the profile. A missing one is no success and no message.
    [[nodiscard]] CollectorStatus Collect(std::string_view relativePath, const Destination& destination) const noexcept;

    /// Copies one file below the profile.
    [[nodiscard]] CollectorStatus CopyFile(const std::filesystem::path& source, const Destination& destination) const;

    /// Copies the files of a folder below the profile, not those of its subfolders. Throws
    /// std::filesystem::filesystem_error when the folder cannot be opened or listed.
    [[nodiscard]] CollectorStatus CopyDirectory(const std::filesystem::path& source,
                                                const Destination& destination) const;

private:
    std::filesystem::path profile_;
    std::uint64_t maxSize_;
};

/// One file or one folder at a fixed place in a user's profile.
template <Shared::Util::FixedString relativePath, int type, std::uint64_t maxSize = maxFileSize>
class UserFileCopier {
public:
    static constexpr int diagnosticType = type;

    explicit UserFileCopier(std::filesystem::path profile) : copier_(std::move(profile), maxSize) {}

    /// The last component of the relative path.
    [[nodiscard]] static std::string Name() {
        const std::string_view text = relativePath;
        return std::string(text.substr(text.rfind('\\') + 1));
    }
    [[nodiscard]] static std::string_view RelativePath() { return relativePath; }

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return copier_.Collect(relativePath, {archiveFolder, zip});
    }
    [[nodiscard]] CollectorStatus CopyFile(const std::filesystem::path& source,
                                           const std::filesystem::path& archiveFolder,
                                           Shared::FileZip::ZipArchiveWrapper& zip) const {
        return copier_.CopyFile(source, {archiveFolder, zip});
    }
    [[nodiscard]] CollectorStatus CopyDirectory(const std::filesystem::path& source,
                                                const std::filesystem::path& archiveFolder,
                                                Shared::FileZip::ZipArchiveWrapper& zip) const {
        return copier_.CopyDirectory(source, {archiveFolder, zip});
    }

private:
    ProfileCopier copier_;
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
