#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace Shared::Exception {

/// The return addresses of the calling thread at one moment, captured cheaply and resolved only when asked for.
class StackTrace {
public:
    StackTrace() noexcept = default;

    /// Captures the caller's stack; `framesToSkip` counts the frames above the caller to leave out. Never fails:
    /// what cannot be walked is missing.
    [[nodiscard]] static StackTrace Capture(unsigned framesToSkip = 0) noexcept;

    /// The stack-trace text: "Stacktrace:\n" and one block per frame, cut at the run-time start-up.
    /// Names come from the PDB beside the executable; without one a frame names its module and offset.
    /// Safe to call from any thread; serialised inside because DbgHelp is not.
    [[nodiscard]] std::string ToString() const;

private:
    static constexpr std::size_t maxFrames = 62;
    std::array<void*, maxFrames> frames_{};
    std::size_t count_ = 0;
};

}  // namespace Shared::Exception
