#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileSystem {

/// While a file is open with it, other processes can neither delete nor rename the file.
inline constexpr DWORD shareContent = FILE_SHARE_READ | FILE_SHARE_WRITE;
inline constexpr DWORD shareAll = shareContent | FILE_SHARE_DELETE;

enum class Links : std::uint8_t {
    Follow,  ///< what a symbolic link or junction leads to is opened
    Open     ///< the link itself is opened
};

/// Opens a file or folder for its attributes only, which no sharing mode of other processes prevents.
[[nodiscard]] Util::Win32Result<Util::FileHandle> OpenToQuery(const std::filesystem::path& path, Links links);

/// Opens a file or folder that an unprivileged user may have made, or replaced, so that the user can neither redirect
/// nor delay the call: a link itself is opened, never its target; a file under an oplock does not make the call wait,
/// but counts as held (ERROR_SHARING_VIOLATION); content that is not stored on this machine is not fetched.
///
/// `name` is a path as NativeForm gives it, or, with `folder`, a name in that open folder. `access` must include
/// SYNCHRONIZE. Allocates nothing.
[[nodiscard]] Util::Win32Result<Util::FileHandle> OpenUntrusted(const std::wstring& name, ACCESS_MASK access,
                                                                DWORD sharing, HANDLE folder = nullptr) noexcept;

}  // namespace Shared::FileSystem
