#include "shared.filesystem-generatedfile.h"

#include <windows.h>

#include <algorithm>
#include <string>
#include <utility>

#include "shared.exception-guardedlog.h"
#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.filesystem-heldfile.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-privatefile.h"
#include "shared.util-functions.h"

namespace Shared::FileSystem {

namespace {

constexpr DWORD access = GENERIC_WRITE;
constexpr DWORD sharing = FILE_SHARE_READ;

}  // namespace

GeneratedFile::GeneratedFile(std::filesystem::path name) : name_(std::move(name)), path_(name_) {
    const auto removed = RemoveName(path_);
    auto created = removed ? RetryWhileHeld([this] { return CreatePrivateFile(path_, access, sharing); })
                           : std::unexpected(removed.error());
    if (created) {
        file_ = *std::move(created);
        remover_ = FileObjectRemover(path_);
        return;
    }
    Exception::LogWarning("The name {} cannot be used: {}", Util::ToUtf8Lossy(name_),
                          Exception::Win32Message(created.error()));
    *this = Unique(name_);
}

GeneratedFile GeneratedFile::Unique(std::filesystem::path name) {
    auto created = CreateUniqueFile(name, access, sharing);
    if (!created) {
        throw Exception::Win32Exception("Cannot create the file " + Util::ToUtf8Lossy(name), created.error());
    }
    return {std::move(name), *std::move(created)};
}

GeneratedFile::GeneratedFile(std::filesystem::path name, NamedFile created)
    : name_(std::move(name)), path_(std::move(created.path)), remover_(path_), file_(std::move(created.handle)) {}

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
            throw Exception::Win32Exception("Cannot write the file " + Util::ToUtf8Lossy(path_), error);
        }
        bytes.remove_prefix(written);
    }
}

void GeneratedFile::RenameOver(const std::filesystem::path& path) {
    file_.Reset();
    const auto renamed = RetryWhileHeld([from = LongForm(path_), to = LongForm(path)] {
        return Util::ResultOf(MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING));
    });
    if (!renamed) {
        throw Exception::Win32Exception("Cannot replace the file " + Util::ToUtf8Lossy(path), renamed.error());
    }
    remover_.Release();
}

}  // namespace Shared::FileSystem
