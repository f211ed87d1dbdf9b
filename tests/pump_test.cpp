// The tests run on the thread that loaded the library: its main thread.
#include "thr/thr.h"

#include "support/import_patch.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace support;

namespace
{

// As they are before anything is used.
const THR_EVENT START_EVENTS[] = {thr_win32_pump_exit_event, thr_qt_exit_event};
const uint64_t START_RETCODE = thr_win32_pump_exit_retcode;

const UINT NUMBERED = WM_APP + 1;
const UINT STOP = WM_APP + 2; // its handler posts the exit event

std::string handled; // the numbers of the messages dispatched

LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == NUMBERED)
        handled += std::to_string(wparam) + " ";
    if (message == STOP)
        thr_win32_post_pump_exit_event();
    return DefWindowProcA(window, message, wparam, lparam);
}

void forget(THR_EVENT &event)
{
    if (event)
        thr_event_destroy(event);
    event = nullptr;
}

// Takes what is in the queue: numbers, and "quit" with its code.
std::string drain()
{
    std::string left;
    MSG message;
    for (int i = 0; i < 100 && PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE); ++i) {
        if (message.message == WM_QUIT)
            left += "quit " + std::to_string(static_cast<int>(message.wParam)) + " ";
        else if (message.message == NUMBERED)
            left += std::to_string(message.wParam) + " ";
    }
    return left;
}

std::string take_handled()
{
    std::string taken;
    taken.swap(handled);
    return taken;
}

// Starts each test as the library starts, with a message-only window and an empty queue.
class Pump : public testing::Test
{
protected:
    Pump()
    {
        WNDCLASSA window_class = {};
        window_class.lpfnWndProc = window_proc;
        window_class.lpszClassName = "thr pump test";
        RegisterClassA(&window_class);
        m_window = CreateWindowA("thr pump test", "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr,
                                 nullptr);
        drain();
        handled.clear();
        thr_win32_pump_exit_retcode = START_RETCODE;
    }
    ~Pump()
    {
        thr_win32_set_msg_pump_func(nullptr);
        thr_qt_set_process_event_func(nullptr);
        forget(thr_win32_pump_exit_event);
        forget(thr_qt_exit_event);
        DestroyWindow(m_window);
    }
    void SetUp() override { ASSERT_TRUE(m_window) << GetLastError(); }

    // Posts messages with the numbers 1 to `count`.
    void post(int count, UINT message = NUMBERED)
    {
        for (int i = 1; i <= count; ++i)
            ASSERT_TRUE(PostMessageA(m_window, message, i, 0));
    }

    HWND m_window;
};

TEST_F(Pump, HandlesOneMessageMoreThanItsLimit)
{
    EXPECT_EQ(START_EVENTS[0], nullptr);
    EXPECT_EQ(START_EVENTS[1], nullptr);
    EXPECT_EQ(START_RETCODE, 95134u);
    const struct {
        int messages;
        uint64_t limit, result;
        const char *handled, *left;
    } cases[] = {{0, 0, 0, "", ""},
                 {0, 3, 0, "", ""},
                 {5, 0, 0, "1 2 3 4 5 ", ""},
                 {5, 2, 3, "1 2 3 ", "4 5 "},
                 {5, 4, 5, "1 2 3 4 5 ", ""},
                 {5, 5, 5, "1 2 3 4 5 ", ""},
                 {5, UINT64_MAX, 5, "1 2 3 4 5 ", ""}};
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        post(c.messages);
        EXPECT_EQ(thr_win32_pump_messages(c.limit), c.result);
        EXPECT_EQ(take_handled(), c.handled);
        EXPECT_EQ(drain(), c.left);
        ASSERT_NE(thr_win32_pump_exit_event, nullptr) << "made by the first pump";
        EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), 0);
    }
}

BOOL WINAPI recorded_translate(const MSG *message)
{
    handled += "translated ";
    return TranslateMessage(message);
}

BOOL WINAPI refused_get_message(MSG *, HWND, UINT, UINT)
{
    return -1;
}

TEST_F(Pump, TranslatesFirstAndTakesThreadMessagesToo)
{
    ImportPatch patch("TranslateMessage", &recorded_translate);
    post(1);
    PostThreadMessageA(GetCurrentThreadId(), NUMBERED, 9, 0);
    EXPECT_EQ(thr_win32_pump_messages(7), 2u);
    EXPECT_EQ(take_handled(), "translated 1 translated ") << "9 has no window";
    post(1);
    ImportPatch refusal("GetMessageA", &refused_get_message);
    EXPECT_EQ(thr_win32_pump_messages(0), 0u) << "must end all the same";
    EXPECT_EQ(drain(), "1 ");
}

TEST_F(Pump, ReportsTheExitAtTheNextMessage)
{
    const struct {
        int messages;
        uint64_t limit, retcode, result;
        const char *left;
        int is_posted;
    } cases[] = {{0, 0, 95134, 0, "", 1},       {0, 3, 95134, 0, "", 1},
                 {1, 0, 95134, 95134, "", 0},   {2, 0, 95134, 95134, "2 ", 0},
                 {2, 1, 95134, 95134, "2 ", 0}, {1, 9, 1ull << 40, 1ull << 40, "", 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        thr_win32_pump_exit_retcode = c.retcode;
        std::thread(thr_win32_post_pump_exit_event).join(); // from any thread
        post(c.messages);
        EXPECT_EQ(thr_win32_pump_messages(c.limit), c.result);
        EXPECT_EQ(take_handled(), "") << "the message at which the exit shows is lost";
        EXPECT_EQ(drain(), c.left);
        EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), c.is_posted);
    }
    thr_event_reset(thr_win32_pump_exit_event);
    post(1);
    post(1, STOP);
    post(3);
    EXPECT_EQ(thr_win32_pump_messages(0), thr_win32_pump_exit_retcode);
    EXPECT_EQ(take_handled(), "1 ");
    EXPECT_EQ(drain(), "2 3 ");
}

int quits; // posted by the library

void WINAPI counted_quit(int code)
{
    ++quits;
    PostQuitMessage(code);
}

TEST_F(Pump, LeavesAQuitToTheHostsLoop)
{
    const struct {
        int messages, code;
        uint64_t limit, result;
        int quits;
        const char *left;
    } cases[] = {{0, 7, 0, 0, 1, "quit 7 "},   {0, 7, 1, 2, 2, "quit 7 "},
                 {0, -1, 3, 4, 4, "quit -1 "}, {2, -1, 0, 0, 1, "quit -1 "},
                 {2, 0, 3, 4, 2, "quit 0 "},   {3, 9, 1, 2, 0, "3 quit 9 "}};
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        ImportPatch patch("PostQuitMessage", &counted_quit);
        quits = 0;
        post(c.messages);
        PostQuitMessage(c.code);
        EXPECT_EQ(thr_win32_pump_messages(c.limit), c.result);
        EXPECT_EQ(quits, c.quits);
        EXPECT_EQ(drain(), c.left);
    }
    thr_win32_post_pump_exit_event();
    thr_process_exit(thr_process_status{0, 3});
    EXPECT_EQ(thr_win32_pump_messages(4), 5u);
    EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), 1) << "the quit comes first";
    EXPECT_EQ(drain(), "quit -1 ");
}

// --- hooks --------------------------------------------------------------------------------------

bool had_event;
int hook_calls;

uint64_t pump_hook(uint64_t limit)
{
    ++hook_calls;
    had_event = thr_win32_pump_exit_event != nullptr;
    return limit * 3;
}

void qt_hook()
{
    ++hook_calls;
    had_event = thr_qt_exit_event != nullptr;
    thr_win32_pump_exit_retcode = 1; // the value from before the call counts
}

TEST_F(Pump, AHookPumpsInItsPlace)
{
    thr_win32_set_msg_pump_func(pump_hook);
    EXPECT_EQ(thr_win32_pump_messages(5), 15u);
    EXPECT_TRUE(had_event) << "made before the hook is called";
    thr_win32_post_pump_exit_event();
    post(1);
    EXPECT_EQ(thr_win32_pump_messages(1ull << 40), 3ull << 40);
    EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), 1);
    thr_win32_set_msg_pump_func(nullptr);
    EXPECT_EQ(thr_win32_pump_messages(1), 95134u);
}

TEST_F(Pump, QtEventsAreProcessedByTheHook)
{
    EXPECT_EQ(thr_qt_process_events(), 0u);
    EXPECT_EQ(thr_qt_post_exit_event(), 0);
    EXPECT_EQ(thr_qt_exit_event, nullptr);
    thr_qt_set_process_event_func(qt_hook);
    EXPECT_EQ(thr_qt_process_events(), 95134u);
    EXPECT_TRUE(had_event);
    EXPECT_EQ(thr_event_is_posted(thr_qt_exit_event), 0);
    EXPECT_EQ(thr_qt_post_exit_event(), 1);
    EXPECT_EQ(thr_qt_process_events(), 1u);
    EXPECT_EQ(thr_event_is_posted(thr_qt_exit_event), 1) << "only the host resets it";
    EXPECT_EQ(thr_win32_pump_exit_event, nullptr) << "the other loop's";
}

TEST_F(Pump, OnAnotherThreadNothingIsTouched)
{
    thr_qt_set_process_event_func(qt_hook);
    hook_calls = 0;
    std::thread([] {
        drain(); // gives the thread its queue
        PostThreadMessageA(GetCurrentThreadId(), NUMBERED, 4, 0);
        for (auto *hook : {pump_hook, THR_WIN32_PUMP_FUNC{}}) {
            thr_win32_set_msg_pump_func(hook);
            EXPECT_EQ(thr_win32_pump_messages(6), 0u);
        }
        EXPECT_EQ(thr_qt_process_events(), 95134u);
        EXPECT_EQ(thr_win32_pump_exit_event, nullptr);
        EXPECT_EQ(thr_qt_exit_event, nullptr);
        thr_win32_post_pump_exit_event();
        EXPECT_EQ(thr_win32_pump_messages(6), 0u);
        EXPECT_EQ(drain(), "4 ");
    }).join();
    EXPECT_EQ(thr_event_is_posted(thr_win32_pump_exit_event), 1);
    EXPECT_EQ(hook_calls, 0);
}

// --- one event for all
// ----------------------------------------------------------------------------

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
            THR_EVENT seen = nullptr;
            creating = live_events = 0;
            {
                ImportPatch create("CreateEventA", &created_together);
                ImportPatch close("CloseHandle", &counted_close);
                std::thread other([&] {
                    c.post();
                    seen = c.event;
                });
                c.post();
                other.join();
            }
            EXPECT_EQ(live_events, 1);
            EXPECT_EQ(seen, c.event);
            EXPECT_EQ(thr_event_is_posted(c.event), 1);
            forget(c.event);
        }
    }
}

UINT WINAPI refused_register(const char *)
{
    return 0;
}

TEST_F(Pump, RegisteredMessagesAreTheSystems)
{
    EXPECT_EQ(thr_win32_is(), 1);
    uint32_t message = thr_win32_get_registered_message("thr pump test message");
    EXPECT_EQ(message, RegisterWindowMessageA("thr pump test message"));
    EXPECT_GE(message, 0xC000u);
    ImportPatch patch("RegisterWindowMessageA", &refused_register);
    EXPECT_EQ(thr_win32_get_registered_message("x"), 0u);
}

} // namespace
