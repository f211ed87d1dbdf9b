// The tests run on the thread that loaded the library: its main thread.
#include "thr/thr.h"

#include "support/import_patch.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

namespace
{

const UINT SIGN = WM_APP + 1; // a message that carries a character
std::string handled;          // the characters of the messages dispatched

void forget(THR_EVENT &event)
{
    if (THR_EVENT old = std::exchange(event, nullptr))
        thr_event_destroy(old);
}

// Its handling of the sign 'S' posts the exit event, and of 'D' destroys it.
LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == SIGN || message == WM_CHAR)
        handled += static_cast<char>(wparam);
    if (wparam == 'S')
        thr_win32_post_pump_exit_event();
    else if (wparam == 'D')
        forget(thr_win32_pump_exit_event);
    return DefWindowProcA(window, message, wparam, lparam);
}

// Takes what is in the queue: signs, and a quit by its code.
std::string drain()
{
    std::string left;
    for (MSG message; PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE);)
        left += static_cast<char>(message.wParam);
    return left;
}

// Stands in for the look at the queue. The looks have an end, and a key that was only looked at is
// taken away, as what another thread sends may do it.
int looks_left;

BOOL WINAPI look(MSG *message, HWND window, UINT first, UINT last, UINT how)
{
    MSG key;
    if (--looks_left < 0 || !PeekMessageA(message, window, first, last, how))
        return FALSE;
    if (message->message == WM_KEYDOWN)
        PeekMessageA(&key, window, WM_KEYDOWN, WM_KEYDOWN, PM_REMOVE);
    return TRUE;
}

// Posts a message for each character, but 'x' is the exit event, 'q' a quit with this code, and 'A'
// a key. Pumps. Returns the result, what is handled, and, behind a line, what is left and whether
// the exit still waits. A pump that waits for a message gets one from a timer.
std::string pump(const std::string &posted, uint64_t limit)
{
    static const HWND window =
        CreateWindowA("STATIC", "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    SetWindowLongPtrA(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(window_proc));
    SetTimer(window, 1, 5000, nullptr);
    for (char c : posted) {
        if (c == 'x')
            thr_win32_post_pump_exit_event();
        else if (c == 'q')
            PostQuitMessage(c);
        else
            PostMessageA(window, c == 'A' ? UINT(WM_KEYDOWN) : SIGN, c, 0);
    }
    support::ImportPatch patch("PeekMessageA", look);
    handled.clear();
    looks_left = 100;
    const std::string result = std::to_string(thr_win32_pump_messages(limit)) + " " + handled + "|";
    EXPECT_GE(looks_left, 0);
    KillTimer(window, 1);
    return result + drain() + (thr_event_is_posted(thr_win32_pump_exit_event) ? "x" : "");
}

TEST(Pump, StopsAtItsLimitAtTheExitAndAtAQuit)
{
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr);
    EXPECT_EQ(std::exchange(thr_win32_pump_exit_retcode, 5000000000), 95134u);
    const std::tuple<const char *, uint64_t, const char *> cases[] = {
        {"A", 0, "0 a|"},         // a key gives a character
        {"12345", 0, "0 12345|"}, // one more than the limit is handled
        {"12345", 2, "3 123|45"},
        {"12345", 5, "5 12345|"},
        {"x", 3, "0 |x"}, // the exit shows at the next message, which is lost
        {"12", 3, "5000000000 |2"},
        {"1S23", 0, "5000000000 1S|3"},
        {"1D2", 0, "0 1D2|"},
        {"12q", 0, "0 12|q"}, // a quit is left to the host's loop
        {"12q", UINT64_MAX, "2 12|q"},
        {"12q", 3, "4 12|q"},
        {"xq", 4, "5 |qx"}};
    for (auto &[posted, limit, result] : cases)
        EXPECT_EQ(pump(posted, limit), result);
    thr_win32_pump_exit_retcode = 95134;
    forget(thr_win32_pump_exit_event);
}

TEST(Pump, HooksPumpInItsPlaceAndOnTheMainThreadAlone)
{
    EXPECT_EQ(thr_qt_process_events() + thr_qt_post_exit_event(), 0u);
    handled.clear();
    thr_qt_set_process_event_func([] { handled += thr_qt_exit_event ? "Qt" : "too soon"; });
    auto *pump_hook = +[](uint64_t limit) { return thr_win32_pump_exit_event ? limit * 3 : limit; };
    std::thread([&] {
        drain(); // gives the thread its queue
        PostThreadMessageA(GetCurrentThreadId(), SIGN, '4', 0);
        for (auto *hook : {THR_WIN32_PUMP_FUNC{}, pump_hook}) {
            thr_win32_set_msg_pump_func(hook);
            EXPECT_EQ(thr_win32_pump_messages(6), 0u);
        }
        EXPECT_EQ(thr_qt_process_events(), 95134u);
        EXPECT_EQ(drain(), "4");
    }).join();
    EXPECT_TRUE(handled.empty() && !thr_win32_pump_exit_event && !thr_qt_exit_event);

    EXPECT_EQ(thr_qt_process_events(), 95134u);
    EXPECT_EQ(handled, "Qt");
    EXPECT_EQ(thr_qt_post_exit_event() + thr_event_is_posted(thr_qt_exit_event), 2);
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr) << "the other loop's";
    EXPECT_EQ(pump("1", 1ull << 40), std::to_string(3ull << 40) + " |1");
    thr_win32_set_msg_pump_func(nullptr);
    thr_qt_set_process_event_func(nullptr);
    forget(thr_win32_pump_exit_event);
    forget(thr_qt_exit_event);

    EXPECT_EQ(thr_win32_get_registered_message("thr"), RegisterWindowMessageA("thr"));
    EXPECT_EQ(thr_win32_is(), 1);
}

std::atomic<int> created, closed;

// Lets two threads come as far as the creation, if the library lets them.
HANDLE created_together(SECURITY_ATTRIBUTES *, BOOL manual, BOOL posted, const char *)
{
    ++created;
    for (int ms = 0; created < 2 && ms < 5000; ++ms)
        Sleep(1);
    return CreateEventA(nullptr, manual, posted, nullptr);
}

TEST(Pump, AnEventMadeByTwoThreadsAtOnceIsOneEvent)
{
    created = closed = 0;
    auto counted_close = [](HANDLE handle) { return ++closed, CloseHandle(handle); };
    support::ImportPatch create("CreateEventA", &created_together);
    support::ImportPatch close("CloseHandle", +counted_close);
    std::thread other(thr_win32_post_pump_exit_event);
    thr_win32_post_pump_exit_event();
    other.join();
    EXPECT_EQ(created - closed, 1);
    EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), 1);
    forget(thr_win32_pump_exit_event);
}

} // namespace
