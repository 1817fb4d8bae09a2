#include "agentcore.diagnostics-set.h"

#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <limits>
#include <unordered_set>
#include <utility>

#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

using Shared::Util::SanitiseUtf8;

std::string UtcNow() {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    return Shared::Util::ConvertStringType(Shared::Util::GetTimeAsUtcString2(now));
}

void Merge(CollectorStatus& row, CollectorStatus&& run) {
    row.success = row.success || run.success;
    if (const auto exitCode = run.diagnostic.raw_process_exit_code(); exitCode != 0) {
        row.diagnostic.set_raw_process_exit_code(exitCode);
    }
    std::ranges::move(run.errors, std::back_inserter(row.errors));
}

void RunCollectors(const CollectorRow& row, Shared::FileZip::ZipArchiveWrapper& zip, CollectorStatus& status) {
    const std::filesystem::path folder = UniqueEntryFolder(row.type, zip);
    for (const CollectorRow::Run& run : row.collectors) {
        Merge(status, run(folder, zip));
    }
    status.diagnostic.set_archive_path(Shared::Util::ToUtf8(folder));
}

// Failures of the driver itself; the collectors have boundaries of their own.
template <class Step>
void Guarded(const CollectorRow& row, CollectorStatus& status, Step&& step) {
    try {
        std::forward<Step>(step)();
    } catch (const std::exception& error) {
        status.errors.push_back(Logged(fmt::format("Collector {} failed: {}", row.name, error.what())));
    }
}

std::string OriginOf(const CollectorRow& row) {
    try {
        return row.origin ? row.origin() : std::string();
    } catch (const std::exception&) {
        // The row's collectors meet the same failure and report it.
        return {};
    }
}

}  // namespace

const std::string& TypeName(int type) {
    return ::Diagnostics::DiagnosticType_Name(static_cast<::Diagnostics::DiagnosticType>(type));
}

std::filesystem::path UniqueEntryFolder(int type, const Shared::FileZip::ZipArchiveWrapper& zip) {
    const std::string stem = TypeName(type) + '_';
    // A number is taken when some name contains it behind the stem: every leading part of the digits found there.
    std::unordered_set<std::uint64_t> taken;
    for (const auto& entry : zip.Entries()) {
        const std::string name = entry.getName();
        for (auto at = name.find(stem); at != std::string::npos; at = name.find(stem, at + 1)) {
            const std::size_t digits = at + stem.size();
            std::uint64_t number = 0;
            for (std::size_t index = digits; index < name.size() && name[index] >= '0' && name[index] <= '9' &&
                                             number <= std::numeric_limits<std::uint32_t>::max();
                 ++index) {
                number = number * 10 + static_cast<std::uint64_t>(name[index] - '0');
                if (index == digits || name[digits] != '0') {
                    taken.insert(number);
                }
            }
        }
    }
    std::uint64_t number = 0;
    while (taken.contains(number)) {
        ++number;
    }
    return Shared::Util::PathFromUtf8(fmt::format("{}_{}", TypeName(type), number));
}

CollectorStatus RunRow(const CollectorRow& row, Shared::FileZip::ZipArchiveWrapper& zip) noexcept {
    CollectorStatus status;
    try {
        const auto start = std::chrono::steady_clock::now();
        status.diagnostic.set_type(static_cast<::Diagnostics::DiagnosticType>(row.type));
        status.diagnostic.set_name(SanitiseUtf8(row.name));
        status.diagnostic.set_origin(SanitiseUtf8(OriginOf(row)));
        Guarded(row, status, [&] { status.diagnostic.set_started_at(UtcNow()); });
        Guarded(row, status, [&] { RunCollectors(row, zip, status); });
        status.diagnostic.set_success(status.success);
        for (const std::string& message : status.errors) {
            status.diagnostic.add_errors(SanitiseUtf8(message));
        }
        const auto duration =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        status.diagnostic.set_duration_ms(
            static_cast<std::uint32_t>(std::min<std::int64_t>(duration, std::numeric_limits<std::uint32_t>::max())));
    } catch (...) {  // NOLINT(bugprone-empty-catch)
        // Out of memory: what the status holds so far is all that can be said.
    }
    return status;
}

std::vector<CollectorStatus> RunSet(std::span<const CollectorRow> rows, Shared::FileZip::ZipArchiveWrapper& zip) {
    std::vector<CollectorStatus> statuses;
    statuses.reserve(rows.size());
    std::ranges::transform(rows, std::back_inserter(statuses),
                           [&zip](const CollectorRow& row) { return RunRow(row, zip); });
    return statuses;
}

}  // namespace AgentCore::Diagnostics
