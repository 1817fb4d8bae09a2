#include <gmock/gmock.h>

#include <span>
#include <tuple>

#include "shared.registry-functions.h"
#include "shared.registry-regkey.h"
#include "test-support.h"

namespace Shared::Registry {
namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::Raw;

const std::wstring path = L"SOFTWARE\\Velqor\\OXM";

class RegistryTest : public testing::Test {
protected:
    [[nodiscard]] static RegKey Key() { return {HKEY_LOCAL_MACHINE, path, KEY_READ}; }

    TestSupport::ThrowAwayHive hive_;
    TestSupport::CapturedLog log_;
};

TEST_F(RegistryTest, TextsEndAtTheirTerminator) {
    const std::tuple<std::string, std::wstring, std::wstring> cases[] = {
        {Raw(L"abc\0"s), L"abc", L"abc"},
        {Raw(L"abc"), L"abc", L"abc"},
        {Raw(L"a\0b\0"s), L"a", L"a\0b"s},
        {Raw(L"\0"s), L"", L""},
        {Raw(std::wstring(1 << 19, L'x')), std::wstring(1 << 19, L'x'), std::wstring(1 << 19, L'x')},
    };
    EXPECT_EQ((hive_.CreateKey(path), Key().DefaultValue()), L"(value not set)");
    EXPECT_THROW((void)OpenKey(HKEY_LOCAL_MACHINE, path + L"\0x"s, KEY_READ), Exception::Win32Exception)
        << "the system's function would open the key before the NUL";
    for (const auto& [stored, string, defaultValue] : cases) {
        hive_.SetRaw(path, L"", REG_SZ, stored);
        EXPECT_EQ(RegGetString(HKEY_LOCAL_MACHINE, path, L""), string);
        EXPECT_EQ(Key().DefaultValue(), defaultValue);
    }
    hive_.SetDword(path, L"", 7);
    EXPECT_EQ(Key().DefaultValue(), L"(value not set)");
    hive_.SetRaw(path, L"list", REG_MULTI_SZ, Raw(L"a\0b\0\0"s));
    EXPECT_THAT(RegGetMultiString(HKEY_LOCAL_MACHINE, path, L"list"), ElementsAre(L"a", L"b", L""));
}

TEST_F(RegistryTest, AValueIsOneLine) {
    const std::tuple<DWORD, std::string, std::wstring> cases[] = {
        {REG_SZ, Raw(L"text\0rest"s), L"[String] Name = text"},
        {REG_SZ, Raw(L"open"), L"[String] Name = open"},
        {REG_SZ, Raw(L"odd") + "x", L"[String] Name = odd"},
        {REG_SZ, "", L""},
        {REG_DWORD, "\x01\x02", L"[DWord] Name = 513"},
        {REG_DWORD, "\x01\0\0\0\x01\0\0\0"s, L"[DWord] Name = 1"},
        {77, "x", L"Value Name of type 77 ignored"},
        // The walk by bytes: "abcd", at offset 5 a unit made of two halves, then an empty text at each offset.
        {REG_MULTI_SZ, Raw(L"abcd\0\0"s), L"[Multistring] Name = abcd\x7C20\x6400\x7C20\x7C20\x7C20\x7C20\x7C20"},
        {REG_MULTI_SZ, "a", L"[Multistring] Name = "},
        {REG_MULTI_SZ, "\x61\0\x62"s, L"[Multistring] Name = a\x7C20"},
    };
    for (const auto& [type, stored, line] : cases) {
        const auto bytes = std::as_bytes(std::span(stored));
        const RegKey::Value value{.data = {bytes.begin(), bytes.end()}, .type = type, .name = L"Name"};
        EXPECT_EQ(value.ToWide(), line) << "type " << type << ", bytes " << testing::PrintToString(stored);
    }
    EXPECT_THAT(log_.Text(), HasSubstr("Ignored value name Name as it was of value type 77."));
}

}  // namespace
}  // namespace Shared::Registry
