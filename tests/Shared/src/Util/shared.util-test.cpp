#include <gmock/gmock.h>

#include "shared.exception.h"
#include "shared.util-functions.h"

using namespace Shared::Util;

namespace {

auto Fails(const char* text) {
    return testing::ThrowsMessage<Shared::Exception::Win32Exception>(testing::HasSubstr(text));
}

}  // namespace

TEST(Conversions, ReplaceOrRefuseWhatIsInvalidAlone) {
    const std::string mark = "\xEF\xBF\xBD";
    const std::tuple<std::wstring, std::string, bool> texts[] = {
        {L"", "", true},
        {std::wstring(L"caf\u00E9\0\u4E2D\xFFFF\xE000", 8),
         std::string("caf\xC3\xA9\0\xE4\xB8\xAD\xEF\xBF\xBF\xEE\x80\x80", 15), true},
        {L"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", true},
        {std::wstring(100000, L'x'), std::string(100000, 'x'), true},
        {L"a\xD83D", "a" + mark, false},
        {L"\xDE00\xD83D\xD83D\xDE00z", mark + mark + "\xF0\x9F\x98\x80z", false},
    };
    for (const auto& [wide, utf8, isValid] : texts) {
        EXPECT_EQ(ToUtf8Lossy(wide), utf8);
        if (isValid) {
            EXPECT_EQ(ConvertStringType(wide), utf8);
            EXPECT_EQ(PathFromUtf8(utf8).native(), wide);
            EXPECT_EQ(SanitiseUtf8(utf8), utf8);
        } else {
            EXPECT_THAT([&] { (void)ConvertStringType(wide); },
                        Fails(": ConvertWStringToString(): WideCharToMultiByte() [1] failed --> "));
        }
    }
    // A stray continuation, an overlong form, cut off ones, a surrogate, beyond U+10FFFF, another code page. How many
    // marks each becomes is the system's choice.
    for (const char* faulty :
         {"\x80", "\xC0\xAF", "\xE2\x82", "\xF0\x9F\x98", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE9"}) {
        EXPECT_THAT(SanitiseUtf8("a" + std::string(faulty) + "zzz"),
                    AllOf(testing::StartsWith("a" + mark), testing::EndsWith(mark + "zzz")));
    }
}
