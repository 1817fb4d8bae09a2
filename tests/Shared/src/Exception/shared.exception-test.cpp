#include <windows.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

#include "shared.exception-messages.h"
#include "shared.exception.h"
#include "shared.util-functions.h"

using namespace Shared::Exception;
using testing::AnyOf;
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
    return Shared::Util::ToUtf8(words);
}

std::string Translated(const std::string& words, DWORD code) {
    return words.empty() ? fmt::format("Failed to translate Win32 error code: {}", code) : words;
}

constexpr int throwLine = __LINE__ + 2;
[[noreturn]] void ThrowFromHere() {
    throw NotFoundException("lost");
}

std::string TextOfThrow() {
    try {
        ThrowFromHere();
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
    EXPECT_THAT(first, HasSubstr("ThrowFromHere"));
    EXPECT_THAT(first, HasSubstr("\n\tSource file: "));
    EXPECT_THAT(first, EndsWith(fmt::format("shared.exception-test.cpp:{}\n", throwLine)));
    EXPECT_LT(frames.find("ThrowFromHere"), frames.find("TextOfThrow"));
    EXPECT_LT(frames.find("TextOfThrow"), frames.find("!main+"));
    const std::string last = frames.substr(frames.rfind("\tFrame: "));
    EXPECT_THAT(last, StartsWith("\tFrame: shared-exception-test!main+"));
    EXPECT_THAT(last, EndsWith("\n\t------------------------------------\n"));
}

TEST(Exception, FramesWithoutSymbolsNameModuleAndOffset) {
    std::string text;
    INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    const PINIT_ONCE_FN callback = [](PINIT_ONCE, void* result, void**) -> BOOL {
        *static_cast<std::string*>(result) = StackTrace::Capture().ToString();
        return TRUE;
    };
    ASSERT_TRUE(InitOnceExecuteOnce(&once, callback, &text, nullptr));
    EXPECT_THAT(text, AnyOf(HasSubstr("\tFrame: ntdll+0x"), HasSubstr("\tFrame: KERNELBASE+0x")));
    EXPECT_THAT(text, HasSubstr("!main+"));
}

TEST(Exception, ThreadsResolveTheSameTextSideBySide) {
    const auto several = [] {
        std::vector<std::string> texts;
        for (int count = 0; count < 1000; ++count) {
            texts.push_back(TextOfThrow());
        }
        // Frames below the thread's own function differ from thread to thread.
        const std::string first = texts.front();
        return std::ranges::count(texts, first) == 1000 ? first.substr(0, first.find("TextOfThrow")) : "differing";
    };
    std::array<std::string, 4> results;
    {
        std::vector<std::jthread> threads;
        for (std::string& result : results) {
            threads.emplace_back([&] { result = several(); });
        }
    }
    const std::string expected = TextOfThrow();
    EXPECT_THAT(results, testing::Each(expected.substr(0, expected.find("TextOfThrow"))));
}

TEST(Exception, CodedTexts) {
    const auto where = std::source_location::current();
    const StackTrace none;
    const std::string place = fmt::format("Exception in function {}() in {}:{}:{}: it failed", where.function_name(),
                                          where.file_name(), where.line(), where.column());
    EXPECT_EQ(Win32Exception("it failed", 0, where, none).what(), place + "\nStacktrace:\n");

    const struct {
        DWORD code;
        std::string shown;
        std::string hintStart;
    } table[] = {
        {5, "0X5 (5)", ""},
        {12002, "0X2EE2 (12002)", "(This usually indicates your Internet"},
        {12007, "0X2EE7 (12007)", "(DNS issues usually"},
        {12030, "0X2EFE (12030)", "(This indicates the connection was dropped."},
        {12031, "0X2EFF (12031)", ""},
        {0x80090328, "0X80090328 (2148074280)", "(Your agent's local client certificate"},
        {0xE0001234, "0XE0001234 (3758101044)", ""},
    };
    for (const auto& [code, shown, hintStart] : table) {
        SetLastError(77);
        const Win32Exception win32("it failed", code, where, none);
        EXPECT_EQ(GetLastError(), 77U);
        EXPECT_EQ(win32.Code(), code);
        const std::string_view hint = HintFor(code);
        EXPECT_THAT(hint, StartsWith(hintStart));
        EXPECT_EQ(hint.empty(), hintStart.empty()) << code;
        EXPECT_EQ(win32.what(),
                  fmt::format("{} --> {} (error code {})\nStacktrace:\n {}", place, Win32Message(code), shown, hint));
        const std::string hex = shown.substr(0, shown.find(' '));
        EXPECT_EQ(
            NtStatusException("it failed", code, where, none).what(),
            fmt::format("{} --> {} (NTSTATUS code {}).\nStacktrace:\n {}", place, NtStatusMessage(code), hex, hint));
        const auto result = static_cast<std::int32_t>(code);
        EXPECT_EQ(ComException("it failed", result, where, none).what(),
                  fmt::format("COM {} --> {} (HRESULT {})\nStacktrace:\n {}", place, ComMessage(result), hex, hint));
        EXPECT_EQ(DescribeComError("it failed", result),
                  fmt::format("it failed\n Error code: {}\n COM error message: {}\n", hex, ComMessage(result)));
    }
}

TEST(Messages, ComeFromTheSystemsTables) {
    for (const DWORD code : {0UL, 2UL, 5UL, 87UL, 1392UL, 11999UL, 12194UL, 0x80090328UL, 0xE0001234UL}) {
        EXPECT_EQ(Win32Message(code), Translated(WordsOf(code), code));
    }
    EXPECT_NE(WordsOf(5), "");
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    for (const DWORD status : {5UL, 0xC0000022UL, 0xC0000135UL}) {
        EXPECT_EQ(NtStatusMessage(status), Translated(WordsOf(status, FORMAT_MESSAGE_FROM_HMODULE, ntdll), status));
    }
    EXPECT_EQ(ComMessage(E_OUTOFMEMORY), WordsOf(static_cast<DWORD>(E_OUTOFMEMORY)));
    EXPECT_EQ(ComMessage(static_cast<std::int32_t>(0x80049999)), "IDispatch error #38809");
    EXPECT_EQ(ComMessage(static_cast<std::int32_t>(0x8004FFFF)), "IDispatch error #65023");
    EXPECT_EQ(ComMessage(static_cast<std::int32_t>(0x8F00ABCD)), "Unknown error 0x8F00ABCD");
}

// Where winhttp.dll carries no message table the oracle finds nothing and the fallback text is expected.
TEST(Messages, WinHttpCodesComeFromItsModuleWhichIsNotLeftLoaded) {
    ASSERT_EQ(GetModuleHandleW(L"winhttp.dll"), nullptr);
    const std::string unloaded[] = {Win32Message(12000), Win32Message(12002), Win32Message(12193)};
    EXPECT_EQ(GetModuleHandleW(L"winhttp.dll"), nullptr);
    const HMODULE module = LoadLibraryW(L"winhttp.dll");
    ASSERT_NE(module, nullptr);
    const DWORD sources = FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM;
    for (std::size_t row = 0; const DWORD code : {12000UL, 12002UL, 12193UL}) {
        EXPECT_EQ(unloaded[row++], Translated(WordsOf(code, sources, module), code));
        EXPECT_EQ(Win32Message(code), Translated(WordsOf(code, sources, module), code));
    }
    FreeLibrary(module);
    EXPECT_EQ(GetModuleHandleW(L"winhttp.dll"), nullptr);
}

TEST(Messages, FailuresThatMustNotThrowGoToTheWideErrorStream) {
    std::wostringstream written;
    auto* const before = std::wcerr.rdbuf(written.rdbuf());
    SetLastError(77);
    ReportWin32Failure("caf\xC3\xA9", 12030);
    EXPECT_EQ(GetLastError(), 77U);
    std::wcerr.rdbuf(before);
    EXPECT_EQ(Shared::Util::ToUtf8(written.str()),
              fmt::format("caf\xC3\xA9 ===> {} (Win32Exception error code: 12030) {}\n", Win32Message(12030),
                          HintFor(12030)));
}

// Of its own, so that the outermost frame has a name: the framework's main comes without symbols.
int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
