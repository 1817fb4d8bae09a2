#include "agentcore.diagnostics-set.h"

#include <windows.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <limits>
#include <string_view>
#include <unordered_set>

#include "shared.concurrency-interrupt.h"
#include "shared.filesystem-heldfile.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

using Shared::Concurrency::IsInterrupted;
using Shared::Util::SanitiseUtf8;

// ISO 8601, whatever the user's locale.
std::string UtcNow() {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", now.wYear, now.wMonth, now.wDay, now.wHour,
                       now.wMinute, now.wSecond, now.wMilliseconds);
}

// A candidate's number is taken when some name contains the candidate: of the digits behind the stem every leading part
// is a taken number.
void AddNumbers(std::string_view behindStem, std::unordered_set<std::uint64_t>& taken) {
    std::uint64_t number = 0;
    for (const char digit : behindStem) {
        if (digit < '0' || digit > '9' || number > std::numeric_limits<std::uint32_t>::max()) {
            return;
        }
        number = number * 10 + static_cast<std::uint64_t>(digit - '0');
        taken.insert(number);
        if (behindStem.front() == '0') {
            return;
        }
    }
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
        if (IsInterrupted()) {
            status.errors.emplace_back("Interrupted.");
            break;
        }
    }
    status.diagnostic.set_archive_path(Shared::Util::ToUtf8Lossy(folder));
}

// Collectors have boundaries of their own: what is caught here is a failure of the driver.
void RunWithinBoundary(const CollectorRow& row, Shared::FileZip::ZipArchiveWrapper& zip, CollectorStatus& status) {
    try {
        RunCollectors(row, zip, status);
    } catch (const std::exception& error) {
        status.errors.push_back(LogErrorAndReturn(fmt::format("Collector {} failed: {}", row.name, error.what())));
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

void Describe(const CollectorRow& row, ::Diagnostics::Diagnostic& diagnostic) {
    diagnostic.set_type(static_cast<::Diagnostics::DiagnosticType>(row.type));
    diagnostic.set_name(SanitiseUtf8(row.name));
    diagnostic.set_origin(SanitiseUtf8(OriginOf(row)));
}

void AddMessages(CollectorStatus& status) {
    status.diagnostic.set_success(status.success);
    for (const std::string& message : status.errors) {
        status.diagnostic.add_errors(SanitiseUtf8(message));
    }
}

CollectorStatus NotRun(const CollectorRow& row) {
    CollectorStatus status = Unsuccessful("Not run: the collection was interrupted.");
    Describe(row, status.diagnostic);
    AddMessages(status);
    return status;
}

std::uint32_t MillisecondsSince(std::chrono::steady_clock::time_point start) {
    using Milliseconds = std::chrono::duration<std::uint64_t, std::milli>;
    const auto passed = std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - start).count();
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(passed, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

const std::string& TypeName(int type) {
    return ::Diagnostics::DiagnosticType_Name(static_cast<::Diagnostics::DiagnosticType>(type));
}

std::filesystem::path UniqueEntryFolder(int type, const Shared::FileZip::ZipArchiveWrapper& zip) {
    const std::string stem = TypeName(type) + '_';
    std::unordered_set<std::uint64_t> taken;
    for (const auto& entry : zip.Entries()) {
        const std::string name = entry.getName();
        for (auto at = name.find(stem); at != std::string::npos; at = name.find(stem, at + 1)) {
            AddNumbers(std::string_view(name).substr(at + stem.size()), taken);
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
        status.diagnostic.set_started_at(UtcNow());
        Shared::FileSystem::RenewSharedWait();
        Describe(row, status.diagnostic);
        RunWithinBoundary(row, zip, status);
        AddMessages(status);
        status.diagnostic.set_duration_ms(MillisecondsSince(start));
    } catch (...) {  // NOLINT(bugprone-empty-catch)
        // Out of memory: what the status holds so far is all that can be said.
    }
    return status;
}

std::vector<CollectorStatus> RunSet(std::span<const CollectorRow> rows, Shared::FileZip::ZipArchiveWrapper& zip,
                                    const Progress& progress) {
    std::vector<CollectorStatus> statuses;
    statuses.reserve(rows.size());
    for (const CollectorRow& row : rows) {
        if (IsInterrupted()) {
            statuses.push_back(NotRun(row));
            continue;
        }
        if (progress) {
            progress({.number = statuses.size() + 1, .count = rows.size(), .row = row});
        }
        statuses.push_back(RunRow(row, zip));
    }
    return statuses;
}

}  // namespace AgentCore::Diagnostics
