#include "agentcli-core-log.h"

#include <gmock/gmock.h>
#include <spdlog/spdlog.h>

#include <string>

#include "shared.util-handle.h"
#include "test-support.h"

namespace AgentCLI::Core {

namespace {

TEST(Log, DropsLinesWhileAnotherProcessKeepsItFromBeingRotated) {
    const TestSupport::WorkingFolder folder;
    const auto before = spdlog::default_logger();
    SetUpLog();
    spdlog::info("first");
    {
        const Shared::Util::FileHandle reader(CreateFileW(L"agent-cli.log", GENERIC_READ, FILE_SHARE_WRITE, nullptr,
                                                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(reader);
        for (int line = 0; line < 20; ++line) {
            spdlog::info(std::string(1000, 'x'));
        }
    }
    Sleep(2100);
    spdlog::info("last");
    spdlog::set_default_logger(before);
    spdlog::shutdown();
    ProcessLogger().reset();
    EXPECT_THAT(TestSupport::ReadFile(L"agent-cli.log"),
                testing::AllOf(testing::HasSubstr("first"), testing::HasSubstr("last")));
}

}  // namespace

}  // namespace AgentCLI::Core
