#include "thr/thr.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
#include <functional>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

using namespace support;

namespace
{

using Messages = std::vector<std::string>;

TEST(Event, StaysPostedUntilItIsReset)
{
    struct {
        void (*operation)(THR_EVENT);
        int is_posted;
    } steps[] = {{thr_event_post, 1},  {thr_event_post, 1}, {thr_event_reset, 0},
                 {thr_event_pulse, 0}, {thr_event_post, 1}, {thr_event_pulse, 0}};
    const size_t handles = live_handle_count();
    THR_EVENT event = thr_event_create();
    EXPECT_EQ(thr_event_is_posted(event), 0);
    for (const auto &step : steps) {
        step.operation(event);
        for (int i = 0; i < 3 && step.is_posted; ++i)
            EXPECT_EQ(thr_event_wait(event, 0), 1);
        EXPECT_EQ(thr_event_is_posted(event), step.is_posted) << "step " << &step - steps;
    }
    EXPECT_EQ(thr_event_wait(event, 20), 1) << "the time is over";
    EXPECT_EQ(thr_event_is_posted(event), 0);
    thr_event_destroy(event);
    EXPECT_EQ(live_handle_count(), handles);
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
        EXPECT_EQ(thr_event_is_posted(event), release == thr_event_post);
        thr_event_post(event);
        for (std::thread &waiter : waiters)
            waiter.join();
        thr_event_destroy(event);
    }
}

// --- what the platform is asked, and refuses ----------------------------------------------------

bool is_plain_creation, is_refused;
DWORD asked_limit, wait_result;

HANDLE WINAPI checked_create(SECURITY_ATTRIBUTES *attributes, BOOL manual, BOOL posted,
                             const char *name)
{
    is_plain_creation = !attributes && manual && !posted && !name;
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return is_refused ? nullptr : CreateEventA(attributes, manual, posted, name);
}

DWORD WINAPI recorded_wait(HANDLE, DWORD limit)
{
    asked_limit = limit;
    SetLastError(ERROR_ACCESS_DENIED);
    return wait_result;
}

TEST(Event, ZeroMeansNoLimit)
{
    const uint32_t limits[][2] = {{0, INFINITE}, {1, 1}, {20, 20}, {0xFFFFFFFF, INFINITE}};
    ImportPatch patches[] = {{"CreateEventA", &checked_create},
                             {"WaitForSingleObject", &recorded_wait}};
    is_refused = false;
    wait_result = WAIT_TIMEOUT;
    THR_EVENT event = thr_event_create();
    EXPECT_TRUE(is_plain_creation);
    for (const auto &[timeout, limit] : limits) {
        EXPECT_EQ(thr_event_wait(event, timeout), 1);
        EXPECT_EQ(asked_limit, limit);
    }
    EXPECT_EQ(thr_event_is_posted(event), 0);
    EXPECT_EQ(asked_limit, 0u);
    thr_event_destroy(event);
}

// A refused creation leaves an event without a handle, which the system refuses from then on.
TEST(Event, RefusedCallsAreReportedAndReturn)
{
    struct {
        std::function<void(THR_EVENT)> operation;
        const char *action, *api_text;
        DWORD code;
    } cases[] = {{thr_event_post, "set an event", "SetEvent(hevent)", ERROR_INVALID_HANDLE},
                 {thr_event_pulse, "set an event", "PulseEvent(hevent)", ERROR_INVALID_HANDLE},
                 {thr_event_reset, "reset an event", "ResetEvent(hevent)", ERROR_INVALID_HANDLE},
                 {[](THR_EVENT event) { EXPECT_EQ(thr_event_wait(event, 5), 1); },
                  "wait for an event", "ret_val != WAIT_FAILED", ERROR_ACCESS_DENIED}};
    ImportPatch patches[] = {{"CreateEventA", &checked_create},
                             {"WaitForSingleObject", &recorded_wait}};
    is_refused = true;
    wait_result = WAIT_FAILED;
    {
        ReportRecorder reports;
        DebugRecorder debug;
        THR_EVENT event = thr_event_create();
        std::vector<Report> taken = reports.take();
        ASSERT_EQ(taken.size(), 1u);
        EXPECT_EQ(taken[0].message,
                  os_failure_text("create an event", "CreateEvent(0, TRUE, FALSE, NULL)",
                                  ERROR_NO_SYSTEM_RESOURCES));
        EXPECT_EQ(taken[0].file, "thr/thr_event.cpp");
        for (const auto &c : cases) {
            c.operation(event);
            EXPECT_EQ(reports.take_messages(),
                      Messages{os_failure_text(c.action, c.api_text, c.code)});
        }
        EXPECT_EQ(thr_event_is_posted(event), 0);
        EXPECT_TRUE(debug.take().empty());

        thr_event_destroy(event); // only a warning
        EXPECT_TRUE(reports.take().empty());
        std::string text =
            os_failure_text("destroy an event", "CloseHandle(hevent)", ERROR_INVALID_HANDLE);
        text.replace(0, sizeof "OS Failure" - 1, "OS Warning");
        Messages warnings = debug.take();
        ASSERT_EQ(warnings.size(), 1u);
        EXPECT_TRUE(std::regex_match(
            warnings[0],
            std::regex(literal_regex(text) + "Warning location: thr/thr_event\\.cpp:\\d+\n")))
            << warnings[0];
    }
    EXPECT_EXIT(
        {
            thr_set_report_func([](auto...) {});
            THR_EVENT event = thr_event_create();
            thr_set_report_func(nullptr);
            thr_event_destroy(event);
            exit(17); // without hooks the warning is not printed and ends nothing
        },
        testing::ExitedWithCode(17), "^$");
}

TEST(EventDeathTest, InternalErrors)
{
    const std::function<void()> calls[] = {
        [] { thr_event_destroy(nullptr); }, [] { thr_event_post(nullptr); },
        [] { thr_event_pulse(nullptr); },   [] { thr_event_reset(nullptr); },
        [] { thr_event_wait(nullptr, 1); }, [] { thr_event_is_posted(nullptr); }};
    for (const auto &call : calls)
        EXPECT_INTERNAL_ERROR(call(), "event != 0", "thr_event");
    EXPECT_INTERNAL_ERROR(
        {
            RefusedMalloc refused;
            thr_event_create();
        },
        "event", "thr_event");
}

} // namespace
