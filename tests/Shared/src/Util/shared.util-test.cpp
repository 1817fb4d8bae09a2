#include <gmock/gmock.h>

#include "shared.exception.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"
#include "test-support.h"

using namespace Shared::Util;

namespace {

auto Fails(const char* text) {
    return testing::ThrowsMessage<Shared::Exception::Win32Exception>(testing::HasSubstr(text));
}

}  // namespace

TEST(ConvertStringType, ValidTextGoesBothWays) {
    const std::pair<std::wstring, std::string> table[] = {
        {L"", ""},
        {L"plain \\ text", "plain \\ text"},
        {L"caf\u00E9 \u4E2D", "caf\xC3\xA9 \xE4\xB8\xAD"},
        {L"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {L"\xFFFF\xE000", "\xEF\xBF\xBF\xEE\x80\x80"},
        {std::wstring(L"a\0b", 3), std::string("a\0b", 3)},
        {std::wstring(100000, L'x'), std::string(100000, 'x')},
    };
    for (const auto& [wide, utf8] : table) {
        EXPECT_EQ(ConvertStringType(std::wstring_view(wide)), utf8);
        EXPECT_EQ(ConvertStringType(std::string_view(utf8)), wide);
        EXPECT_EQ(ToUtf8Lossy(wide), utf8);
        EXPECT_EQ(ToUtf8Lossy(PathFromUtf8(utf8)), utf8);
        EXPECT_EQ(SanitiseUtf8(utf8), utf8);
    }
}

TEST(ConvertStringType, WhatIsInvalidFailsStrictlyAndIsReplacedLossily) {
    const std::string mark = "\xEF\xBF\xBD";
    const std::pair<std::wstring, std::string> surrogates[] = {
        {L"a\xD83D", "a" + mark},
        {L"\xDFFFz", mark + "z"},
        {L"\xD83D\xD83D\xDE00", mark + "\xF0\x9F\x98\x80"},
        {L"\xDE00\xD83D", mark + mark},
    };
    for (const auto& [wide, lossy] : surrogates) {
        EXPECT_THAT([&] { (void)ConvertStringType(std::wstring_view(wide)); },
                    Fails(": ConvertWStringToString(): WideCharToMultiByte() [1] failed --> "));
        EXPECT_EQ(ToUtf8Lossy(wide), lossy);
    }
    const std::pair<std::string, std::string> sequences[] = {
        {"a\x80z", "a" + mark + "z"},                                // stray continuation
        {"\xC0\xAF", mark + mark},                                   // overlong
        {"\xE2\x82", mark + mark},                                   // cut off
        {"\xE2\x82\x41", mark + mark + "A"},                         // interrupted
        {"\xED\xA0\x80", mark + mark + mark},                        // surrogate
        {"\xF4\x90\x80\x80\xF5", mark + mark + mark + mark + mark},  // beyond U+10FFFF
        {"caf\xE9", "caf" + mark},                                   // another code page
    };
    for (const auto& [bytes, valid] : sequences) {
        EXPECT_THAT([&] { (void)ConvertStringType(std::string_view(bytes)); },
                    Fails(": ConvertStringToWString(): MultiByteToWideChar() [1] failed --> "));
        EXPECT_EQ(SanitiseUtf8(bytes), valid);
    }
}

TEST(GetTimeAsUtcString2, FormatsAndRefuses) {
    EXPECT_EQ(GetTimeAsUtcString2({2024, 2, 4, 29, 3, 4, 5, 7}), L"2024-02-29T03:04:05.007Z");
    EXPECT_THAT([] { (void)GetTimeAsUtcString2({2024, 13, 0, 1, 0, 0, 0, 0}); }, Fails(": GetDateFormatEx() failed"));
    EXPECT_THAT([] { (void)GetTimeAsUtcString2({2024, 1, 1, 1, 25, 0, 0, 0}); }, Fails(": GetTimeFormatEx() failed"));
}

TEST(UniqueHandle, ClosesOnceAndKeepsTheLastError) {
    const unsigned before = TestSupport::HandleCount();
    KernelHandle first(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    KernelHandle second(std::move(first));
    first = std::move(second);
    SetLastError(77);
    first.Reset();
    EXPECT_EQ(GetLastError(), 77U);
    EXPECT_EQ(TestSupport::HandleCount(), before);
}
