#pragma once

#include <windows.h>

#include <filesystem>
#include <string>

#include "shared.util-handle.h"
#include "shared.util-win32result.h"

namespace Shared::FileSystem {

/// While a file is open with it, other processes can neither delete nor rename the file.
inline constexpr DWORD shareContent = FILE_SHARE_READ | FILE_SHARE_WRITE;
inline constexpr DWORD shareAll = shareContent | FILE_SHARE_DELETE;

/// Access to the attributes alone, which no sharing mode of other processes prevents.
inline constexpr DWORD queryAccess = FILE_READ_ATTRIBUTES | SYNCHRONIZE;

/// Opens an existing file or folder at a path that only administrators can change, with shareContent: links are
/// followed.
[[nodiscard]] Util::Win32Result<Util::FileHandle> OpenTrusted(const std::filesystem::path& path, DWORD access);

/// Opens a file or folder that an unprivileged user may have made, or replaced, so that the user can neither redirect
/// nor delay the call: a link itself is opened, never its target; a file under an oplock does not make the call wait,
/// but counts as held (ERROR_SHARING_VIOLATION); content that is not stored on this machine is not fetched.
///
/// `name` is a path as NativeForm gives it, or, with `folder`, a name in that open folder. `access` must include
/// SYNCHRONIZE. Allocates nothing.
[[nodiscard]] Util::Win32Result<Util::FileHandle> OpenUntrusted(const std::wstring& name, ACCESS_MASK access,
                                                                DWORD sharing, HANDLE folder = nullptr) noexcept;

}  // namespace Shared::FileSystem
