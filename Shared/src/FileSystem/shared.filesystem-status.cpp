#include "shared.filesystem-status.h"

#include <string>
#include <system_error>

#include "shared.exception-messages.h"
#include "shared.exception-text.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-open.h"
#include "shared.util-functions.h"

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

std::error_code ErrorOf(DWORD code) {
    static const Win32Category category;
    return {static_cast<int>(code), category};
}

// The exception's constructor converts its paths strictly; a name with an unpaired surrogate must not replace the
// failure that is reported by another one.
std::filesystem::path WithoutFaults(const std::filesystem::path& path) {
    return Util::PathFromUtf8(Util::ToUtf8Lossy(path));
}

// Whether a read of an open file or folder with these attributes would fetch its content from elsewhere: offline
// storage or a cloud.
bool IsStoredElsewhere(DWORD attributes) noexcept {
    // RECALL_ON_OPEN, 0x00040000, is a listing's: the same bit of an open file stands for extended attributes.
    constexpr DWORD recallOnDataAccess = 0x00400000;
    return (attributes & (FILE_ATTRIBUTE_OFFLINE | recallOnDataAccess)) != 0;
}

}  // namespace

Util::Win32Result<FileFacts> FactsOf(HANDLE file) noexcept {
    FileFacts facts;
    SetLastError(NO_ERROR);
    if (const DWORD type = GetFileType(file); type != FILE_TYPE_DISK) {
        const DWORD error = GetLastError();
        return type == FILE_TYPE_UNKNOWN && error != NO_ERROR ? std::unexpected(error)
                                                              : Util::Win32Result<FileFacts>(facts);
    }
    // GetFileInformationByHandle would also ask for the volume, which takes a request of its own.
    FILE_BASIC_INFO basic{};
    FILE_STANDARD_INFO standard{};
    if (GetFileInformationByHandleEx(file, FileBasicInfo, &basic, sizeof basic) == FALSE ||
        GetFileInformationByHandleEx(file, FileStandardInfo, &standard, sizeof standard) == FALSE) {
        return Util::LastError();
    }
    facts.isReparsePoint = (basic.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if (facts.isReparsePoint) {
        FILE_ATTRIBUTE_TAG_INFO tag{};
        facts.isLink = GetFileInformationByHandleEx(file, FileAttributeTagInfo, &tag, sizeof tag) == FALSE ||
                       IsLink(tag.FileAttributes, tag.ReparseTag);
    }
    facts.isStoredElsewhere = IsStoredElsewhere(basic.FileAttributes);
    facts.kind = standard.Directory != FALSE ? FileKind::Directory : FileKind::Regular;
    if (facts.kind == FileKind::Regular) {
        facts.size = static_cast<std::uint64_t>(standard.EndOfFile.QuadPart);
    }
    facts.links = standard.NumberOfLinks;
    facts.lastWrite = static_cast<std::uint64_t>(basic.LastWriteTime.QuadPart);
    return facts;
}

Util::Win32Result<FileFacts> FactsOfOnlyName(HANDLE file) noexcept {
    auto facts = FactsOf(file);
    if (facts && facts->isLink) {
        return std::unexpected<DWORD>(ERROR_CANT_RESOLVE_FILENAME);
    }
    // Some file systems count a folder's subfolders as links.
    if (facts && facts->kind == FileKind::Regular && facts->links > 1) {
        return std::unexpected<DWORD>(ERROR_TOO_MANY_LINKS);
    }
    return facts;
}

FileFacts QueryStatus(const std::filesystem::path& path, const char* operation) {
    const auto file = OpenTrusted(path, queryAccess);
    const auto facts = file ? FactsOf(file->Get()) : std::unexpected(file.error());
    if (!facts && !IsNotFound(facts.error())) {
        ThrowFileSystemError(operation, path, facts.error());
    }
    return facts.value_or(FileFacts{.kind = FileKind::NotFound});
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
    // No reparse point on a disk has the tag zero: where it is reported, the kind is unknown, and only what is known to
    // be an ordinary file is treated as one.
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (IsReparseTagNameSurrogate(reparseTag) || reparseTag == IO_REPARSE_TAG_RESERVED_ZERO);
}

Util::Win32Result<void> CheckPlainFile(HANDLE file) noexcept {
    const auto facts = FactsOfOnlyName(file);
    if (!facts) {
        return std::unexpected(facts.error());
    }
    if (facts->kind != FileKind::Regular) {
        return std::unexpected<DWORD>(facts->kind == FileKind::Directory ? ERROR_DIRECTORY : ERROR_BAD_FILE_TYPE);
    }
    return {};
}

bool IsSameFile(const std::filesystem::path& left, const std::filesystem::path& right) {
    const auto one = OpenTrusted(left, queryAccess);
    const auto other = OpenTrusted(right, queryAccess);
    const auto finalPath = [](const auto& file) { return file ? FinalPath(file->Get()).value_or(L"") : L""; };
    const std::wstring path = finalPath(one);
    return !path.empty() && IsSameName(path, finalPath(other));
}

Util::Win32Result<std::wstring> FinalPath(HANDLE file) {
    std::wstring path = Exception::TextOfAnyLength([&](wchar_t* buffer, DWORD size) {
        return GetFinalPathNameByHandleW(file, buffer, size, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    });
    if (path.empty()) {
        return Util::LastError();
    }
    return path;
}

bool IsSameName(std::wstring_view left, std::wstring_view right) noexcept {
    return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

void ThrowFileSystemError(const char* operation, const std::filesystem::path& path, DWORD code) {
    throw std::filesystem::filesystem_error(operation, WithoutFaults(path), ErrorOf(code));
}

void ThrowFileSystemError(const std::string& operation, const std::filesystem::path& from,
                          const std::filesystem::path& to, DWORD code) {
    throw std::filesystem::filesystem_error(operation, WithoutFaults(from), WithoutFaults(to), ErrorOf(code));
}

}  // namespace Shared::FileSystem
