#include "shared.filesystem-removal.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.filesystem-longpath.h"
#include "shared.util-functions.h"

namespace Shared::FileSystem {

namespace {

bool IsMissing(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

DWORD RemoveLongName(const std::wstring& name) {
    const DWORD attributes = GetFileAttributesW(name.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD error = GetLastError();
        return IsMissing(error) ? ERROR_SUCCESS : error;
    }
    const bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if ((folder ? RemoveDirectoryW(name.c_str()) : DeleteFileW(name.c_str())) != FALSE) {
        return ERROR_SUCCESS;
    }
    const DWORD error = GetLastError();
    return IsMissing(error) ? ERROR_SUCCESS : error;
}

struct FindCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const noexcept { FindClose(handle); }
};

struct Child {
    std::wstring name;
    bool realFolder;
};

DWORD ListChildren(const std::wstring& folder, std::vector<Child>& children) {
    WIN32_FIND_DATAW entry{};
    const HANDLE handle = FindFirstFileExW((folder + L"\\*").c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch,
                                           nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (handle == INVALID_HANDLE_VALUE) {
        return GetLastError();
    }
    const std::unique_ptr<HANDLE, FindCloser> search(handle);
    do {
        const std::wstring_view name = entry.cFileName;
        if (name != L"." && name != L"..") {
            children.push_back({folder + L'\\' + entry.cFileName,
                                (entry.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ==
                                    FILE_ATTRIBUTE_DIRECTORY});
        }
    } while (FindNextFileW(search.get(), &entry) != FALSE);
    const DWORD error = GetLastError();
    return error == ERROR_NO_MORE_FILES ? ERROR_SUCCESS : error;
}

// Depth first with a stack of its own: the depth of a folder tree is not ours to trust.
DWORD RemoveTree(const std::wstring& root) {
    std::vector<std::wstring> folders{root};
    for (std::size_t next = 0; next < folders.size(); ++next) {
        std::vector<Child> children;
        if (const DWORD error = ListChildren(folders[next], children); error != ERROR_SUCCESS) {
            return error;
        }
        for (Child& child : children) {
            if (child.realFolder) {
                folders.push_back(std::move(child.name));
            } else if (const DWORD error = RemoveLongName(child.name); error != ERROR_SUCCESS) {
                return error;
            }
        }
    }
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
        if (const DWORD error = RemoveLongName(*folder); error != ERROR_SUCCESS) {
            return error;
        }
    }
    return ERROR_SUCCESS;
}

}  // namespace

DWORD RemoveName(const std::filesystem::path& path) noexcept {
    try {
        return RemoveLongName(LongForm(path).native());
    } catch (...) {
        return ERROR_BAD_PATHNAME;
    }
}

FileObjectRemover::FileObjectRemover(std::filesystem::path path) noexcept : path_(std::move(path)) {}

FileObjectRemover::FileObjectRemover(FileObjectRemover&& other) noexcept : path_(std::exchange(other.path_, {})) {}

FileObjectRemover& FileObjectRemover::operator=(FileObjectRemover&& other) noexcept {
    if (this != &other) {
        Clear();
        path_ = std::exchange(other.path_, {});
    }
    return *this;
}

FileObjectRemover::~FileObjectRemover() {
    Clear();
}

void FileObjectRemover::Clear() noexcept {
    const std::filesystem::path path = std::exchange(path_, {});
    if (path.empty()) {
        return;
    }
    try {
        const std::wstring name = LongForm(path).native();
        DWORD error = RemoveLongName(name);
        if (error == ERROR_DIR_NOT_EMPTY) {
            error = RemoveTree(name);
        }
        if (error != ERROR_SUCCESS) {
            Exception::LogWarning("Failed removing file {}: {}", Util::ToUtf8(path), Exception::Win32Message(error));
        }
    } catch (const std::exception& error) {
        Exception::LogWarning("Failed removing file {}: {}", Util::ToUtf8(path), error.what());
    }
}

}  // namespace Shared::FileSystem
