#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "shared.concurrency-event.h"
#include "shared.exception.h"
#include "test-support.h"

namespace {

using Shared::Concurrency::Event;
using Shared::Exception::RuntimeException;
using Shared::Exception::Win32Exception;
using testing::HasSubstr;
using testing::Property;
using testing::Throws;

auto What(const char* text) {
    return Property(&std::exception::what, HasSubstr(text));
}

TEST(Event, WithoutOneNothingIsWaitedForOrReset) {
    Event event;
    EXPECT_THAT([&] { (void)event.WaitOnEvent(0, false); }, Throws<RuntimeException>(What("No Event to wait on")));
    EXPECT_THAT([&] { event.Reset(); }, Throws<RuntimeException>(What("No Event to reset")));
}

TEST(Event, StaysSignalledUntilReset) {
    const unsigned handles = TestSupport::HandleCount();
    {
        Event event;
        event.InternalCreate(true, false, L"D:P(A;;GA;;;OW)(A;;GA;;;SY)");
        event.InternalCreate(true, false, {});
        EXPECT_FALSE(event.WaitOnEvent(1, false));
        SetEvent(event.Handle());
        EXPECT_TRUE(event.WaitOnEvent(0, false));
        EXPECT_TRUE(event.WaitOnEvent(0, true));
        EXPECT_FALSE(event.WaitOnEvent(0, false));
        DWORD flags = HANDLE_FLAG_INHERIT;
        EXPECT_TRUE(GetHandleInformation(event.Handle(), &flags));
        EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
    }
    EXPECT_EQ(TestSupport::HandleCount(), handles);
}

TEST(Event, FailuresOfCreationNameTheirStep) {
    Event event(L"agentcli-test-event");
    EXPECT_THAT([&] { event.InternalCreate(true, false, L"no SDDL"); },
                Throws<Win32Exception>(What("Failed to convert security descriptor")));
    event.InternalCreate(true, true, {});
    Event same(L"agentcli-test-event");
    same.InternalCreate(true, false, {});
    EXPECT_THAT([&] { same.InternalCreate(true, true, {}); },
                Throws<Win32Exception>(AllOf(What("Failed to create or open event"),
                                             Property(&Win32Exception::Code, DWORD{ERROR_ALREADY_EXISTS}))));
    SetEvent(event.Handle());
    EXPECT_TRUE(same.WaitOnEvent(0, false)) << "the event held before must stay";
}

}  // namespace
