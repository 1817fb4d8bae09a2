#include "shared.concurrency-childfolder.h"

#include <utility>

#include "shared.exception.h"
#include "shared.filesystem-privatefile.h"
#include "shared.system-functions.h"

namespace Shared::Concurrency {

ChildFolder::ChildFolder() {
    auto created = FileSystem::CreateUniqueFolder(System::GetWindowsPath() / L"Temp" / L"AgentCLI");
    if (!created) {
        throw Exception::Win32Exception("Cannot create a folder for a command", created.error());
    }
    path_ = *std::move(created);
    remover_ = FileSystem::FileObjectRemover(path_);
}

}  // namespace Shared::Concurrency
