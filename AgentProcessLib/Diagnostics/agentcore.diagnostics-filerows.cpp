#include "agentcore.diagnostics-filerows.h"

#include <fmt/format.h>

#include <exception>

#include "shared.exception-guardedlog.h"
#include "shared.system-functions.h"
#include "shared.system-userprofiles.h"

namespace AgentCore::Diagnostics::FileRows {

namespace {

std::filesystem::path Below(const std::filesystem::path& profile, std::string_view relativePath) {
    return profile / Shared::Util::PathFromUtf8(relativePath);
}

}  // namespace

std::string JoinNames(std::initializer_list<std::string> names) {
    return fmt::format("{}", fmt::join(names, ", "));
}

std::string UserFolderText(const std::filesystem::path& profile, std::string_view relativePath) {
    return Shared::Util::ToUtf8(Below(profile, relativePath));
}

std::string UserFileFolderText(const std::filesystem::path& profile, std::string_view relativePath) {
    return Shared::Util::ToUtf8(Below(profile, relativePath).parent_path());
}

std::vector<std::filesystem::path> Profiles() {
    try {
        return Shared::System::ListUserProfiles(Shared::System::GetUserProfilesDirectory());
    } catch (const std::exception& error) {
        Shared::Exception::LogError("User based collector failed: {}", error.what());
        return {};
    }
}

}  // namespace AgentCore::Diagnostics::FileRows
