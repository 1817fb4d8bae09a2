#include "shared.filesystem-open.h"

#include <winternl.h>

#include <limits>

#include "shared.filesystem-longpath.h"

namespace Shared::FileSystem {

namespace {

// The file is open, but the oplock of another process is not broken yet: a read would wait for that.
constexpr auto oplockBreakInProgress = static_cast<NTSTATUS>(0x108);
constexpr ULONG openNoRecall = 0x00400000;

}  // namespace

Util::Win32Result<Util::FileHandle> OpenTrusted(const std::filesystem::path& path, DWORD access) {
    Util::FileHandle file(CreateFileW(LongForm(path).c_str(), access, shareContent, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!file) {
        return Util::LastError();
    }
    return file;
}

Util::Win32Result<Util::FileHandle> OpenUntrusted(const std::wstring& name, ACCESS_MASK access, DWORD sharing,
                                                  HANDLE folder) noexcept {
    if (name.size() * sizeof(wchar_t) > std::numeric_limits<USHORT>::max()) {
        return std::unexpected<DWORD>(ERROR_FILENAME_EXCED_RANGE);
    }
    const auto length = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    // The call only reads the name.
    UNICODE_STRING text{.Length = length,
                        .MaximumLength = length,
                        .Buffer = const_cast<wchar_t*>(name.data())};  // NOLINT(*-const-cast)
    OBJECT_ATTRIBUTES attributes{};
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, folder, nullptr);
    IO_STATUS_BLOCK status{};
    HANDLE handle = INVALID_HANDLE_VALUE;
    const NTSTATUS result = NtOpenFile(&handle, access, &attributes, &status, sharing,
                                       FILE_OPEN_REPARSE_POINT | FILE_OPEN_FOR_BACKUP_INTENT |
                                           FILE_SYNCHRONOUS_IO_NONALERT | FILE_COMPLETE_IF_OPLOCKED | openNoRecall);
    if (result < 0) {
        return std::unexpected<DWORD>(RtlNtStatusToDosError(result));
    }
    Util::FileHandle file(handle);
    if (result == oplockBreakInProgress) {
        return std::unexpected<DWORD>(ERROR_SHARING_VIOLATION);
    }
    return file;
}

}  // namespace Shared::FileSystem
