#include "shared.system-userprofiles.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "shared.filesystem-scan.h"

namespace Shared::System {

void ForEachUserProfile(const std::filesystem::path& profilesDirectory,
                        const std::function<void(const std::filesystem::path&)>& visit) {
    static constexpr std::array<std::wstring_view, 4> excludedNames{L"Public", L"Default", L"All Users",
                                                                    L"Default User"};
    FileSystem::DirectoryListing listing(profilesDirectory);
    while (const auto* entry = listing.Next()) {
        if (entry->IsDirectory() && std::ranges::find(excludedNames, entry->Name()) == excludedNames.end()) {
            visit(entry->path);
        }
    }
}

}  // namespace Shared::System
