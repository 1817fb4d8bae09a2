#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <source_location>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "shared.exception.h"
#include "shared.util-win32result.h"

/// Read-only access to the registry, in the native 64-bit view.
namespace Shared::Registry {

/// A registry call that failed, with its Win32 code.
class RegistryException : public Exception::Win32Exception {
public:
    using CodedException::CodedException;
};

/// Opens a key below the parent; the caller closes it. Throws RuntimeException for a null parent, NotFoundException
/// when there is no such key, Win32Exception for any other failure. A path that holds a NUL cannot be opened:
/// ERROR_INVALID_NAME.
[[nodiscard]] HKEY OpenKey(HKEY parent, const std::wstring& path, std::uint32_t access);

/// "HKEY_LOCAL_MACHINE" and its like; "(unknown superkey)" for what is not one of the five root keys.
[[nodiscard]] std::wstring_view SuperkeyName(HKEY key) noexcept;

/// The key's default value, without its terminator. "(value not set)" when there is none, when it is no text and when
/// it has no bytes. As the call does, this takes a REG_EXPAND_SZ for a REG_SZ, with the variables of its text expanded.
/// Throws InvalidArgumentException for a null key, RegistryException when the value cannot be read.
[[nodiscard]] std::wstring RegGetDefault(HKEY key);

/// A REG_SZ value up to its first terminator, or a REG_EXPAND_SZ value expanded. Throws InvalidArgumentException for a
/// null root, RegistryException when there is no such value or it is of another type.
[[nodiscard]] std::wstring RegGetString(HKEY root, std::wstring_view subkey, std::wstring_view name);

/// The strings of a REG_MULTI_SZ value, with the empty one before the terminator of the list: "a", "b" comes back as
/// "a", "b", "". Throws as RegGetString does.
[[nodiscard]] std::vector<std::wstring> RegGetMultiString(HKEY root, std::wstring_view subkey, std::wstring_view name);

/// A registry call that reads a value into a buffer of `*size` bytes, or only sets `*size` when the buffer is null.
using RegistryQuery = std::function<LSTATUS(void* buffer, DWORD* size)>;

/// The bytes of a value, which may grow while it is read; ERROR_MORE_DATA when it outgrows its buffer again and again.
[[nodiscard]] Util::Win32Result<std::vector<std::byte>> ReadGrowing(const RegistryQuery& query);

/// The text at the start of a value's bytes: up to a terminator or to the last whole character.
[[nodiscard]] std::wstring FirstText(std::span<const std::byte> data);

/// All texts of a value's bytes, of which each but the last one ends with a terminator.
[[nodiscard]] std::vector<std::wstring> Texts(std::span<const std::byte> data);

/// The number of a value's first four bytes; of fewer bytes the missing ones count as zero.
[[nodiscard]] std::uint32_t Number(std::span<const std::byte> data) noexcept;

/// Throws RegistryException "{}; key: {:#X}; subkey: {}; value name: {}".
[[noreturn]] void ThrowRegError(std::uint32_t code, std::wstring_view message, HKEY key, std::wstring_view subkey,
                                std::wstring_view name,
                                const std::source_location& location = std::source_location::current());

}  // namespace Shared::Registry
