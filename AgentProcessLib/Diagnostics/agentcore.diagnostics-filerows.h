#pragma once

#include <array>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "agentcore.diagnostics-collectors-userfilecopier.h"
#include "agentcore.diagnostics-set.h"
#include "shared.util-functions.h"

/// Rows of the file sets, each written as the list of its collectors.
namespace AgentCore::Diagnostics::FileRows {

[[nodiscard]] std::string JoinNames(std::initializer_list<std::string> names);

/// The folder at the path below a profile, as UTF-8.
[[nodiscard]] std::string UserFolderText(const std::filesystem::path& profile, std::string_view relativePath);

/// The folder of the file at the path below a profile, as UTF-8.
[[nodiscard]] std::string UserFileFolderText(const std::filesystem::path& profile, std::string_view relativePath);

/// The users' profile folders. A failure is logged, and there are none.
[[nodiscard]] std::vector<std::filesystem::path> Profiles();

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
