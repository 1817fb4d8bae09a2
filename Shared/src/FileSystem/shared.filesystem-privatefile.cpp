#include "shared.filesystem-privatefile.h"

#include <fmt/format.h>
#include <fmt/xchar.h>
#include <sddl.h>

#include <array>
#include <cstddef>
#include <string>

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

// Calls `create` with the attributes of what only its administrator may open.
template <class Create>
auto WithPrivateAttributes(Inheritance inheritance, const Create& create) -> decltype(create(nullptr)) {
    const auto descriptor = PrivateDescriptor(inheritance);
    if (!descriptor) {
        return std::unexpected(descriptor.error());
    }
    SECURITY_ATTRIBUTES attributes{
        .nLength = sizeof attributes, .lpSecurityDescriptor = descriptor->Get(), .bInheritHandle = FALSE};
    return create(&attributes);
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
    return WithPrivateAttributes(
        Inheritance::None, [&](SECURITY_ATTRIBUTES* attributes) -> Util::Win32Result<Util::FileHandle> {
            Util::FileHandle file(CreateFileW(LongForm(path).c_str(), access, sharing, attributes, CREATE_NEW,
                                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
            if (!file) {
                return Util::LastError();
            }
            return file;
        });
}

Util::Win32Result<void> CreatePrivateFolder(const std::filesystem::path& path) {
    return WithPrivateAttributes(Inheritance::Contents, [&](SECURITY_ATTRIBUTES* attributes) {
        return Util::ResultOf(CreateDirectoryW(LongForm(path).c_str(), attributes));
    });
}

Util::Win32Result<NamedFile> CreateUniqueFile(const std::filesystem::path& start, DWORD access, DWORD sharing) {
    constexpr int attempts = 100;
    for (int attempt = 1;; ++attempt) {
        std::filesystem::path path =
            fmt::format(L"{}.{:x}-{:x}-{}.tmp", start.native(), GetCurrentProcessId(), GetTickCount64(), attempt);
        auto file = CreatePrivateFile(path, access, sharing);
        if (file) {
            return NamedFile{.path = std::move(path), .handle = *std::move(file)};
        }
        if (file.error() != ERROR_FILE_EXISTS || attempt == attempts) {
            return std::unexpected(file.error());
        }
    }
}

}  // namespace Shared::FileSystem
