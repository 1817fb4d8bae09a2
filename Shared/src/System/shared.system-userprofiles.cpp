#include "shared.system-userprofiles.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "shared.filesystem-scan.h"

namespace Shared::System {

std::vector<std::filesystem::path> ListUserProfiles(const std::filesystem::path& profilesDirectory) {
    static constexpr std::array<std::wstring_view, 4> nobodys{L"Public", L"Default", L"All Users", L"Default User"};
    std::vector<std::filesystem::path> profiles;
    FileSystem::DirectoryListing listing(profilesDirectory);
    while (const auto* entry = listing.Next()) {
        if (entry->IsDirectory() && std::ranges::find(nobodys, entry->Name()) == nobodys.end()) {
            profiles.push_back(entry->path);
        }
    }
    return profiles;
}

}  // namespace Shared::System
