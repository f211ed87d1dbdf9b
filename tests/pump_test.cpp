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

const UINT SIGN = WM_APP + 1; // a message that carries a character
const uint64_t EXIT_CODE = 1ull << 40;

std::string handled; // the characters of the messages dispatched

// Its handling of the sign 'S' posts the exit event.
LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == SIGN || message == WM_CHAR)
        handled += static_cast<char>(wparam);
    if (message == SIGN && wparam == 'S')
        thr_win32_post_pump_exit_event();
    return DefWindowProcA(window, message, wparam, lparam);
}

// Takes what is in the queue: signs, and a quit by its code.
std::string drain()
{
    std::string left;
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
        if (message.message == SIGN || message.message == WM_QUIT)
            left += static_cast<char>(message.wParam);
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
    // Posts a message for each character, but 'x' is the exit event, 'q' a quit with this code, and
    // 'A' a key. Pumps, which must give `result`. Returns what is handled, and, behind a line, what
    // is left and whether the exit still waits.
    std::string pump(const std::string &posted, uint64_t limit, uint64_t result)
    {
        for (char c : posted) {
            if (c == 'x')
                thr_win32_post_pump_exit_event();
            else if (c == 'q')
                PostQuitMessage(c);
            else
                PostMessageA(m_window, c == 'A' ? UINT(WM_KEYDOWN) : SIGN, c, 0);
        }
        handled.clear();
        EXPECT_EQ(thr_win32_pump_messages(limit), result);
        return handled + "|" + drain() +
               (thr_event_is_posted(thr_win32_pump_exit_event) ? "x" : "");
    }

    HWND m_window =
        CreateWindowA("STATIC", "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
};

TEST_F(Pump, StopsAtItsLimitAtTheExitAndAtAQuit)
{
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr);
    EXPECT_EQ(thr_win32_pump_exit_retcode, 95134u);
    thr_win32_pump_exit_retcode = EXIT_CODE;
    // One message more than the limit is handled, and not counted.
    EXPECT_EQ(pump("12345", 0, 0), "12345|");
    EXPECT_EQ(pump("12345", 2, 3), "123|45");
    EXPECT_EQ(pump("12345", 5, 5), "12345|");
    EXPECT_EQ(pump("A", 0, 0), "a|") << "the key gives a character";
    // The exit shows at the next message, which is lost.
    EXPECT_EQ(pump("x", 3, 0), "|x");
    EXPECT_EQ(pump("12", 3, EXIT_CODE), "|2");
    EXPECT_EQ(pump("1S23", 0, EXIT_CODE), "1S|3");
    // A quit is left to the host's loop, and comes before the exit.
    EXPECT_EQ(pump("12q", 0, 0), "12|q");
    EXPECT_EQ(pump("12q", 3, 4), "12|q");
    EXPECT_EQ(pump("xq", 4, 5), "|qx");
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
        PostThreadMessageA(GetCurrentThreadId(), SIGN, '4', 0);
        for (auto *hook : {THR_WIN32_PUMP_FUNC{}, pump_hook}) {
            thr_win32_set_msg_pump_func(hook);
            EXPECT_EQ(thr_win32_pump_messages(6), 0u);
        }
        EXPECT_EQ(thr_qt_process_events(), 95134u);
        EXPECT_EQ(drain(), "4");
    }).join();
    EXPECT_TRUE(hook_calls == 0 && !thr_win32_pump_exit_event && !thr_qt_exit_event);

    EXPECT_EQ(thr_qt_process_events(), 95134u);
    EXPECT_EQ(hook_calls, 1) << "with the event made before";
    EXPECT_EQ(thr_qt_post_exit_event(), 1);
    EXPECT_EQ(thr_event_is_posted(thr_qt_exit_event), 1);
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr) << "the other loop's";
    EXPECT_EQ(pump("1", 1ull << 40, 3ull << 40), "|1");
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
    ImportPatch create("CreateEventA", &created_together), close("CloseHandle", &counted_close);
    for (int round = 0; round < 20; ++round) {
        creating = live_events = 0;
        std::thread other(thr_win32_post_pump_exit_event);
        thr_win32_post_pump_exit_event();
        other.join();
        EXPECT_EQ(live_events, 1);
        EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), 1);
        forget(thr_win32_pump_exit_event);
    }
}

TEST_F(Pump, RegisteredMessagesAreTheSystems)
{
    EXPECT_EQ(thr_win32_is(), 1);
    EXPECT_EQ(thr_win32_get_registered_message("thr pump test message"),
              RegisterWindowMessageA("thr pump test message"));
}

} // namespace
