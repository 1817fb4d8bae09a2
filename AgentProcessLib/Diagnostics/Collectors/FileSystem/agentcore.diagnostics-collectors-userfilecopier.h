#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "agentcore.diagnostics-collectors-copyjob.h"
#include "agentcore.diagnostics-collectors.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// Copies one file or one folder of a user's profile. The user decides what lies there, so nothing is read outside of
/// the profile.
class ProfileCopier {
public:
    /// Copies what lies at the path below the profile. A missing file or folder is no success and no message.
    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept;

    /// Copies one file below the profile.
    [[nodiscard]] CollectorStatus CopyFile(const std::filesystem::path& source,
                                           const std::filesystem::path& archiveFolder,
                                           Shared::FileZip::ZipArchiveWrapper& zip) const;

    /// Copies the files of a folder below the profile, not those of its subfolders. Throws
    /// std::filesystem::filesystem_error when the folder cannot be opened or listed.
    [[nodiscard]] CollectorStatus CopyDirectory(const std::filesystem::path& source,
                                                const std::filesystem::path& archiveFolder,
                                                Shared::FileZip::ZipArchiveWrapper& zip) const;

protected:
    ProfileCopier(std::filesystem::path profile, std::string_view relativePath, std::uint64_t maxSize)
        : profile_(std::move(profile)), relativePath_(relativePath), maxSize_(maxSize) {}

private:
    std::filesystem::path profile_;
    std::string_view relativePath_;
    std::uint64_t maxSize_;
};

/// One file or one folder at a fixed place in a user's profile.
template <Shared::Util::FixedString relativePath, int type, std::uint64_t maxSize = maxFileSize>
class UserFileCopier : public ProfileCopier {
public:
    static constexpr int diagnosticType = type;

    explicit UserFileCopier(std::filesystem::path profile) : ProfileCopier(std::move(profile), relativePath, maxSize) {}

    /// The last component of the relative path.
    [[nodiscard]] static std::string Name() {
        const std::string_view text = relativePath;
        return std::string(text.substr(text.rfind('\\') + 1));
    }
    [[nodiscard]] static std::string_view RelativePath() { return relativePath; }
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
