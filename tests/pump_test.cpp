// The tests run on the thread that loaded the library: its main thread.
#include "thr/thr.h"

#include "support/import_patch.h"

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

using namespace support;

namespace
{

const UINT NUMBERED = WM_APP + 1;
const UINT STOP = WM_APP + 2; // its handler posts the exit event
const uint64_t EXIT_CODE = 1ull << 40;

std::string handled; // the numbers of the messages dispatched

LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == NUMBERED || message == WM_CHAR)
        handled += std::to_string(wparam) + " ";
    if (message == STOP)
        thr_win32_post_pump_exit_event();
    return DefWindowProcA(window, message, wparam, lparam);
}

// Takes what is in the queue: numbers, and "quit" with its code.
std::string drain()
{
    std::string left;
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
        if (message.message == WM_QUIT)
            left += "quit " + std::to_string(static_cast<int>(message.wParam)) + " ";
        else if (message.message == NUMBERED)
            left += std::to_string(message.wParam) + " ";
    }
    return left;
}

void forget(THR_EVENT &event)
{
    if (event)
        thr_event_destroy(event);
    event = nullptr;
}

// Starts each test without the exit events, with a message-only window.
class Pump : public testing::Test
{
protected:
    Pump() { SetWindowLongPtrA(m_window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(window_proc)); }
    ~Pump()
    {
        thr_win32_set_msg_pump_func(nullptr);
        thr_qt_set_process_event_func(nullptr);
        forget(thr_win32_pump_exit_event);
        forget(thr_qt_exit_event);
        DestroyWindow(m_window);
        drain();
    }
    // Posts messages with the numbers 1 to `count`.
    void post(int count, UINT message = NUMBERED)
    {
        for (int i = 1; i <= count; ++i)
            ASSERT_TRUE(PostMessageA(m_window, message, i, 0));
    }
    // Pumps, which must give `result`: what is handled, what is left, whether an exit still waits.
    std::string pump(uint64_t limit, uint64_t result)
    {
        handled.clear();
        EXPECT_EQ(thr_win32_pump_messages(limit), result);
        return handled + "| " + drain() +
               (thr_event_is_posted(thr_win32_pump_exit_event) ? "posted" : "");
    }

    HWND m_window =
        CreateWindowA("STATIC", "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
};

TEST_F(Pump, StopsAtItsLimitAtTheExitAndAtAQuit)
{
    const int NO_QUIT = 95;
    const struct {
        int messages;
        bool exits;
        int quit_code;
        uint64_t limit, result;
        const char *outcome;
    } cases[] = {
        // One message more than the limit is handled, and not counted.
        {0, false, NO_QUIT, 0, 0, "| "},
        {0, false, NO_QUIT, 3, 0, "| "},
        {5, false, NO_QUIT, 0, 0, "1 2 3 4 5 | "},
        {5, false, NO_QUIT, 2, 3, "1 2 3 | 4 5 "},
        {5, false, NO_QUIT, 4, 5, "1 2 3 4 5 | "},
        {5, false, NO_QUIT, 5, 5, "1 2 3 4 5 | "},
        {5, false, NO_QUIT, UINT64_MAX, 5, "1 2 3 4 5 | "},
        // The exit shows at the next message, which is lost.
        {0, true, NO_QUIT, 0, 0, "| posted"},
        {0, true, NO_QUIT, 3, 0, "| posted"},
        {1, true, NO_QUIT, 0, EXIT_CODE, "| "},
        {2, true, NO_QUIT, 0, EXIT_CODE, "| 2 "},
        {2, true, NO_QUIT, 1, EXIT_CODE, "| 2 "},
        {1, true, NO_QUIT, 9, EXIT_CODE, "| "},
        // A quit is left to the host's loop, and comes before the exit.
        {0, false, 7, 0, 0, "| quit 7 "},
        {0, false, 7, 1, 2, "| quit 7 "},
        {0, false, -1, 3, 4, "| quit -1 "},
        {2, false, -1, 0, 0, "1 2 | quit -1 "},
        {2, false, 0, 3, 4, "1 2 | quit 0 "},
        {3, false, 9, 1, 2, "1 2 | 3 quit 9 "},
        {0, true, -1, 4, 5, "| quit -1 posted"},
    };
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr);
    EXPECT_EQ(thr_win32_pump_exit_retcode, 95134u);
    thr_win32_pump_exit_retcode = EXIT_CODE;
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        if (c.exits)
            std::thread(thr_win32_post_pump_exit_event).join(); // from any thread
        post(c.messages);
        if (c.quit_code != NO_QUIT)
            PostQuitMessage(c.quit_code);
        EXPECT_EQ(pump(c.limit, c.result), c.outcome);
        thr_event_reset(thr_win32_pump_exit_event);
    }
    post(1);
    post(1, STOP);
    post(3);
    EXPECT_EQ(pump(0, EXIT_CODE), "1 | 2 3 ");
    PostMessageA(m_window, WM_KEYDOWN, 'A', 0);
    EXPECT_EQ(pump(0, 0), "97 | ") << "translated into a character";
    thr_win32_pump_exit_retcode = 95134;
}

// --- hooks --------------------------------------------------------------------------------------

int hook_calls;

uint64_t pump_hook(uint64_t limit)
{
    hook_calls += thr_win32_pump_exit_event != nullptr;
    return limit * 3;
}

void qt_hook()
{
    hook_calls += thr_qt_exit_event != nullptr;
}

TEST_F(Pump, HooksPumpInItsPlaceAndOnTheMainThreadAlone)
{
    EXPECT_EQ(thr_qt_process_events(), 0u);
    EXPECT_EQ(thr_qt_post_exit_event(), 0);
    EXPECT_EQ(thr_qt_exit_event, nullptr);
    thr_qt_set_process_event_func(qt_hook);
    std::thread([] {
        drain(); // gives the thread its queue
        PostThreadMessageA(GetCurrentThreadId(), NUMBERED, 4, 0);
        for (auto *hook : {THR_WIN32_PUMP_FUNC{}, pump_hook}) {
            thr_win32_set_msg_pump_func(hook);
            EXPECT_EQ(thr_win32_pump_messages(6), 0u);
        }
        EXPECT_EQ(thr_qt_process_events(), 95134u);
        EXPECT_EQ(thr_win32_pump_exit_event, nullptr);
        EXPECT_EQ(thr_qt_exit_event, nullptr);
        EXPECT_EQ(drain(), "4 ");
    }).join();
    EXPECT_EQ(hook_calls, 0);

    EXPECT_EQ(thr_qt_process_events(), 95134u);
    EXPECT_EQ(hook_calls, 1) << "with the event made before";
    EXPECT_EQ(thr_qt_post_exit_event(), 1);
    EXPECT_EQ(thr_event_is_posted(thr_qt_exit_event), 1);
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr) << "the other loop's";
    post(1);
    EXPECT_EQ(pump(1ull << 40, 3ull << 40), "| 1 ");
    EXPECT_EQ(hook_calls, 2) << "with the event made before";
}

// --- one event for all --------------------------------------------------------------------------

std::atomic<int> creating, live_events;

// Lets two threads come as far as the creation, if the library lets them.
HANDLE WINAPI created_together(SECURITY_ATTRIBUTES *attributes, BOOL manual, BOOL posted,
                               const char *name)
{
    ++creating;
    ++live_events;
    for (int ms = 0; creating < 2 && ms < 500; ++ms)
        Sleep(1);
    return CreateEventA(attributes, manual, posted, name);
}

BOOL WINAPI counted_close(HANDLE handle)
{
    --live_events;
    return CloseHandle(handle);
}

TEST_F(Pump, AnEventMadeByTwoThreadsAtOnceIsOneEvent)
{
    struct {
        void (*post)();
        THR_EVENT &event;
    } cases[] = {{thr_win32_post_pump_exit_event, thr_win32_pump_exit_event},
                 {[] { thr_qt_post_exit_event(); }, thr_qt_exit_event}};
    thr_qt_set_process_event_func(qt_hook);
    for (auto &c : cases) {
        for (int round = 0; round < 20; ++round) {
            creating = live_events = 0;
            {
                ImportPatch create("CreateEventA", &created_together);
                ImportPatch close("CloseHandle", &counted_close);
                std::thread other(c.post);
                c.post();
                other.join();
            }
            EXPECT_EQ(live_events, 1);
            EXPECT_EQ(thr_event_is_posted(c.event), 1);
            forget(c.event);
        }
    }
}

TEST_F(Pump, RegisteredMessagesAreTheSystems)
{
    EXPECT_EQ(thr_win32_is(), 1);
    EXPECT_EQ(thr_win32_get_registered_message("thr pump test message"),
              RegisterWindowMessageA("thr pump test message"));
}

} // namespace
