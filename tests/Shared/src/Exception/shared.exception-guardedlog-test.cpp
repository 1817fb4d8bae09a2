#include <windows.h>

#include <gmock/gmock.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <functional>
#include <mutex>
#include <stdexcept>

#include "shared.exception-guardedlog.h"
#include "test-support.h"

using namespace Shared::Exception;
using testing::HasSubstr;

namespace {

class ThrowingSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit ThrowingSink(std::function<void()> thrower) : thrower_(std::move(thrower)) {}

private:
    void sink_it_(const spdlog::details::log_msg&) override { thrower_(); }
    void flush_() override {}

    std::function<void()> thrower_;
};

}  // namespace

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

TEST(GuardedLog, FaultyFormatsAreReportedWithTheirPlace) {
    const std::function<void()> faulty[] = {
        [] { LogInfo("{"); },
        [] { LogWarning("{} {}", 1); },
        [] { LogError("{:d}", "text"); },
        [] { LogInfoAt("{0} {}", 1, 2); },
    };
    for (const auto& log : faulty) {
        const TestSupport::CapturedLog captured;
        EXPECT_NO_THROW(log());
        EXPECT_THAT(captured.Text(),
                    testing::ContainsRegex("\\[error\\] GuardedLog\\(\\) \\[1\\] failed formatting log at: "
                                           "tests/Shared/src/Exception/shared.exception-guardedlog-test.cpp:\\d+:\\d+:"
                                           ".*operator\\(\\)"));
    }
}

TEST(GuardedLog, SurvivesAMissingLoggerAndAFailingSinkButPassesUnknownExceptionsOn) {
    const TestSupport::CapturedLog restoresTheLogger;
    spdlog::set_default_logger(nullptr);
    EXPECT_NO_THROW(LogError("no logger {}", 1));

    std::string reported;
    const auto logInto = [&](const std::function<void()>& thrower) {
        const auto logger = std::make_shared<spdlog::logger>("throwing", std::make_shared<ThrowingSink>(thrower));
        logger->set_error_handler([&](const std::string& text) { reported = text; });
        spdlog::set_default_logger(logger);
        LogError("text");
    };
    EXPECT_NO_THROW(logInto([] { throw std::runtime_error("disk full"); }));
    EXPECT_THAT(reported, HasSubstr("disk full"));
    EXPECT_THROW(logInto([] { throw 42; }), int);
    EXPECT_EQ(reported, "Rethrowing unknown exception in logger");
}
