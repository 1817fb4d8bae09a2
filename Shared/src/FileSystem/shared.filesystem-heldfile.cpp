#include "shared.filesystem-heldfile.h"

#include <algorithm>

namespace Shared::FileSystem {

bool IsHeld(DWORD code, FileOwner owner) noexcept {
    switch (code) {
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION:
        case ERROR_USER_MAPPED_FILE:
        case ERROR_DELETE_PENDING:
            return true;
        case ERROR_ACCESS_DENIED:
            return owner == FileOwner::Program;
        default:
            return false;
    }
}

bool HeldFileWait::Pause(DWORD code) noexcept {
    constexpr DWORD pause = 50;
    if (milliseconds_ == 0 || !IsHeld(code, owner_)) {
        return false;
    }
    milliseconds_ -= std::min(milliseconds_, pause);
    Sleep(pause);
    return true;
}

HeldFileWait& SharedWait() noexcept {
    static HeldFileWait wait(FileOwner::Others);
    return wait;
}

void RenewSharedWait() noexcept {
    SharedWait() = HeldFileWait(FileOwner::Others);
}

}  // namespace Shared::FileSystem
