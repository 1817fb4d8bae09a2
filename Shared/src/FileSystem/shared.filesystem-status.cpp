#include "shared.filesystem-status.h"

#include <string>
#include <system_error>

#include "shared.exception-messages.h"
#include "shared.filesystem-longpath.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

namespace Shared::FileSystem {

namespace {

// The standard library's own category answers in the ANSI code page.
class Win32Category : public std::error_category {
public:
    [[nodiscard]] const char* name() const noexcept override { return "win32"; }
    [[nodiscard]] std::string message(int code) const override {
        return Exception::Win32Message(static_cast<std::uint32_t>(code));
    }
    [[nodiscard]] std::error_condition default_error_condition(int code) const noexcept override {
        return std::system_category().default_error_condition(code);
    }
};

FileStatus StatusFrom(DWORD attributes, DWORD sizeHigh, DWORD sizeLow) {
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return {.kind = FileKind::Directory};
    }
    if ((attributes & FILE_ATTRIBUTE_DEVICE) != 0) {
        return {.kind = FileKind::Other};
    }
    return {.kind = FileKind::Regular, .size = (std::uint64_t{sizeHigh} << 32U) | sizeLow};
}

}  // namespace

FileStatus QueryStatus(const std::filesystem::path& path, const char* operation) {
    const std::filesystem::path name = LongForm(path);
    const auto failed = [&](DWORD code) {
        return IsNotFound(code) ? FileStatus{} : (ThrowFileSystemError(operation, path, code), FileStatus{});
    };
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (GetFileAttributesExW(name.c_str(), GetFileExInfoStandard, &data) == FALSE) {
        return failed(GetLastError());
    }
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        return StatusFrom(data.dwFileAttributes, data.nFileSizeHigh, data.nFileSizeLow);
    }
    const Util::FileHandle target(CreateFileW(name.c_str(), FILE_READ_ATTRIBUTES,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    BY_HANDLE_FILE_INFORMATION information{};
    if (!target || GetFileInformationByHandle(target.Get(), &information) == FALSE) {
        return failed(GetLastError());
    }
    return StatusFrom(information.dwFileAttributes, information.nFileSizeHigh, information.nFileSizeLow);
}

bool IsNotFound(DWORD code) noexcept {
    switch (code) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_DRIVE:
        case ERROR_BAD_NETPATH:
        case ERROR_BAD_NET_NAME:
        case ERROR_INVALID_NAME:
        case ERROR_BAD_PATHNAME:
        case ERROR_DIRECTORY:
        case ERROR_DELETE_PENDING:
            return true;
        default:
            return false;
    }
}

bool IsLink(DWORD attributes, DWORD reparseTag) noexcept {
    // No file system gives the tag zero to a reparse point of its own: where it appears, the kind is unknown, and what
    // is not known to be an ordinary file is not followed.
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (IsReparseTagNameSurrogate(reparseTag) || reparseTag == IO_REPARSE_TAG_RESERVED_ZERO);
}

DWORD ObjectionTo(HANDLE file) noexcept {
    if (GetFileType(file) != FILE_TYPE_DISK) {
        return ERROR_BAD_FILE_TYPE;
    }
    BY_HANDLE_FILE_INFORMATION information{};
    if (GetFileInformationByHandle(file, &information) == FALSE) {
        return GetLastError();
    }
    if ((information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        return ERROR_CANT_RESOLVE_FILENAME;
    }
    if ((information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return ERROR_DIRECTORY;
    }
    return information.nNumberOfLinks > 1 ? ERROR_TOO_MANY_LINKS : ERROR_SUCCESS;
}

bool LeadsElsewhere(const std::filesystem::path& path) {
    const Util::FileHandle file(CreateFileW(
        LongForm(path).c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    const DWORD objection = file ? ObjectionTo(file.Get()) : DWORD{ERROR_SUCCESS};
    return objection == ERROR_CANT_RESOLVE_FILENAME || objection == ERROR_TOO_MANY_LINKS;
}

void ThrowFileSystemError(const char* operation, const std::filesystem::path& path, DWORD code) {
    static const Win32Category category;
    // The exception's constructor converts the path strictly; a name with an unpaired surrogate must not replace the
    // failure that is reported by another one.
    throw std::filesystem::filesystem_error(operation, Util::PathFromUtf8(Util::ToUtf8(path)),
                                            std::error_code(static_cast<int>(code), category));
}

}  // namespace Shared::FileSystem
