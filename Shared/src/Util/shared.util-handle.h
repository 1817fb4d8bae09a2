#pragma once

#include <windows.h>

#include <combaseapi.h>

#include <utility>

#include "shared.exception-messages.h"
#include "shared.exception-text.h"

namespace Shared::Util {

/// Owns one system object and releases it with the close function of its kind. A kind names the type (`Value`), the
/// value by which its API says "none" (`Invalid`), which values need no release (`IsNone`), and the close function
/// (`Close`). Releasing preserves GetLastError.
template <class Kind>
class UniqueHandle {
public:
    using Value = typename Kind::Value;

    UniqueHandle() noexcept = default;
    explicit UniqueHandle(Value value) noexcept : value_(value) {}
    UniqueHandle(UniqueHandle&& other) noexcept : value_(std::exchange(other.value_, Kind::Invalid())) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) {
            Reset(std::exchange(other.value_, Kind::Invalid()));
        }
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { Reset(); }

    [[nodiscard]] Value Get() const noexcept { return value_; }
    [[nodiscard]] explicit operator bool() const noexcept { return !Kind::IsNone(value_); }

    void Reset(Value value = Kind::Invalid()) noexcept {
        Value old = std::exchange(value_, value);
        if (!Kind::IsNone(old)) {
            const Exception::LastErrorKeeper lastError;
            Kind::Close(old);
        }
    }

private:
    Value value_ = Kind::Invalid();
};

/// A CloseHandle that fails is reported on the wide standard-error stream.
struct KernelHandleKind {
    using Value = HANDLE;
    static HANDLE Invalid() noexcept { return nullptr; }
    static bool IsNone(HANDLE handle) noexcept { return handle == nullptr || handle == INVALID_HANDLE_VALUE; }
    static void Close(HANDLE handle) noexcept {
        if (CloseHandle(handle) == FALSE) {
            Exception::ReportWin32Failure("Failed to close handle due to a Win32 error", GetLastError());
        }
    }
};
struct FileHandleKind : KernelHandleKind {
    static HANDLE Invalid() noexcept { return INVALID_HANDLE_VALUE; }
};
/// For types whose null value means none.
template <class T>
struct PointerKind {
    using Value = T;
    static T Invalid() noexcept { return nullptr; }
    static bool IsNone(T value) noexcept { return value == nullptr; }
};
struct LocalMemoryKind : PointerKind<void*> {
    static void Close(void* memory) noexcept { LocalFree(memory); }
};
struct TaskMemoryKind : PointerKind<void*> {
    static void Close(void* memory) noexcept { CoTaskMemFree(memory); }
};
struct ModuleKind : PointerKind<HMODULE> {
    static void Close(HMODULE module) noexcept { FreeLibrary(module); }
};
struct RegistryKeyKind : PointerKind<HKEY> {
    static void Close(HKEY key) noexcept { RegCloseKey(key); }
};

/// Processes, threads, events, jobs, tokens: null means none.
using KernelHandle = UniqueHandle<KernelHandleKind>;
/// Files, folders and pipe ends: INVALID_HANDLE_VALUE means none.
using FileHandle = UniqueHandle<FileHandleKind>;
/// What the system allocates with LocalAlloc for its caller.
using LocalMemory = UniqueHandle<LocalMemoryKind>;
/// What the system allocates with CoTaskMemAlloc for its caller.
using TaskMemory = UniqueHandle<TaskMemoryKind>;
/// Libraries.
using ModuleHandle = UniqueHandle<ModuleKind>;
/// Registry keys that this process has opened.
using RegistryHandle = UniqueHandle<RegistryKeyKind>;

}  // namespace Shared::Util
