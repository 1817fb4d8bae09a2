#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "shared.util-handle.h"

namespace Shared::Registry {

/// An open registry key, owned and read-only. The key is closed when the object is destroyed or assigned over; a
/// default-constructed or moved-from object holds none.
struct RegKey {
    struct Value {
        /// The bytes as they are stored: of any length, whatever the type, and not necessarily terminated.
        std::vector<std::byte> data;
        std::uint32_t type = REG_NONE;
        /// Empty for the default value.
        std::wstring name;

        /// The value as one line of text without a line end; empty for a value without data. Reads no further than the
        /// data: a number of fewer than four bytes is extended with zeroes, a text ends where the data does. The
        /// strings of a multi-string are looked for at byte offsets that advance by one more than the number of
        /// characters read, so only the first one comes out clean; they are joined with U+7C20.
        [[nodiscard]] std::wstring ToWide() const;
    };

    RegKey() noexcept = default;
    /// Throws InvalidArgumentException for a null root, otherwise what OpenKey throws.
    RegKey(HKEY rootKey, std::wstring path, std::uint32_t accessMask);

    /// As the constructor; a failure is logged as a warning and its text returned.
    [[nodiscard]] static std::expected<RegKey, std::string> Open(HKEY rootKey, const std::wstring& path,
                                                                 std::uint32_t accessMask) noexcept;

    /// As the constructor, but none for a key that does not exist.
    [[nodiscard]] static std::optional<RegKey> Find(HKEY rootKey, std::wstring path, std::uint32_t accessMask);

    /// The direct subkeys, open with the same access. Throws RuntimeException without a key, Win32Exception when the
    /// enumeration fails, and what OpenKey throws for a subkey that cannot be opened.
    [[nodiscard]] std::vector<RegKey> Subkeys() const;

    /// The last write time in UTC, "07:05:09 2024-03-01". Throws RuntimeException without a key, Win32Exception when
    /// it cannot be had.
    [[nodiscard]] std::string LastWrittenTo() const;

    /// What RegGetDefault gives for the key. Throws RuntimeException without a key.
    [[nodiscard]] std::wstring DefaultValue() const;

    /// The size of a value in bytes, or a Win32 code (ERROR_BAD_ARGUMENTS without a key).
    [[nodiscard]] std::expected<unsigned long, long> GetValueSize(const std::wstring& valueName) const noexcept;

    /// A value, or a Win32 code (ERROR_BAD_ARGUMENTS without a key). A value that grows while it is read is read again.
    [[nodiscard]] std::expected<Value, long> GetRawValue(const std::wstring& valueName) const noexcept;

    /// All values in the registry's order. A value that cannot be read is left out; an enumeration that fails ends the
    /// list with a warning in the log.
    [[nodiscard]] std::vector<Value> GetAllValues() const noexcept;

    Util::RegistryHandle handle;
    std::uint32_t access = 0;
    /// The path below the root, without the root's name.
    std::wstring name;
    HKEY root = nullptr;
};

}  // namespace Shared::Registry
