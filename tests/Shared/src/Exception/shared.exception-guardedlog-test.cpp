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
using testing::Not;

namespace {

struct Unprintable {};

class ThrowingSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit ThrowingSink(std::function<void()> thrower) : thrower_(std::move(thrower)) {}

protected:
    void sink_it_(const spdlog::details::log_msg&) override { thrower_(); }
    void flush_() override {}

private:
    std::function<void()> thrower_;
};

// Replaces the default logger while it lives.
class DefaultLogger {
public:
    explicit DefaultLogger(std::shared_ptr<spdlog::logger> logger) : before_(spdlog::default_logger()) {
        spdlog::set_default_logger(std::move(logger));
    }
    DefaultLogger(const DefaultLogger&) = delete;
    DefaultLogger& operator=(const DefaultLogger&) = delete;
    ~DefaultLogger() { spdlog::set_default_logger(before_); }

private:
    std::shared_ptr<spdlog::logger> before_;
};

}  // namespace

template <>
struct fmt::formatter<Unprintable> : fmt::formatter<int> {
    template <class Context>
    auto format(const Unprintable&, Context& context) const -> decltype(context.out()) {
        throw 42;
    }
};

TEST(GuardedLog, EachKindOfLine) {
    const std::string file = "tests/Shared/src/Exception/shared.exception-guardedlog-test.cpp";
    const TestSupport::CapturedLog log;
    SetLastError(77);
    const int line = __LINE__ + 1;
    LogError("failed with: {}", "{} braces");
    LogInfoAt("at {}", 1);
    LogWarning("plain {}", 2);
    EXPECT_EQ(GetLastError(), 77U);
    const std::string text = log.Text();
    EXPECT_THAT(text, HasSubstr("[error] Error in function "));
    EXPECT_THAT(text, HasSubstr(fmt::format("EachKindOfLine_Test::TestBody()() of file {}:{}:14 ---> failed with: {{}} "
                                            "braces\r\n",
                                            file, line)));
    EXPECT_THAT(text, HasSubstr(fmt::format("[info] at 1 [{}({})]\r\n", file, line + 1)));
    EXPECT_THAT(text, HasSubstr("[warning] plain 2\r\n"));
}

TEST(GuardedLog, FaultyFormatsAreReportedWithTheirPlace) {
    const std::function<void()> faulty[] = {
        [] { LogInfo("{"); },
        [] { LogInfo("}", 1); },
        [] { LogWarning("{} {}", 1); },
        [] { LogError("{:d}", "text"); },
        [] { LogInfoAt("{0} {}", 1, 2); },
        [] { LogInfo("{}", Unprintable{}); },
    };
    for (int row = 0; const auto& log : faulty) {
        const TestSupport::CapturedLog captured;
        EXPECT_NO_THROW(log());
        EXPECT_THAT(captured.Text(),
                    testing::ContainsRegex("\\[error\\] GuardedLog\\(\\) \\[1\\] failed formatting log at: "
                                           "tests/Shared/src/Exception/shared.exception-guardedlog-test.cpp:\\d+:\\d+:"
                                           ".*operator\\(\\)"))
            << row++;
    }
}

TEST(GuardedLog, SurvivesAMissingLoggerAndAFailingSinkButPassesUnknownExceptionsOn) {
    {
        const DefaultLogger none(nullptr);
        EXPECT_NO_THROW(LogError("nobody listens {}", 1));
    }
    std::string reported;
    const auto with = [&](std::function<void()> thrower) {
        auto logger = std::make_shared<spdlog::logger>("throwing", std::make_shared<ThrowingSink>(std::move(thrower)));
        logger->set_error_handler([&](const std::string& text) { reported = text; });
        return logger;
    };
    {
        const DefaultLogger failing(with([] { throw std::runtime_error("disk full"); }));
        EXPECT_NO_THROW(LogError("text"));
        EXPECT_THAT(reported, HasSubstr("disk full"));
    }
    const DefaultLogger unknown(with([] { throw 42; }));
    EXPECT_THROW(LogError("text"), int);
    EXPECT_EQ(reported, "Rethrowing unknown exception in logger");
}
