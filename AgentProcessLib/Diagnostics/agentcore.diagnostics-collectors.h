#pragma once

#include <diagnostics.pb.h>

#include <concepts>
#include <exception>
#include <filesystem>
#include <source_location>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "shared.filesystem-generatedfile.h"
#include "shared.filezip-ziparchivewrapper.h"

namespace AgentCore::Diagnostics {

/// The numbers that a collector's `diagnosticType` can have.
inline constexpr int logType = ::Diagnostics::DIAGNOSTIC_TYPE_LOG_ALL;
inline constexpr int crashReportType = ::Diagnostics::DIAGNOSTIC_TYPE_CRASH_REPORT_ALL;
inline constexpr int sampleType = ::Diagnostics::DIAGNOSTIC_TYPE_SAMPLE_ALL;
inline constexpr int configurationType = ::Diagnostics::DIAGNOSTIC_TYPE_CONFIGURATION_ALL;

/// The result of one collector run.
struct CollectorStatus {
    /// Whether the collector achieved its purpose. A missing source gives false without a message.
    bool success = false;
    /// The manifest record.
    ::Diagnostics::Diagnostic diagnostic;
    /// Warnings and errors in the order met.
    std::vector<std::string> errors;
};

/// A collector puts one kind of evidence into the archive, under the folder that it is given, and never throws.
template <class T>
concept Collector =
    requires(const T& collector, const std::filesystem::path& archiveFolder, Shared::FileZip::ZipArchiveWrapper& zip) {
        { collector.Collect(archiveFolder, zip) } noexcept -> std::same_as<CollectorStatus>;
    };

/// The status for one added file: successful, with the file in its record, when the archive holds the file or a part of
/// it; what went wrong is the one message. `origin` is the path that the file came from, empty for what this run has
/// generated.
[[nodiscard]] CollectorStatus StatusOf(Shared::FileZip::ZipArchiveWrapper::AddResult added,
                                       const std::filesystem::path& origin);

/// Adds the result of another run to a status: it succeeds when either does, files and messages follow each other.
void Merge(CollectorStatus& status, CollectorStatus&& other);

/// A folder in the open archive, where a collector puts its files.
struct Destination {
    const std::filesystem::path& folder;
    Shared::FileZip::ZipArchiveWrapper& zip;

    /// Adds a file that a command of this run has written, under its own name.
    [[nodiscard]] CollectorStatus Add(const std::filesystem::path& file) const;

    /// Adds a generated file under the name that it was asked for.
    [[nodiscard]] CollectorStatus Add(const Shared::FileSystem::GeneratedFile& file) const;
};

/// The collector of a function that takes no constants of its own.
template <CollectorStatus (*collect)(const Destination&) noexcept, int Type>
struct FunctionCollector {
    static constexpr int diagnosticType = Type;

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return collect({archiveFolder, zip});
    }
};

/// An unsuccessful status with one message, or with none.
[[nodiscard]] CollectorStatus Unsuccessful();
[[nodiscard]] CollectorStatus Unsuccessful(std::string message);

/// Logs a message as an error with the place of the call, or as a warning, and returns it.
[[nodiscard]] std::string LogErrorAndReturn(std::string message,
                                            const std::source_location& where = std::source_location::current());
[[nodiscard]] std::string LogWarningAndReturn(std::string message);

/// The boundary of a collector: runs the body. What `handle(text of the exception)` makes of an exception is the
/// result: a status, or the one message of an unsuccessful status. Never throws; without memory the status has no
/// message.
template <std::invocable Body, std::invocable<std::string_view> Handle>
    requires std::same_as<std::invoke_result_t<Body>, CollectorStatus>
[[nodiscard]] CollectorStatus WithinBoundary(Body&& body, Handle&& handle) noexcept {
    try {
        try {
            return std::forward<Body>(body)();
        } catch (const std::exception& error) {
            auto handled = std::forward<Handle>(handle)(std::string_view(error.what()));
            if constexpr (std::same_as<decltype(handled), CollectorStatus>) {
                return handled;
            } else {
                return Unsuccessful(std::move(handled));
            }
        }
    } catch (...) {
        return Unsuccessful();
    }
}

}  // namespace AgentCore::Diagnostics
