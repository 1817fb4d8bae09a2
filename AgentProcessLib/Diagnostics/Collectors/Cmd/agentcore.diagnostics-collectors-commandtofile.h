#pragma once

#include <chrono>
#include <concepts>
#include <filesystem>
#include <string>
#include <string_view>

#include "agentcore.diagnostics-collectors.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::Cmd {

/// How long a command may write nothing before it is terminated.
inline constexpr std::chrono::milliseconds commandTimeout{10000};

/// Runs the command line that `source` yields and archives a text file under the name, which holds the command, its
/// exit code and its output as it came. A command that fails, is missing or runs into the timeout still yields its
/// file; the exit code is also in the manifest record. When the file cannot be written to its end, what there is of
/// it is archived and the reason is a message. The file is removed in every case.
[[nodiscard]] CollectorStatus CollectCommand(std::wstring (*source)(), std::string_view fileName,
                                             const Destination& destination) noexcept;

/// The output of one console command. `Source` is a FixedString of wide characters, or a callable that returns a
/// std::wstring; one that throws is the collector's failure.
template <auto Source, Shared::Util::FixedString FileName, int Type>
class CommandToFile {
public:
    static constexpr int diagnosticType = Type;

    [[nodiscard]] CollectorStatus Collect(const std::filesystem::path& archiveFolder,
                                          Shared::FileZip::ZipArchiveWrapper& zip) const noexcept {
        return CollectCommand(&CommandLine, FileName, {archiveFolder, zip});
    }

private:
    static std::wstring CommandLine() {
        if constexpr (std::invocable<decltype(Source)>) {
            return Source();
        } else {
            return std::wstring(Source);
        }
    }
};

}  // namespace AgentCore::Diagnostics::Collectors::Cmd
