#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agentcore.diagnostics-collectors-filechecks.h"
#include "agentcore.diagnostics-collectors.h"
#include "shared.util-fixedstring.h"

namespace AgentCore::Diagnostics::Collectors::FileSystem {

/// The largest file that the collectors take, in bytes.
inline constexpr std::uint64_t maxFileSize = 209715200;

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
    return ToUtf8Lossy(ResolveFolder<provider>());
}

/// Yields the folder in which a collector finds its files; may throw.
using SourceProvider = SourceFolder (*)();

template <auto provider>
[[nodiscard]] SourceFolder SourceOf() {
    return Shared::FileSystem::TrustOf<provider>::Source(ResolveFolder<provider>());
}

/// The files that one collector copies from its source folder into the row's folder, within the limits of the row:
/// 1,000 files, and of a confined folder 1 GiB. What other collectors of the row have copied counts.
class CopyJob {
public:
    /// The source, and what the destination refers to, must outlive the object.
    CopyJob(const SourceFolder& source, std::uint64_t maxSize, const Destination& destination);

    enum class Depth : std::uint8_t { Folder, Tree };

    /// Visits the entries of a listed folder, or of the tree below it: a folder comes before its entries. Links are
    /// visited and never followed, so that a tree with a loop ends. A subfolder that has been removed meanwhile is
    /// passed over; one that cannot be listed becomes a message. In a confined folder the scan ends at 100,000 entries
    /// and at 64 levels, with a message. Returns whether all was visited: false also when the run is interrupted.
    /// Throws std::filesystem::filesystem_error of the operation "directory_iterator::operator++", or
    /// "recursive_directory_iterator::operator++" for a tree, when a listing fails.
    bool Scan(DirectoryListing listing, Depth depth, const std::function<void(const DirectoryEntry&)>& visit);

    enum class IfMissing : std::uint8_t { Report, Ignore };

    /// Copies a file of the folder's listing. What goes wrong becomes a message of the status. Returns whether the
    /// file, or a part of it, was archived. Throws std::filesystem::filesystem_error of the operation "status" when it
    /// cannot be told what exists.
    bool Copy(const std::filesystem::path& file, IfMissing ifMissing);

    /// The same for what the source folder has found at the path: passes it through the gate and adds it, under the one
    /// handle with which it was opened. Throws std::filesystem::filesystem_error of the given operation.
    bool Copy(const std::filesystem::path& file, const Win32Result<SourceFile>& found, const char* operation);

    /// A subfolder from which nothing is copied; at most 1,000 of them have a message of their own.
    void SkipFolder(const std::filesystem::path& folder, DWORD reason);

    void AddMessage(std::string message) { status_.errors.push_back(std::move(message)); }

    /// The result: successful when a file was archived. One message counts what was left because of the limits.
    [[nodiscard]] CollectorStatus Status() &&;

private:
    void Descend(const std::filesystem::path& folder, std::vector<DirectoryListing>& levels);

    const SourceFolder& source_;
    std::uint64_t maxSize_;
    Destination destination_;
    std::size_t files_ = 0;
    std::uint64_t bytes_ = 0;
    std::size_t skipped_ = 0;
    std::size_t left_ = 0;
    CollectorStatus status_;
};

}  // namespace AgentCore::Diagnostics::Collectors::FileSystem
