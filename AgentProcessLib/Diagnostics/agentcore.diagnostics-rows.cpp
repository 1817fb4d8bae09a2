#include "agentcore.diagnostics-rows.h"

#include <windows.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <string_view>
#include <utility>

#include "shared.concurrency-interrupt.h"
#include "shared.filesystem-heldfile.h"
#include "shared.util-functions.h"

namespace AgentCore::Diagnostics {

namespace {

using Shared::Concurrency::IsInterrupted;
using Shared::Util::SanitiseUtf8;

std::uint32_t MillisecondsSince(std::chrono::steady_clock::time_point start) {
    using Milliseconds = std::chrono::duration<std::uint32_t, std::milli>;
    return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - start).count();
}

CollectorStatus RunCollectors(const CollectorRow& row, Shared::FileZip::ZipArchiveWrapper& zip) {
    CollectorStatus status;
    const std::filesystem::path folder = UniqueEntryFolder(row.type, zip);
    status.diagnostic.set_archive_path(Shared::Util::ToUtf8Lossy(folder));
    for (const CollectorRow::Run& run : row.collectors) {
        Merge(status, run(folder, zip));
        if (IsInterrupted()) {
            status.errors.emplace_back("Interrupted.");
            break;
        }
    }
    return status;
}

CollectorStatus Described(CollectorStatus status, const CollectorRow& row) {
    ::Diagnostics::Diagnostic& diagnostic = status.diagnostic;
    diagnostic.set_type(static_cast<::Diagnostics::DiagnosticType>(row.type));
    diagnostic.set_name(SanitiseUtf8(row.name));
    diagnostic.set_origin(SanitiseUtf8(row.origin));
    diagnostic.set_success(status.success);
    for (const std::string& message : status.errors) {
        diagnostic.add_errors(SanitiseUtf8(message));
    }
    return status;
}

}  // namespace

CollectorRow MessageRow(int type, std::string name, std::string origin, std::string message) {
    return {.type = type,
            .name = std::move(name),
            .origin = std::move(origin),
            .collectors = {[message = std::move(message)](const auto&, auto&) { return Unsuccessful(message); }}};
}

std::string OriginFrom(const std::function<std::string()>& origin, std::string_view asked) {
    try {
        return origin();
    } catch (const std::exception&) {
        return std::string(asked);
    }
}

std::string UtcNow() {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", now.wYear, now.wMonth, now.wDay, now.wHour,
                       now.wMinute, now.wSecond, now.wMilliseconds);
}

const std::string& TypeName(int type) {
    return ::Diagnostics::DiagnosticType_Name(static_cast<::Diagnostics::DiagnosticType>(type));
}

std::filesystem::path UniqueEntryFolder(int type, const Shared::FileZip::ZipArchiveWrapper& zip) {
    std::string names;
    for (const libzippp::ZipEntry& entry : zip.Entries()) {
        names += entry.getName() + '\n';
    }
    for (std::size_t number = 0;; ++number) {
        const std::string candidate = fmt::format("{}_{}", TypeName(type), number);
        if (!names.contains(candidate)) {
            return Shared::Util::PathFromUtf8(candidate);
        }
    }
}

CollectorStatus RunRow(const CollectorRow& row, Shared::FileZip::ZipArchiveWrapper& zip) noexcept {
    const auto describe = [&row](std::string_view reason) {
        return LogErrorAndReturn(fmt::format("Collector {} failed: {}", row.name, reason));
    };
    return WithinBoundary(
        [&] {
            const auto start = std::chrono::steady_clock::now();
            const std::string startedAt = UtcNow();
            Shared::FileSystem::RenewSharedWait();
            CollectorStatus status = Described(WithinBoundary([&] { return RunCollectors(row, zip); }, describe), row);
            status.diagnostic.set_started_at(startedAt);
            status.diagnostic.set_duration_ms(MillisecondsSince(start));
            return status;
        },
        describe);
}

std::vector<CollectorStatus> RunSet(std::span<const CollectorRow> rows, Shared::FileZip::ZipArchiveWrapper& zip,
                                    const Progress& progress) {
    std::vector<CollectorStatus> statuses;
    statuses.reserve(rows.size());
    for (const CollectorRow& row : rows) {
        if (IsInterrupted()) {
            statuses.push_back(Described(Unsuccessful("Not run: the collection was interrupted."), row));
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
