#include "shared.system-userprofiles.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "shared.filesystem-sourcefolder.h"

namespace Shared::System {

void ForEachUserProfile(const std::filesystem::path& profilesDirectory,
                        const std::function<void(const std::filesystem::path&)>& visit) {
    static constexpr std::array<std::wstring_view, 4> excludedNames{L"Public", L"Default", L"All Users",
                                                                    L"Default User"};
    const auto source = FileSystem::SourceFolder::Trusted(profilesDirectory);
    FileSystem::ForEachEntry(
        source, FileSystem::ListOrThrow(source.Path(), source.Open(source.Path())), FileSystem::Depth::Folder,
        [&visit](const FileSystem::DirectoryEntry& entry) {
            if (entry.IsDirectory() && std::ranges::find(excludedNames, entry.Name()) == excludedNames.end()) {
                visit(entry.path);
            }
            return true;
        });
}

}  // namespace Shared::System
