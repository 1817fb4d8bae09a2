#include <windows.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.util-functions.h"
#include "shared.util-handle.h"

using namespace Shared::Exception;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// The system's own words, read without the code under test; empty when the source holds none.
std::string WordsOf(DWORD code, DWORD source = FORMAT_MESSAGE_FROM_SYSTEM, HMODULE module = nullptr) {
    wchar_t buffer[2000];
    std::wstring words(buffer, FormatMessageW(source | FORMAT_MESSAGE_IGNORE_INSERTS, module, code, 0x400, buffer,
                                              static_cast<DWORD>(std::size(buffer)), nullptr));
    words.resize(words.find_last_not_of(L"\r\n ") + 1);
    return Shared::Util::ToUtf8Lossy(words);
}

std::string Translated(const std::string& words, DWORD code) {
    return words.empty() ? fmt::format("Failed to translate Win32 error code: {}", code) : words;
}

constexpr int throwLine = __LINE__ + 2;
void ThrowFromHere() {
    throw NotFoundException("lost");
}

void CallInALineOfItsOwn() {
    ThrowFromHere();
}

std::string TextOfThrow() {
    try {
        CallInALineOfItsOwn();
        return {};
    } catch (const NotFoundException& error) {
        return error.what();
    }
}

}  // namespace

TEST(Exception, NamesTheThrowAndEveryFrameUpToMain) {
    const std::string text = TextOfThrow();
    const std::string file = "Shared/src/Exception/shared.exception-test.cpp";
    EXPECT_THAT(text, StartsWith("Exception in "));
    EXPECT_THAT(text, HasSubstr(fmt::format("ThrowFromHere()() at tests/{}:{}:11 --> lost\nStacktrace:\n\tFrame: "
                                            "shared-exception-test!",
                                            file, throwLine)));
    const std::string frames = text.substr(text.find("Stacktrace:"));
    const std::string first = frames.substr(0, frames.find("\t---"));
    EXPECT_THAT(first, AllOf(HasSubstr("ThrowFromHere"), HasSubstr("\n\tSource file: "),
                             EndsWith(fmt::format("shared.exception-test.cpp:{}\n", throwLine))));
    // The line of the call, not the one behind it.
    EXPECT_THAT(frames, HasSubstr(fmt::format("shared.exception-test.cpp:{}\n", throwLine + 4)));
    EXPECT_LT(frames.find("TextOfThrow"), frames.find("!main+"));
    EXPECT_THAT(frames.substr(frames.rfind("\tFrame: ")),
                AllOf(StartsWith("\tFrame: shared-exception-test!main+"),
                      EndsWith("\n\t------------------------------------\n")));
}

TEST(Exception, CodedTextsEndWithAHint) {
    const std::uint32_t status = 0x80090328;
    EXPECT_THAT(
        NtStatusException("it failed", status).what(),
        AllOf(HasSubstr("it failed --> " + NtStatusMessage(status) + " (NTSTATUS code 0X80090328).\nStacktrace:\n"),
              EndsWith(HintFor(status))));
    EXPECT_NE(HintFor(status), "");
    EXPECT_EQ(HintFor(12031), "");
    EXPECT_EQ(ComMessage(static_cast<std::int32_t>(0x80040200)), "Unknown error 0x80040200");
}

TEST(Messages, ComeFromTheTablesOfTheSystemAndItsModules) {
    EXPECT_NE(WordsOf(5), "");
    for (const DWORD code : {5UL, 11999UL, 12194UL}) {
        EXPECT_EQ(Win32Message(code), Translated(WordsOf(code), code));
    }
    const std::string words = WordsOf(0xC0000022, FORMAT_MESSAGE_FROM_HMODULE, GetModuleHandleW(L"ntdll.dll"));
    EXPECT_EQ(NtStatusMessage(0xC0000022), Translated(words, 0xC0000022));
    // Where winhttp.dll carries no message table the oracle finds nothing and the fallback text is expected.
    const std::string unloaded = Win32Message(12002);
    EXPECT_EQ(GetModuleHandleW(L"winhttp.dll"), nullptr);
    const Shared::Util::ModuleHandle module(LoadLibraryW(L"winhttp.dll"));
    EXPECT_EQ(
        unloaded,
        Translated(WordsOf(12002, FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM, module.Get()), 12002));
    EXPECT_EQ(Win32Message(12002), unloaded);
}

// Of its own, so that the outermost frame has a name: the framework's main comes without symbols.
int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
