#pragma once

#include "shared.util-handle.h"

namespace Shared::Concurrency {

/// The two ends of a one-way byte pipe.
struct Pipe {
    Util::FileHandle read;
    Util::FileHandle write;
};

/// A pipe for what a child writes: only the write end can be inherited; the read end takes overlapped reads, so that
/// a wait for output can be bounded. Throws Win32Exception "CreatePipe() failed", whichever step failed.
[[nodiscard]] Pipe CreateOutputPipe();

/// A pipe for what a child reads: only the read end can be inherited. Throws as CreateOutputPipe() does.
[[nodiscard]] Pipe CreateInputPipe();

}  // namespace Shared::Concurrency
