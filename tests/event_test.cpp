#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

using namespace support;

namespace
{

using Messages = std::vector<std::string>;

TEST(Event, StaysPostedUntilItIsReset)
{
    THR_EVENT event = thr_event_create();
    EXPECT_EQ(thr_event_wait(event, 20), 1) << "also when the time is over";
    EXPECT_EQ(thr_event_is_posted(event), 0);
    thr_event_post(event);
    EXPECT_EQ(thr_event_wait(event, 0), 1);
    EXPECT_EQ(thr_event_is_posted(event), 1);
    thr_event_reset(event);
    EXPECT_EQ(thr_event_is_posted(event), 0);
    thr_event_post(event);
    thr_event_pulse(event);
    EXPECT_EQ(thr_event_is_posted(event), 0);
    thr_event_destroy(event);
}

TEST(Event, PostAndPulseReleaseEveryWaiterAndNothingElseDoes)
{
    for (auto *release : {thr_event_post, thr_event_pulse}) {
        THR_EVENT event = thr_event_create();
        std::atomic<int> released(0);
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i) {
            waiters.emplace_back([&] {
                thr_event_wait(event, 0);
                ++released;
            });
        }
        Sleep(50);
        EXPECT_EQ(released, 0) << "0 is no limit";
        // A pulse may miss a thread that is just away from its wait: hence several.
        for (DWORD ms = 0; released < 4 && ms < PATIENCE_MS; ms += 10) {
            release(event);
            Sleep(10);
        }
        EXPECT_EQ(released, 4);
        thr_event_post(event);
        for (std::thread &waiter : waiters)
            waiter.join();
        thr_event_destroy(event);
    }
}

HANDLE WINAPI refused_create(SECURITY_ATTRIBUTES *, BOOL, BOOL, const char *)
{
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
}

// A refused creation leaves an event without a handle, which the system refuses from then on.
TEST(Event, RefusedCallsAreReportedAndReturn)
{
    ImportPatch patch("CreateEventA", &refused_create);
    ReportRecorder reports;
    DebugRecorder debug;
    THR_EVENT event = thr_event_create();
    thr_event_post(event);
    thr_event_pulse(event);
    thr_event_reset(event);
    EXPECT_EQ(thr_event_wait(event, 5), 1);
    EXPECT_EQ(thr_event_is_posted(event), 0);
    auto invalid = [](const char *action, const char *api_text) {
        return os_failure_text(action, api_text, ERROR_INVALID_HANDLE);
    };
    EXPECT_EQ(reports.take_messages(),
              (Messages{os_failure_text("create an event", "CreateEvent(0, TRUE, FALSE, NULL)",
                                        ERROR_NO_SYSTEM_RESOURCES),
                        invalid("set an event", "SetEvent(hevent)"),
                        invalid("set an event", "PulseEvent(hevent)"),
                        invalid("reset an event", "ResetEvent(hevent)"),
                        invalid("wait for an event", "ret_val != WAIT_FAILED")}));
    thr_event_destroy(event); // only a warning
    EXPECT_TRUE(reports.take().empty());
    EXPECT_EQ(debug.take().at(0).find("OS Warning: Windows could not destroy an event\n"), 0u);
}

TEST(EventDeathTest, InternalErrors)
{
    for (auto *call : {thr_event_destroy, thr_event_post, thr_event_pulse, thr_event_reset})
        EXPECT_INTERNAL_ERROR(call(nullptr), "event != 0", "thr_event");
    EXPECT_INTERNAL_ERROR(thr_event_wait(nullptr, 1), "event != 0", "thr_event");
    EXPECT_INTERNAL_ERROR(thr_event_is_posted(nullptr), "event != 0", "thr_event");
}

} // namespace
