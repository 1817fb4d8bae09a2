#include "shared.concurrency-pipe.h"

#include <windows.h>

#include <bcrypt.h>
#include <fmt/format.h>
#include <fmt/xchar.h>

#include <array>
#include <cstdint>
#include <source_location>
#include <string>

#include "shared.exception.h"
#include "shared.filesystem-privatefile.h"

namespace Shared::Concurrency {

namespace {

// What the system holds for a child that writes faster than this process reads.
constexpr DWORD pipeBufferSize = 1U << 16U;

[[noreturn]] void ThrowPipeError(DWORD error, const std::source_location& where = std::source_location::current()) {
    throw Exception::Win32Exception("CreatePipe() failed", error, where);
}

SECURITY_ATTRIBUTES Attributes(PSECURITY_DESCRIPTOR descriptor, BOOL inheritable) {
    return {.nLength = sizeof(SECURITY_ATTRIBUTES), .lpSecurityDescriptor = descriptor, .bInheritHandle = inheritable};
}

// A name that no other process can have taken before.
std::wstring UniquePipeName() {
    std::array<std::uint64_t, 2> random{};
    if (BCryptGenRandom(nullptr, reinterpret_cast<PUCHAR>(random.data()), sizeof random,
                        BCRYPT_USE_SYSTEM_PREFERRED_RNG) < 0) {
        ThrowPipeError(ERROR_GEN_FAILURE);
    }
    return fmt::format(LR"(\\.\pipe\AgentCLI-{}-{:016x}{:016x})", GetCurrentProcessId(), random[0], random[1]);
}

}  // namespace

// Anonymous pipes take no overlapped reads, so this is a named pipe, of one instance. Its access list keeps the
// processes of other users from opening the other end before this process does.
Pipe CreateOutputPipe() {
    const std::wstring name = UniquePipeName();
    const auto descriptor = FileSystem::PrivateDescriptor();
    if (!descriptor) {
        ThrowPipeError(descriptor.error());
    }
    SECURITY_ATTRIBUTES attributes = Attributes(descriptor->Get(), FALSE);
    Pipe pipe;
    pipe.read.Reset(CreateNamedPipeW(name.c_str(),
                                     PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                     PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 0,
                                     pipeBufferSize, 0, &attributes));
    if (!pipe.read) {
        ThrowPipeError(GetLastError());
    }
    attributes = Attributes(nullptr, TRUE);
    pipe.write.Reset(
        CreateFileW(name.c_str(), GENERIC_WRITE, 0, &attributes, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!pipe.write) {
        ThrowPipeError(GetLastError());
    }
    return pipe;
}

Pipe CreateInputPipe() {
    SECURITY_ATTRIBUTES attributes = Attributes(nullptr, TRUE);
    HANDLE read = INVALID_HANDLE_VALUE;
    HANDLE write = INVALID_HANDLE_VALUE;
    if (CreatePipe(&read, &write, &attributes, 0) == FALSE) {
        ThrowPipeError(GetLastError());
    }
    Pipe pipe{.read = Util::FileHandle(read), .write = Util::FileHandle(write)};
    if (SetHandleInformation(pipe.write.Get(), HANDLE_FLAG_INHERIT, 0) == FALSE) {
        ThrowPipeError(GetLastError());
    }
    return pipe;
}

}  // namespace Shared::Concurrency
