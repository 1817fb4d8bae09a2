#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "shared.concurrency-event.h"
#include "shared.exception.h"

namespace {

using namespace testing;
using Shared::Concurrency::Event;
using Shared::Exception::RuntimeException;
using Shared::Exception::Win32Exception;

auto What(const char* text) {
    return Property(&std::exception::what, HasSubstr(text));
}

TEST(Event, SignalsUntilResetAndNamesItsFailures) {
    Event event(L"agentcli-test-event");
    Event same(L"agentcli-test-event");
    EXPECT_THAT([&] { (void)event.WaitOnEvent(0, false); }, Throws<RuntimeException>(What("No Event to wait on")));
    EXPECT_THAT([&] { event.Reset(); }, Throws<RuntimeException>(What("No Event to reset")));
    EXPECT_THAT([&] { event.InternalCreate(true, false, L"no SDDL"); },
                Throws<Win32Exception>(What("Failed to convert security descriptor")));
    event.InternalCreate(true, true, L"D:P(A;;GA;;;WD)");
    same.InternalCreate(true, false, {});
    EXPECT_THAT([&] { same.InternalCreate(true, true, {}); },
                Throws<Win32Exception>(What("Failed to create or open event")));
    EXPECT_FALSE(same.WaitOnEvent(1, false));
    SetEvent(event.Handle());
    EXPECT_TRUE(same.WaitOnEvent(0, false));
    EXPECT_TRUE(same.WaitOnEvent(0, true));
    EXPECT_FALSE(event.WaitOnEvent(0, false));
}

}  // namespace
