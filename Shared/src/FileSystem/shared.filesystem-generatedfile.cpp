#include "shared.filesystem-generatedfile.h"

#include <windows.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-removal.h"
#include "shared.util-functions.h"

namespace Shared::FileSystem {

GeneratedFile::GeneratedFile(std::filesystem::path path) : path_(std::move(path)) {
    if (const DWORD error = RemoveName(path_); error != ERROR_SUCCESS) {
        throw Exception::Win32Exception("Cannot remove the old file " + Util::ToUtf8(path_), error);
    }
    // CREATE_NEW never opens what somebody has put under the name in the meantime, and the reparse-point flag keeps
    // the call from following a link there.
    file_.Reset(CreateFileW(LongForm(path_).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!file_) {
        const DWORD error = GetLastError();
        throw Exception::Win32Exception("Cannot create the file " + Util::ToUtf8(path_), error);
    }
}

GeneratedFile::~GeneratedFile() {
    file_.Reset();
    FileObjectRemover(path_).Clear();
}

void GeneratedFile::WriteText(std::string_view text) {
    std::string translated;
    translated.reserve(text.size() + (text.size() / 32));
    for (const char character : text) {
        if (character == '\n') {
            translated += '\r';
        }
        translated += character;
    }
    WriteBytes(translated);
}

void GeneratedFile::WriteBytes(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 1U << 20U));
        DWORD written = 0;
        if (::WriteFile(file_.Get(), bytes.data(), chunk, &written, nullptr) == FALSE) {
            const DWORD error = GetLastError();
            throw Exception::Win32Exception("Cannot write the file " + Util::ToUtf8(path_), error);
        }
        bytes.remove_prefix(written);
    }
}

}  // namespace Shared::FileSystem
