#include <gmock/gmock.h>

#include "shared.exception.h"
#include "shared.util-fixedstring.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "test-support.h"

using namespace Shared::Util;
using Shared::Exception::Win32Exception;
using testing::HasSubstr;

namespace {

// The text and code of the Win32Exception that the action throws.
template <class Action>
std::pair<std::string, DWORD> FailureOf(const Action& action) {
    try {
        (void)action();
    } catch (const Win32Exception& error) {
        return {error.what(), error.Code()};
    }
    return {"nothing thrown", 0};
}

template <FixedString Text>
constexpr auto viewOf = Text.ToView();

}  // namespace

TEST(ConvertStringType, ValidTextGoesBothWays) {
    const struct {
        std::wstring wide;
        std::string utf8;
    } table[] = {
        {L"", ""},
        {L"plain \\ text", "plain \\ text"},
        {L"caf\u00E9 \u4E2D", "caf\xC3\xA9 \xE4\xB8\xAD"},
        {L"\xD83D\xDE00", "\xF0\x9F\x98\x80"},
        {L"\xFFFF\xE000", "\xEF\xBF\xBF\xEE\x80\x80"},
        {std::wstring(L"a\0b", 3), std::string("a\0b", 3)},
        {std::wstring(100000, L'x'), std::string(100000, 'x')},
    };
    for (const auto& [wide, utf8] : table) {
        EXPECT_EQ(ConvertStringType(std::wstring_view(wide)), utf8);
        EXPECT_EQ(ConvertStringType(std::string_view(utf8)), wide);
        EXPECT_EQ(ToUtf8(wide), utf8);
        EXPECT_EQ(ToUtf8(PathFromUtf8(utf8)), utf8);
        EXPECT_EQ(SanitiseUtf8(utf8), utf8);
    }
}

TEST(ConvertStringType, LoneSurrogatesFailStrictlyAndAreReplacedLossily) {
    const struct {
        std::wstring wide;
        std::string lossy;
    } table[] = {
        {L"a\xD83D", "a\xEF\xBF\xBD"},
        {L"\xDE00z", "\xEF\xBF\xBDz"},
        {L"\xD83D\xD83D\xDE00", "\xEF\xBF\xBD\xF0\x9F\x98\x80"},
        {L"\xDE00\xD83D", "\xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const auto& [wide, lossy] : table) {
        const auto [text, code] = FailureOf([&] { return ConvertStringType(std::wstring_view(wide)); });
        EXPECT_THAT(text, HasSubstr(": ConvertWStringToString(): WideCharToMultiByte() [1] failed --> "));
        EXPECT_EQ(code, DWORD{ERROR_NO_UNICODE_TRANSLATION});
        EXPECT_EQ(ToUtf8(wide), lossy);
    }
}

TEST(SanitiseUtf8, InvalidBytesAreReplacedOneByOne) {
    const std::string mark = "\xEF\xBF\xBD";
    const struct {
        std::string bytes;
        std::string valid;
    } table[] = {
        {"a\x80z", "a" + mark + "z"},                                // stray continuation
        {"\xC0\xAF", mark + mark},                                   // overlong
        {"\xE2\x82", mark + mark},                                   // cut off
        {"\xE2\x82\x41", mark + mark + "A"},                         // interrupted
        {"\xED\xA0\x80", mark + mark + mark},                        // surrogate
        {"\xF4\x90\x80\x80\xF5", mark + mark + mark + mark + mark},  // beyond U+10FFFF
        {"caf\xE9", "caf" + mark},                                   // another code page
    };
    for (const auto& [bytes, valid] : table) {
        EXPECT_EQ(SanitiseUtf8(bytes), valid);
        EXPECT_THAT(FailureOf([&] { return ConvertStringType(std::string_view(bytes)); }).first,
                    HasSubstr("ConvertStringToWString(): MultiByteToWideChar() [1] failed --> "));
    }
}

TEST(GetTimeAsUtcString2, FormatsAndRefuses) {
    EXPECT_EQ(GetTimeAsUtcString2({2024, 2, 4, 29, 3, 4, 5, 7}), L"2024-02-29T03:04:05.007Z");
    EXPECT_EQ(GetTimeAsUtcString2({1999, 12, 5, 31, 23, 59, 59, 999}), L"1999-12-31T23:59:59.999Z");
    EXPECT_THAT(FailureOf([] { return GetTimeAsUtcString2({2024, 13, 0, 1, 0, 0, 0, 0}); }).first,
                HasSubstr(": GetDateFormatEx() failed --> "));
    EXPECT_THAT(FailureOf([] { return GetTimeAsUtcString2({2024, 1, 1, 1, 25, 0, 0, 0}); }).first,
                HasSubstr(": GetTimeFormatEx() failed --> "));
}

TEST(FixedString, HoldsExactlyTheLiteralsCharacters) {
    EXPECT_EQ(viewOf<"agent.log">, "agent.log");
    EXPECT_EQ(viewOf<L"SOFTWARE\\X">, L"SOFTWARE\\X");
    EXPECT_TRUE(viewOf<"">.empty());
}

TEST(UniqueHandle, ClosesOnceAndKeepsTheLastError) {
    const unsigned before = TestSupport::HandleCount();
    {
        KernelHandle first(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        KernelHandle second(std::move(first));
        EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): the moved-from state is promised
        first = std::move(second);
        first.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        EXPECT_EQ(TestSupport::HandleCount(), before + 1);
        const FileHandle none;
        EXPECT_FALSE(none);
        SetLastError(77);
    }
    EXPECT_EQ(GetLastError(), 77U);
    EXPECT_EQ(TestSupport::HandleCount(), before);
}
