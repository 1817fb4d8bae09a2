#pragma once

#include <windows.h>

#include <cstdint>

namespace Shared::FileSystem {

/// The owner of the files that an operation is about; it decides what counts as held by another process.
enum class FileOwner : std::uint8_t {
    Program,  ///< this program's own names: access denied counts too, the answer for a name whose deletion is pending
    Others
};

/// Whether the Win32 code says that another process holds the file, mostly for a moment only (scanners, sync clients).
[[nodiscard]] bool IsHeld(DWORD code, FileOwner owner = FileOwner::Others) noexcept;

/// Waits for files that other processes hold: at most a second in all.
class HeldFileWait {
public:
    explicit HeldFileWait(FileOwner owner) noexcept : owner_(owner) {}

    /// Repeats an operation that returns a Win32Result while its failure says that the file is held and time is left.
    template <class Operation>
    [[nodiscard]] auto Retry(const Operation& operation) {
        auto result = operation();
        while (!result && Pause(result.error())) {
            result = operation();
        }
        return result;
    }

private:
    [[nodiscard]] bool Pause(DWORD code) noexcept;

    FileOwner owner_;
    DWORD milliseconds_ = 1000;
};

/// For one operation on one of the program's own names.
template <class Operation>
[[nodiscard]] auto RetryWhileHeld(const Operation& operation) {
    return HeldFileWait(FileOwner::Program).Retry(operation);
}

/// The wait that the files of other owners share between two calls of RenewSharedWait, so that any number of held files
/// costs at most a second there. For the main thread.
[[nodiscard]] HeldFileWait& SharedWait() noexcept;
void RenewSharedWait() noexcept;

}  // namespace Shared::FileSystem
