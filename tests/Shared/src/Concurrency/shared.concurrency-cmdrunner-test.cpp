#include <windows.h>

#include <fmt/format.h>
#include <fmt/xchar.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <tuple>

#include "shared.concurrency-cmdrunner.h"
#include "shared.util-handle.h"
#include "test-support.h"

namespace {

using namespace testing;
using namespace std::chrono_literals;
using namespace Shared::Concurrency;

constexpr std::chrono::milliseconds ample = 30s;
constexpr std::chrono::milliseconds brief = 1500ms;

std::wstring ChildLine(const std::wstring& steps) {
    return fmt::format(L"\"{}\" {}", TestSupport::ChildProgram().native(), steps);
}

std::string Pattern(std::size_t count) {
    std::string bytes(count, '\0');
    std::ranges::generate(bytes, [index = 0]() mutable { return static_cast<char>(index++ % 251); });
    return bytes;
}

TEST(CmdRunner, EveryRunEndsWithItsCodeAndOutput) {
    struct Case {
        std::wstring command;
        std::chrono::milliseconds timeout;
        Matcher<std::uint32_t> exitCode;
        Matcher<const std::string&> output;
    };
    const Matcher<std::uint32_t> terminated = AnyOf(258U, 259U);
    const Case cases[] = {
        {ChildLine(L"out one err two exit 7"), ample, 7U, "onetwo"},
        {ChildLine(L"bytes 100001"), ample, 0U, Pattern(100001)},
        {ChildLine(L"out a sleep 1500 out b sleep 1500 out c"), 2500ms, 0U, "abc"},
        {ChildLine(L"out before crash"), ample, 0xC0000005U, StartsWith("before")},
        {ChildLine(L"bytes 5000 sleep 60000"), brief, terminated, Pattern(5000)},
        {ChildLine(L"out x close sleep 60000"), brief, terminated, "x"},
        {ChildLine(L"out x read"), brief, terminated, "x"},
        {L"echo \"a  b\" & exit /b 5", ample, 5U, "\"a  b\" \r\n"},
        {L"agentcli-no-such-command", ample, Ne(0U), Not("")},
    };
    for (const Case& run : cases) {
        SCOPED_TRACE(testing::PrintToString(run.command));
        const ULONGLONG start = GetTickCount64();
        const CmdRunStatus status = Execute<EmptyParser>(run.command, run.timeout);
        EXPECT_LT(GetTickCount64() - start, 25000U);
        EXPECT_THAT(status.exitCode, run.exitCode);
        EXPECT_THAT(status.output, run.output);
        EXPECT_EQ(status.command, run.command);
    }
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

TEST(CmdRunner, AProgramIsFoundBelowFoldersWithCharactersThatMeanSomethingToTheInterpreter) {
    const TestSupport::TemporaryFolder folder;
    for (const wchar_t* name : {L"Program Files (x86)", L"R&D", L"a^b@c", L"plain name"}) {
        const std::filesystem::path program = folder / name / L"tool.exe";
        std::filesystem::create_directory(program.parent_path());
        std::filesystem::copy_file(TestSupport::ChildProgram(), program);
        const std::wstring command = fmt::format(L"\"{}\" out ok exit 7", program.native());
        const CmdRunStatus status = Execute<EmptyParser>(command, ample);
        EXPECT_EQ(std::tie(status.exitCode, status.output, status.command), std::tuple(7U, "ok", command));
    }
}

TEST(CmdRunner, APrivateFolderReplacesOneInWhichTheInterpreterCannotWork) {
    const TestSupport::WorkingFolder working;
    const auto run = [](const std::filesystem::path& folder) {
        return Execute<EmptyParser>(L"echo text>file& type file& cd", ample, folder).output;
    };
    EXPECT_EQ(run({}), "text\r\n" + working.Path().string() + "\r\n");
    for (const wchar_t* folder : {LR"(\\server\share\folder)", LR"(\\?\C:\folder)"}) {
        const std::string output = run(folder);
        EXPECT_THAT(output, StartsWith("text\r\nC:\\windows\\Temp\\AgentCLI"));
        EXPECT_FALSE(std::filesystem::exists(output.substr(6, output.size() - 8)));
    }
}

}  // namespace
