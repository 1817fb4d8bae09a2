#include "shared.filesystem-privatefile.h"

#include <fmt/format.h>
#include <fmt/xchar.h>
#include <sddl.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <utility>

#include "shared.filesystem-longpath.h"

namespace Shared::FileSystem {

namespace {

Util::Win32Result<std::wstring> RunningUser() {
    HANDLE opened = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened) == FALSE) {
        return Util::LastError();
    }
    const Util::KernelHandle token(opened);
    alignas(TOKEN_USER) std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user{};
    DWORD size = 0;
    LPWSTR text = nullptr;
    if (GetTokenInformation(token.Get(), TokenUser, user.data(), static_cast<DWORD>(user.size()), &size) == FALSE ||
        ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid, &text) == FALSE) {
        return Util::LastError();
    }
    const Util::LocalMemory memory(text);
    return text;
}

SECURITY_ATTRIBUTES AttributesOf(const Util::LocalMemory& descriptor) {
    return {.nLength = sizeof(SECURITY_ATTRIBUTES), .lpSecurityDescriptor = descriptor.Get(), .bInheritHandle = FALSE};
}

// Each call returns another path, also in other processes that run at the same time.
std::filesystem::path UniquePath(const std::filesystem::path& start) {
    static std::atomic<unsigned> number = 0;
    return fmt::format(L"{}.{:x}-{:x}-{}.tmp", start.native(), GetCurrentProcessId(), GetTickCount64(), ++number);
}

}  // namespace

Util::Win32Result<Util::LocalMemory> PrivateDescriptor(Inheritance inheritance) {
    const auto user = RunningUser();
    if (!user) {
        return std::unexpected(user.error());
    }
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const std::wstring text = fmt::format(L"D:P(A;{0};FA;;;SY)(A;{0};FA;;;BA)(A;{0};FA;;;OW)(A;{0};FA;;;{1})",
                                          inheritance == Inheritance::Contents ? L"OICI" : L"", *user);
    if (ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr) ==
        FALSE) {
        return Util::LastError();
    }
    return Util::LocalMemory(descriptor);
}

Util::Win32Result<Util::FileHandle> CreatePrivateFile(const std::filesystem::path& path, DWORD access, DWORD sharing) {
    const auto descriptor = PrivateDescriptor(Inheritance::None);
    if (!descriptor) {
        return std::unexpected(descriptor.error());
    }
    SECURITY_ATTRIBUTES attributes = AttributesOf(*descriptor);
    Util::FileHandle file(CreateFileW(LongForm(path).c_str(), access, sharing, &attributes, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!file) {
        return Util::LastError();
    }
    return file;
}

Util::Win32Result<void> CreatePrivateFolder(const std::filesystem::path& path) {
    const auto descriptor = PrivateDescriptor(Inheritance::Contents);
    if (!descriptor) {
        return std::unexpected(descriptor.error());
    }
    SECURITY_ATTRIBUTES attributes = AttributesOf(*descriptor);
    return Util::ResultOf(CreateDirectoryW(LongForm(path).c_str(), &attributes));
}

Util::Win32Result<NamedFile> CreateUniqueFile(const std::filesystem::path& start, DWORD access, DWORD sharing) {
    std::filesystem::path path = UniquePath(start);
    auto file = CreatePrivateFile(path, access, sharing);
    if (!file) {
        return std::unexpected(file.error());
    }
    return NamedFile{.path = std::move(path), .handle = *std::move(file)};
}

Util::Win32Result<std::filesystem::path> CreateUniqueFolder(const std::filesystem::path& start) {
    std::filesystem::path path = UniquePath(start);
    if (const auto created = CreatePrivateFolder(path); !created) {
        return std::unexpected(created.error());
    }
    return path;
}

}  // namespace Shared::FileSystem
