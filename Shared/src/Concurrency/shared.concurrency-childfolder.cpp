#include "shared.concurrency-childfolder.h"

#include <windows.h>

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <string>

#include "shared.exception.h"
#include "shared.filesystem-longpath.h"
#include "shared.filesystem-privatefile.h"
#include "shared.system-functions.h"

namespace Shared::Concurrency {

namespace {

std::filesystem::path CreateUniqueFolder(const std::filesystem::path& parent) {
    constexpr int attempts = 100;
    for (int attempt = 1;; ++attempt) {
        std::filesystem::path folder =
            parent / fmt::format(L"AgentCLI.{:x}-{:x}-{}", GetCurrentProcessId(), GetTickCount64(), attempt);
        const auto created = FileSystem::CreatePrivateFolder(folder);
        if (created) {
            return folder;
        }
        if (created.error() != ERROR_ALREADY_EXISTS || attempt == attempts) {
            throw Exception::Win32Exception("Cannot create a folder for a command", created.error());
        }
    }
}

}  // namespace

ChildFolder::ChildFolder() : ChildFolder(FileSystem::FullPath(L".").native()) {}

ChildFolder::ChildFolder(std::wstring_view currentDirectory) {
    if (currentDirectory.starts_with(LR"(\\)")) {
        path_ = CreateUniqueFolder(System::GetWindowsPath() / L"Temp");
        remover_ = FileSystem::FileObjectRemover(path_);
    }
}

}  // namespace Shared::Concurrency
