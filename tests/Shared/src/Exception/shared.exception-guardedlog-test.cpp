#include <windows.h>

#include <gmock/gmock.h>
#include <spdlog/spdlog.h>

#include <string>

#include "shared.exception-guardedlog.h"
#include "test-support.h"

using namespace Shared::Exception;
using testing::HasSubstr;

TEST(GuardedLog, EachKindOfLine) {
    const std::string file = "tests/Shared/src/Exception/shared.exception-guardedlog-test.cpp";
    const TestSupport::CapturedLog log;
    SetLastError(77);
    const int line = __LINE__ + 1;
    LogError("failed with: {}", "{} braces");
    LogInfoAt("at {}", 1);
    LogWarning("plain {}", 2);
    EXPECT_EQ(GetLastError(), 77U);
    const std::string place = fmt::format("EachKindOfLine_Test::TestBody()() of file {}:{}:14", file, line);
    for (const auto& text :
         {std::string("[error] Error in function "), place + " ---> failed with: {} braces\r\n",
          fmt::format("[info] at 1 [{}({})]\r\n[", file, line + 1), std::string("[warning] plain 2\r\n")}) {
        EXPECT_THAT(log.Text(), HasSubstr(text));
    }
}

TEST(GuardedLog, AFaultyFormatIsReportedWithItsPlaceAndAMissingLoggerIsNoFault) {
    const TestSupport::CapturedLog log;
    EXPECT_NO_THROW(LogWarning("{} {}", 1));
    EXPECT_THAT(
        log.Text(),
        testing::ContainsRegex("\\[error\\] GuardedLog\\(\\) \\[1\\] failed formatting log at: "
                               "tests/Shared/src/Exception/shared.exception-guardedlog-test.cpp:\\d+:\\d+:.*TestBody"));
    spdlog::set_default_logger(nullptr);
    EXPECT_NO_THROW(LogError("no logger {}", 1));
}
