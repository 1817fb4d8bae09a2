#pragma once

#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "agentcore.diagnostics-collectors-extensioncopier.h"
#include "agentcore.diagnostics-collectors-filecopier.h"
#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "agentcore.diagnostics-set.h"
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
};

[[nodiscard]] std::string JoinNames(std::initializer_list<std::string> names);

/// The path below a profile, as UTF-8, and the folder of the file at that path.
[[nodiscard]] std::string UserFolderText(const std::filesystem::path& profile, std::string_view relativePath);
[[nodiscard]] std::string UserFileFolderText(const std::filesystem::path& profile, std::string_view relativePath);

/// The rows, followed by those that `userRows` makes for each profile folder of this machine. When the profile folders
/// cannot be listed, or not to the end, a row "user profiles" of the type says so.
[[nodiscard]] std::vector<CollectorRow> WithUserRows(
    std::vector<CollectorRow> rows, int type, std::vector<CollectorRow> (*userRows)(const std::filesystem::path&));

/// A row of machine-wide collectors; its origin is the folder of the first.
template <Collector First, Collector... Rest>
[[nodiscard]] CollectorRow MachineRow() {
    return {.type = First::diagnosticType,
            .name = JoinNames({First::Name(), Rest::Name()...}),
            .origin = &First::Origin,
            .collectors = {AsRun<First>(), AsRun<Rest>()...}};
}

/// A row of one user's files, which lie in one folder.
template <Collector First, Collector... Rest>
[[nodiscard]] CollectorRow UserFilesRow(const std::filesystem::path& profile) {
    return {.type = First::diagnosticType,
            .name = JoinNames({First::Name(), Rest::Name()...}),
            .origin = [profile] { return UserFileFolderText(profile, First::RelativePath()); },
            .collectors = {AsRun(First(profile)), AsRun(Rest(profile))...}};
}

/// A row of one user's folder.
template <Collector Folder>
[[nodiscard]] CollectorRow UserFolderRow(const std::filesystem::path& profile) {
    return {.type = Folder::diagnosticType,
            .name = Folder::Name(),
            .origin = [profile] { return UserFolderText(profile, Folder::RelativePath()); },
            .collectors = {AsRun(Folder(profile))}};
}

}  // namespace AgentCore::Diagnostics::FileRows
