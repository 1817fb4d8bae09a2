#include "agentcore.diagnostics-filerows.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include "shared.system-functions.h"

namespace AgentCore::Diagnostics::FileRows {

std::string JoinNames(std::initializer_list<std::string> names) {
    return fmt::format("{}", fmt::join(names.begin(), names.end(), ", "));
}

std::vector<CollectorRow> WithUserRows(std::vector<CollectorRow> rows, int type,
                                       std::vector<CollectorRow> (*userRows)(const std::filesystem::path&)) {
    std::string folder = R"(HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\ProfilesDirectory)";
    try {
        const std::filesystem::path profiles = Shared::System::GetUserProfilesDirectory();
        folder = Shared::Util::ToUtf8Lossy(profiles);
        Shared::System::ForEachUserProfile(profiles, [&](const std::filesystem::path& profile) {
            std::ranges::move(userRows(profile), std::back_inserter(rows));
        });
    } catch (const std::exception& error) {
        rows.push_back(MessageRow(type, "user profiles", std::move(folder),
                                  LogErrorAndReturn(fmt::format("User based collector failed: {}", error.what()))));
    }
    return rows;
}

}  // namespace AgentCore::Diagnostics::FileRows
