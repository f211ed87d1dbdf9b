// The tests run on the thread that loaded the library: its main thread.
#include "support/test.h"

using namespace support;

namespace
{

// 'x' posts the exit event, 'f' gives it up, 'q' asks for a quit, others are posted as messages.
void act(char action)
{
    if (action == 'x')
        thr_win32_post_pump_exit_event();
    else if (action == 'f')
        thr_event_destroy(std::exchange(thr_win32_pump_exit_event, nullptr));
    else if (action == 'q')
        thr_process_exit(5);
    else
        PostThreadMessageA(GetCurrentThreadId(), WM_COMMAND, action, 0);
}

// Acts, and pumps. Returns the result, the messages that are handled, and, behind a line, what is
// left. A capital is a message whose handling acts.
std::string pump(const std::string &actions, uint64_t limit)
{
    std::string handled, left;
    for (char action : actions)
        act(action);
    Gate translate("TranslateMessage"), dispatch("DispatchMessageA", [&](const Call &call) {
        EXPECT_EQ(translate.calls(), call.nth) << "first";
        handled += static_cast<char>(call.arg<MSG *>(0)->wParam);
        if (isupper(handled.back()))
            act(static_cast<char>(tolower(handled.back())));
        return 0;
    });
    const uint64_t result = thr_win32_pump_messages(limit);
    for (MSG message; PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE);)
        left += message.wParam == WPARAM(-1) ? 'q' : static_cast<char>(message.wParam);
    return std::to_string(result) + " " + handled + "|" + left;
}

// Two threads ask for the exit at once, and come together as far as the event's creation, if the
// library lets them.
TEST(Pump, StopsAtItsLimitAtAQuitAndAtTheExitThatTwoThreadsAskForAtOnce)
{
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr);
    EXPECT_EQ(std::exchange(thr_win32_pump_exit_retcode, 5000000000), 95134u);
    Gate close("CloseHandle"), create("CreateEventA", [&](const Call &call) {
        eventually([&] { return create.calls() >= 2; });
        return call.go_on();
    });
    std::thread other(act, 'x');
    act('x');
    other.join();
    EXPECT_EQ(create.calls() - close.calls(), 1);
    const std::tuple<const char *, uint64_t, const char *> cases[] = {
        {"12", 3, "5000000000 |2"}, // the exit shows at the next message
        {"1234", 0, "0 1234|"},
        {"1234", 2, "3 123|4"}, // one more than the limit is handled
        {"1X23", 0, "5000000000 1X|3"},
        {"1F2", 0, "0 1F2|"},
        {"12q", 0, "0 12|q"}, // a quit is left to the host's loop
        {"12q", UINT64_MAX, "2 12|q"},
        {"12q", 3, "4 12|q"},
        {"xq", 4, "5 |q"}};
    for (auto &[actions, limit, result] : cases)
        EXPECT_EQ(pump(actions, limit), result);
    act('f');
}

TEST(Pump, HooksPumpInItsPlaceAndOnTheMainThreadAlone)
{
    thr_win32_pump_exit_retcode = 7;
    EXPECT_EQ(thr_qt_process_events() + thr_qt_post_exit_event(), 0u) << "there is none";
    thr_qt_set_process_event_func([] { thr_win32_pump_exit_retcode += thr_qt_exit_event ? 1 : 9; });
    std::thread([] {
        EXPECT_EQ(pump("1", 6), "0 |1");
        thr_win32_set_msg_pump_func(
            [](uint64_t limit) { return thr_win32_pump_exit_event ? limit * 3 : limit; });
        EXPECT_EQ(thr_win32_pump_messages(6) + thr_qt_process_events(), 7u);
    }).join();
    EXPECT_TRUE(!thr_win32_pump_exit_event && !thr_qt_exit_event);
    EXPECT_EQ(thr_qt_process_events(), 7u) << "read before its hook runs";
    EXPECT_EQ(thr_win32_pump_exit_retcode, 8u);
    EXPECT_TRUE(thr_qt_post_exit_event() == 1 && thr_event_is_posted(thr_qt_exit_event));
    EXPECT_EQ(pump("1", 1ull << 40), std::to_string(3ull << 40) + " |1");
    thr_win32_set_msg_pump_func(nullptr);
    thr_qt_set_process_event_func(nullptr);
    act('f');
    EXPECT_EQ(thr_win32_get_registered_message("thr"), RegisterWindowMessageA("thr"));
    EXPECT_EQ(thr_win32_is(), 1);
}

} // namespace
