// The tests run on the thread that loaded the library: its main thread.

#include "support/test.h"

#include <cstdint>

using support::Call;
using support::Gate;

namespace
{

const UINT SIGN = WM_APP + 1; // a message that carries a character
std::string handled;          // the characters of the messages dispatched

// Its handling of the sign 'S' posts the exit event, and of 'D' destroys it.
LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == SIGN || message == WM_CHAR)
        handled += static_cast<char>(wparam);
    if (wparam == 'S')
        thr_win32_post_pump_exit_event();
    else if (wparam == 'D')
        thr_event_destroy(std::exchange(thr_win32_pump_exit_event, nullptr));
    return DefWindowProcA(window, message, wparam, lparam);
}

// Posts a message for each character, but 'x' is the exit event, 'q' a quit with this code, and
// '\r' a key. Pumps. Returns the result, what is handled, and, behind a line, what is left, a quit
// by its code, and whether the exit still waits. A pump that waits gets a message from a timer.
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
            PostMessageA(window, c == '\r' ? UINT(WM_KEYDOWN) : SIGN, c, 0);
    }
    // The looks have an end, and a key that was only looked at is taken away, as what another
    // thread sends may do it.
    Gate look("PeekMessageA", [](const Call &call) -> intptr_t {
        MSG key;
        if (call.nth > 100 || !static_cast<BOOL>(call.go_on()))
            return FALSE;
        return call.arg<MSG *>(0)->message != WM_KEYDOWN ||
               PeekMessageA(&key, nullptr, WM_KEYDOWN, WM_KEYDOWN, PM_REMOVE) + 1;
    });
    handled.clear();
    std::string result = std::to_string(thr_win32_pump_messages(limit));
    EXPECT_LE(look.calls(), 100);
    result += " " + handled + "|";
    KillTimer(window, 1);
    for (MSG message; PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE);)
        result += static_cast<char>(message.wParam);
    return result + (thr_event_is_posted(thr_win32_pump_exit_event) ? "x" : "");
}

TEST(Pump, StopsAtItsLimitAtTheExitAndAtAQuit)
{
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr);
    EXPECT_EQ(std::exchange(thr_win32_pump_exit_retcode, 5000000000), 95134u);
    const std::tuple<const char *, uint64_t, const char *> cases[] = {
        {"\r", 0, "0 \r|"},       // a key gives a character
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
    thr_event_destroy(std::exchange(thr_win32_pump_exit_event, nullptr));
}

TEST(Pump, HooksPumpInItsPlaceAndOnTheMainThreadAlone)
{
    EXPECT_EQ(thr_qt_process_events() + thr_qt_post_exit_event(), 0u);
    handled.clear();
    thr_qt_set_process_event_func([] { handled += thr_qt_exit_event ? "Qt" : "too soon"; });
    std::thread([] {
        PostThreadMessageA(GetCurrentThreadId(), SIGN, '4', 0);
        EXPECT_EQ(thr_win32_pump_messages(6), 0u);
        thr_win32_set_msg_pump_func(
            [](uint64_t limit) { return thr_win32_pump_exit_event ? limit * 3 : limit; });
        EXPECT_EQ(thr_win32_pump_messages(6), 0u);
        EXPECT_EQ(thr_qt_process_events(), 95134u);
        EXPECT_NE(GetQueueStatus(QS_POSTMESSAGE), 0u) << "the message is left";
    }).join();
    EXPECT_TRUE(handled.empty() && !thr_win32_pump_exit_event && !thr_qt_exit_event);

    EXPECT_EQ(thr_qt_process_events(), 95134u);
    EXPECT_EQ(handled, "Qt");
    EXPECT_EQ(thr_qt_post_exit_event() + thr_event_is_posted(thr_qt_exit_event), 2);
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr) << "the other loop's";
    EXPECT_EQ(pump("1", 1ull << 40), std::to_string(3ull << 40) + " |1");
    thr_win32_set_msg_pump_func(nullptr);
    thr_qt_set_process_event_func(nullptr);
    thr_event_destroy(std::exchange(thr_win32_pump_exit_event, nullptr));
    thr_event_destroy(std::exchange(thr_qt_exit_event, nullptr));
    EXPECT_EQ(thr_win32_get_registered_message("thr"), RegisterWindowMessageA("thr"));
    EXPECT_EQ(thr_win32_is(), 1);
}

// Two threads come together as far as the creation, if the library lets them.
TEST(Pump, AnEventMadeByTwoThreadsAtOnceIsOneEvent)
{
    Gate close("CloseHandle"), create("CreateEventA", [&](const Call &call) {
        for (int tries = 0; create.calls() < 2 && tries < 5000; ++tries)
            Sleep(1);
        return call.go_on();
    });
    std::thread other(thr_win32_post_pump_exit_event);
    thr_win32_post_pump_exit_event();
    other.join();
    EXPECT_EQ(create.calls() - close.calls(), 1);
    EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), 1);
    thr_event_destroy(std::exchange(thr_win32_pump_exit_event, nullptr));
}

} // namespace
