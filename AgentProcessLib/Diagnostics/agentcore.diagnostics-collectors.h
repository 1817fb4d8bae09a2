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

#include "shared.exception-guardedlog.h"
#include "shared.filesystem-generatedfile.h"
#include "shared.filezip-ziparchivewrapper.h"

namespace AgentCore::Diagnostics {

/// The diagnostic-type numbers that collectors carry as their last template argument.
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
    requires(const T& collector, const std::filesystem::path& entryDir, Shared::FileZip::ZipArchiveWrapper& zip) {
        { collector.Collect(entryDir, zip) } noexcept -> std::same_as<CollectorStatus>;
    };

/// Logs a failure, with the place of the call, and hands its message on.
[[nodiscard]] inline std::string Logged(std::string message,
                                        const std::source_location& where = std::source_location::current()) {
    Shared::Exception::LogError(Shared::Exception::LogFormat("{}", where), message);
    return message;
}

/// An unsuccessful status with one message, or with none.
[[nodiscard]] inline CollectorStatus Unsuccessful() {
    return {};
}
[[nodiscard]] inline CollectorStatus Unsuccessful(std::string message) {
    CollectorStatus status;
    status.errors.push_back(std::move(message));
    return status;
}

/// What an add to the archive makes of a collector that adds one file.
[[nodiscard]] inline CollectorStatus FromAdd(Shared::FileZip::ZipArchiveWrapper::AddResult result) {
    CollectorStatus status;
    status.success = result.has_value() || result.error().isArchived;
    if (!result) {
        status.errors.push_back(std::move(result.error().message));
    }
    return status;
}

/// The boundary of a collector: runs the body and turns an exception into the status whose one message is made by
/// `describe(text of the exception)`. Never throws; without memory for a message the status has none.
template <std::invocable Body, std::invocable<std::string_view> Describe>
    requires std::same_as<std::invoke_result_t<Body>, CollectorStatus>
[[nodiscard]] CollectorStatus WithinBoundary(Body&& body, Describe&& describe) noexcept {
    try {
        try {
            return std::forward<Body>(body)();
        } catch (const std::exception& error) {
            return Unsuccessful(std::forward<Describe>(describe)(std::string_view(error.what())));
        }
    } catch (...) {
        return Unsuccessful();
    }
}

}  // namespace AgentCore::Diagnostics
