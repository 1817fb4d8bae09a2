#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "agentcore.diagnostics-collectors.h"
#include "shared.filesystem-sourcefolder.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"
#include "shared.util-win32result.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// The largest file that the collectors take, in bytes.
inline constexpr std::uint64_t maxFileSize = 209715200;

/// The most files that one row archives: each add writes the archive's directory anew.
inline constexpr std::size_t maxFilesPerRow = 1000;

/// The folder that a template argument stands for: what a callable returns, or a wide FixedString.
template <auto provider>
[[nodiscard]] std::filesystem::path ResolveFolder() {
    if constexpr (std::invocable<decltype(provider)>) {
        return provider();
    } else {
        return std::filesystem::path(std::wstring_view(provider));
    }
}

template <auto provider>
[[nodiscard]] std::string OriginOf() {
    return Shared::Util::ToUtf8Lossy(ResolveFolder<provider>());
}

/// Yields the folder in which a collector finds its files; may throw.
using SourceProvider = Shared::FileSystem::SourceFolder (*)();

template <auto provider>
[[nodiscard]] Shared::FileSystem::SourceFolder SourceOf() {
    return Shared::FileSystem::TrustOf<provider>::Source(ResolveFolder<provider>());
}

enum class IfMissing : std::uint8_t { Report, Ignore };

/// The files that one collector copies from its source folder into the row's folder, within the limits of the row.
class CopyJob {
public:
    /// The source, and what the destination refers to, must outlive the object.
    CopyJob(const Shared::FileSystem::SourceFolder& source, std::uint64_t maxSize, const Destination& destination);

    /// Opens a file once, passes it through the gate and adds it, all under one handle. What goes wrong becomes a
    /// message of the status. Returns whether the file, or a part of it, was archived. Throws
    /// std::filesystem::filesystem_error of the given operation when it cannot be told what exists.
    bool Copy(const std::filesystem::path& file, IfMissing ifMissing, const char* operation = "status");

    /// The same for what the source folder has found at the path.
    bool Copy(const std::filesystem::path& file, const Shared::Util::Win32Result<Shared::FileSystem::SourceFile>& found,
              const char* operation);

    void AddMessage(std::string message) { status_.errors.push_back(std::move(message)); }
    /// Counts files that are left because of the row's limits.
    void Leave(std::size_t count) { left_ += count; }

    /// The result: successful when a file was archived. One message counts the files that were left.
    [[nodiscard]] CollectorStatus Status() &&;

private:
    const Shared::FileSystem::SourceFolder& source_;
    std::uint64_t maxSize_;
    Destination destination_;
    std::size_t room_;
    std::size_t left_ = 0;
    CollectorStatus status_;
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
