#include <windows.h>

#include <fmt/format.h>
#include <fmt/xchar.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <psapi.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include "shared.concurrency-cmdrunner.h"
#include "shared.concurrency-pipe.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace {

using namespace testing;
using namespace std::chrono_literals;
using namespace Shared::Concurrency;

constexpr std::chrono::milliseconds ample = 30s;
constexpr std::chrono::milliseconds brief = 1500ms;

auto What(const char* text) {
    return Property(&std::exception::what, HasSubstr(text));
}

std::wstring ChildLine(const std::wstring& steps) {
    return fmt::format(L"\"{}\" {}", TestSupport::ChildProgram().native(), steps);
}

std::string Pattern(std::size_t count) {
    std::string bytes(count, '\0');
    std::ranges::generate(bytes, [index = std::size_t{0}]() mutable { return static_cast<char>(index++ % 251); });
    return bytes;
}

TEST(CmdRunner, EveryRunEndsWithItsCodeAndOutput) {
    struct Case {
        const char* name;
        std::wstring command;
        std::chrono::milliseconds timeout;
        Matcher<std::uint32_t> exitCode;
        Matcher<const std::string&> output;
    };
    const Matcher<std::uint32_t> terminated = AnyOf(258U, 259U);
    const Case cases[] = {
        {"both streams", ChildLine(L"out one err two exit 7"), ample, 7U, "onetwo"},
        {"nothing", ChildLine(L"exit 0"), ample, 0U, ""},
        {"many chunks", ChildLine(L"bytes 100001"), ample, 0U, Pattern(100001)},
        {"slow but steady", ChildLine(L"out a sleep 1500 out b sleep 1500 out c"), 2500ms, 0U, "abc"},
        {"crash", ChildLine(L"out before crash"), ample, 0xC0000005U, StartsWith("before")},
        {"stops writing", ChildLine(L"bytes 5000 sleep 60000"), brief, terminated, Pattern(5000)},
        {"closes its output", ChildLine(L"out x close sleep 60000"), brief, terminated, "x"},
        {"waits for input", ChildLine(L"out x read"), brief, terminated, "x"},
        {"quoting", L"echo \"a  b\" & exit /b 5", ample, 5U, "\"a  b\" \r\n"},
        {"missing command", L"agentcli-no-such-command", ample, Ne(0U), Not("")},
    };
    // What is opened once, for the first command and the first exception.
    (void)Execute<EmptyParser>(ChildLine(L"out x sleep 60000"), 10ms);
    for (const Case& run : cases) {
        SCOPED_TRACE(run.name);
        const unsigned handles = TestSupport::HandleCount();
        const ULONGLONG start = GetTickCount64();
        const CmdRunStatus status = Execute<EmptyParser>(run.command, run.timeout);
        EXPECT_LT(GetTickCount64() - start, 25000U);
        EXPECT_THAT(status.exitCode, run.exitCode);
        EXPECT_THAT(status.output, run.output);
        EXPECT_EQ(status.command, run.command);
        EXPECT_EQ(TestSupport::HandleCount(), handles);
    }
}

TEST(CmdRunner, TerminatesAGrandchildThatOutlivesTheInterpreter) {
    for (const auto& [steps, timeout] :
         {std::pair(L"grandchild 60000 exit 0", brief), std::pair(L"grandchild 60000 sleep 60000", brief)}) {
        const CmdRunStatus status = Execute<EmptyParser>(ChildLine(steps), timeout);
        const DWORD id = std::stoul(status.output);
        const Shared::Util::KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, id));
        EXPECT_TRUE(!process || WaitForSingleObject(process.Get(), 0) == WAIT_OBJECT_0) << status.output;
    }
}

TEST(CmdRunner, AFloodCostsItsSizeAFewTimes) {
    constexpr std::size_t size = 100U << 20U;
    const auto peak = [] {
        PROCESS_MEMORY_COUNTERS counters{};
        GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
        return counters.PeakWorkingSetSize;
    };
    const std::size_t before = peak();
    const CmdRunStatus status = Execute<EmptyParser>(ChildLine(fmt::format(L"bytes {}", size)), ample);
    EXPECT_EQ(status.output.size(), size);
    EXPECT_LT(peak() - before, 3 * size);
}

TEST(CmdRunner, TheChildInheritsItsStandardHandlesAlone) {
    const TestSupport::TemporaryFolder folder;
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    const Shared::Util::FileHandle ours(CreateFileW((folder / "ours").c_str(), GENERIC_WRITE, 0, &inheritable,
                                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(ours);
    const auto number = reinterpret_cast<std::uintptr_t>(ours.Get());
    EXPECT_EQ(Execute<EmptyParser>(ChildLine(fmt::format(L"probe {}", number)), ample).output, "closed");
}

TEST(CmdRunner, FailuresCarryTheirTextsAndLeakNothing) {
    EXPECT_THAT([] { (void)Execute<EmptyParser>(L"", ample); },
                Throws<Shared::Exception::RuntimeException>(What("Please specify a cmd command.")));
    const TestSupport::TemporaryFolder folder;
    const auto notAProgram = folder / "tool.exe";
    TestSupport::WriteFile(notAProgram, "no program");
    unsigned handles = 0;
    for (int turn = 0; turn < 3; ++turn) {
        const Pipe in = CreateInputPipe();
        const Pipe out = CreateOutputPipe();
        EXPECT_THAT([&] { (void)CreateChildProcess(notAProgram, L"tool", in.read.Get(), out.write.Get()); },
                    Throws<Shared::Exception::Win32Exception>(What("CreateProcessW() failed")));
        // What the first failure loads stays open.
        handles = turn == 0 ? TestSupport::HandleCount() : handles;
        EXPECT_EQ(TestSupport::HandleCount(), handles);
    }
}

TEST(ReadFromPipe, GivesWhatItHasWhenTheWriterPauses) {
    Pipe pipe = CreateOutputPipe();
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(pipe.write.Get(), "kept", 4, &written, nullptr));
    EXPECT_THAT([&] { (void)ReadFromPipe(pipe.read.Get(), 50ms); },
                Throws<ReadTimeout>(What("CMD IO operation timed out.")));
    ASSERT_TRUE(WriteFile(pipe.write.Get(), "after", 5, &written, nullptr));
    try {
        (void)ReadFromPipe(pipe.read.Get(), 50ms);
    } catch (ReadTimeout& timedOut) {
        EXPECT_EQ(timedOut.Output(), "after") << "the cancelled read must not have taken it";
    }
    pipe.write.Reset();
    EXPECT_EQ(ReadFromPipe(pipe.read.Get(), 50ms), "");
}

}  // namespace
