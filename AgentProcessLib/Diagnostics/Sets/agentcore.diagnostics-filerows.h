#pragma once

#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "agentcore.diagnostics-collectors-extensioncopier.h"
#include "agentcore.diagnostics-collectors-filecopier.h"
#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "agentcore.diagnostics-rows.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"

/// Rows of the file sets, each written as the list of its collectors.
namespace AgentCore::Diagnostics::FileRows {

/// The collectors of a set of the diagnostic type, by the names that its table uses.
template <int type>
struct Of {
    template <auto provider, Shared::Util::FixedString name>
    using File = Collectors::FileSystem::FileCopier<provider, name, type>;
    template <auto folder, Shared::Util::FixedString extension, Shared::Util::FixedString namePrefix = "">
    using Files = Collectors::FileSystem::ExtensionCopier<folder, extension, namePrefix, false, type>;
    template <auto folder, Shared::Util::FixedString extension>
    using Tree = Collectors::FileSystem::ExtensionCopier<folder, extension, "", true, type>;
    template <Shared::Util::FixedString relativePath>
    using UserFile = Collectors::FileSystem::UserFileCopier<relativePath, type>;
    template <Shared::Util::FixedString relativePath>
    using UserFolder = Collectors::FileSystem::UserFileCopier<relativePath, type>;
};

[[nodiscard]] std::string JoinNames(std::initializer_list<std::string> names);

/// The rows, followed by those that `userRows` makes for each profile folder of this machine. When the profile folders
/// cannot be listed, or not to the end, a row "user profiles" of the type says so.
[[nodiscard]] std::vector<CollectorRow> WithUserRows(
    std::vector<CollectorRow> rows, int type, std::vector<CollectorRow> (*userRows)(const std::filesystem::path&));

/// A row of machine-wide collectors; its origin is the folder of the first, or the place that was asked for it.
template <Collector First, Collector... Rest>
[[nodiscard]] CollectorRow MachineRow(std::string_view asked = {}) {
    return Row<First, Rest...>(JoinNames({First::Name(), Rest::Name()...}), OriginFrom(&First::Origin, asked));
}

/// A row of one user's folder, which is its origin.
template <Collector Folder>
[[nodiscard]] CollectorRow UserFolderRow(const std::filesystem::path& profile) {
    const std::filesystem::path folder = profile / Shared::Util::PathFromUtf8(Folder::RelativePath());
    return Row<Folder>(Folder::Name(), Shared::Util::ToUtf8Lossy(folder), profile);
}

/// A row of one user's files; its origin is the folder of the first.
template <Collector First, Collector... Rest>
[[nodiscard]] CollectorRow UserFilesRow(const std::filesystem::path& profile) {
    const std::filesystem::path file = profile / Shared::Util::PathFromUtf8(First::RelativePath());
    return Row<First, Rest...>(JoinNames({First::Name(), Rest::Name()...}),
                               Shared::Util::ToUtf8Lossy(file.parent_path()), profile);
}

}  // namespace AgentCore::Diagnostics::FileRows
