#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agentcore.diagnostics-collectors.h"

namespace AgentCore::Diagnostics {

/// One row of a collector set: one archive folder, one status, one manifest entry.
struct CollectorRow {
    using Run = std::function<CollectorStatus(const std::filesystem::path&, Shared::FileZip::ZipArchiveWrapper&)>;

    int type = 0;
    /// The manifest's `name` and `origin`.
    std::string name;
    std::string origin;
    /// Run in order into the row's folder, until the run is interrupted. The row succeeds when any of them does; their
    /// messages follow each other.
    std::vector<Run> collectors;
};

/// A collector as a row's member.
template <Collector T>
[[nodiscard]] CollectorRow::Run AsRun(const T& collector = {}) {
    return [collector](const std::filesystem::path& archiveFolder, Shared::FileZip::ZipArchiveWrapper& zip) {
        return collector.Collect(archiveFolder, zip);
    };
}

/// A row of collectors of one type, each made from the arguments.
template <Collector First, Collector... Rest, class... Arguments>
[[nodiscard]] CollectorRow Row(const std::string& name, const std::string& origin, const Arguments&... arguments) {
    return {.type = First::diagnosticType,
            .name = name,
            .origin = origin,
            .collectors = {AsRun(First(arguments...)), AsRun(Rest(arguments...))...}};
}

/// A row that collects nothing and has one message.
[[nodiscard]] CollectorRow MessageRow(int type, std::string name, std::string origin, std::string message);

/// What the function returns, or `asked`, the place where it looks, when it throws. The row's collectors report the
/// failure.
[[nodiscard]] std::string OriginFrom(const std::function<std::string()>& origin, std::string_view asked);

/// The time as the manifest states it: UTC, ISO 8601, whatever the user's locale.
[[nodiscard]] std::string UtcNow();

/// The name of a diagnostic type, as it stands in archive folders.
[[nodiscard]] const std::string& TypeName(int type);

/// "{}_{}" of the type name and the first number such that no entry's name contains the candidate as a substring: an
/// entry in the folder numbered 10 also blocks the number 1.
[[nodiscard]] std::filesystem::path UniqueEntryFolder(int type, const Shared::FileZip::ZipArchiveWrapper& zip);

/// Runs one row in a fresh folder and fills its manifest record. Files that other processes hold cost the row at most a
/// second. A row during which the run is interrupted ends with the message "Interrupted.".
[[nodiscard]] CollectorStatus RunRow(const CollectorRow& row, Shared::FileZip::ZipArchiveWrapper& zip) noexcept;

/// A row that is about to be run.
struct RowInSet {
    /// From 1 to `count`.
    std::size_t number;
    std::size_t count;
    const CollectorRow& row;
};
using Progress = std::function<void(const RowInSet&)>;

/// Runs the rows of a set in order and calls `progress` before each. Once the run is interrupted the others are not
/// run, and say so.
[[nodiscard]] std::vector<CollectorStatus> RunSet(std::span<const CollectorRow> rows,
                                                  Shared::FileZip::ZipArchiveWrapper& zip,
                                                  const Progress& progress = {});

}  // namespace AgentCore::Diagnostics
