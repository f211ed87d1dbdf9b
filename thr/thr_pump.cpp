#include "thr/thr.h"

#include <cstdint>

#include <windows.h>

THR_EVENT thr_win32_pump_exit_event = nullptr;
uint64_t thr_win32_pump_exit_retcode = 95134;
THR_EVENT thr_qt_exit_event = nullptr;

namespace
{

struct PumpState {
    THR_WIN32_PUMP_FUNC m_pump_func;
    THR_QT_PROCESS_EVENT_FUNC m_qt_process_event_func;
};

PumpState state;

// Makes an exit event on its first use. Threads that do so at once agree on one event, so that no
// post is lost.
THR_EVENT exit_event(THR_EVENT *variable)
{
    THR_EVENT event = *const_cast<THR_EVENT volatile *>(variable);
    if (event)
        return event;
    THR_EVENT made = thr_event_create();
    void *first = InterlockedCompareExchangePointer(reinterpret_cast<void *volatile *>(variable),
                                                    made, nullptr);
    if (!first)
        return made;
    thr_event_destroy(made);
    return static_cast<THR_EVENT>(first);
}

// Takes a post of the pump's exit event back. A message's handler may have given the event up.
bool is_exit_asked_for()
{
    THR_EVENT event = exit_event(&thr_win32_pump_exit_event);
    if (!thr_event_is_posted(event))
        return false;
    thr_event_reset(event);
    return true;
}

bool is_main_thread()
{
    return thr_thread_self() == THR_THREAD_MAIN_ID;
}

// The library's own pump. It takes a message in the call that looks for one: in between, a message
// sent by another thread could take away what was seen, and a call that waits would stay.
uint64_t pump(uint64_t limit)
{
    uint64_t count = 0;
    do {
        MSG message;
        if (!PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
            return count;
        if (message.message == WM_QUIT) {
            // The quit is for the host's own loop. Without a limit nothing else would end this one.
            PostQuitMessage(static_cast<int>(message.wParam));
            if (limit == 0 || limit == UINT64_MAX)
                return count;
        } else if (is_exit_asked_for()) {
            return thr_win32_pump_exit_retcode;
        } else {
            TranslateMessage(&message);
            DispatchMessageA(&message);
        }
        if (limit != 0)
            count++;
    } while (count <= limit);
    return count;
}

} // namespace

int thr_win32_is()
{
    return 1;
}

uint32_t thr_win32_get_registered_message(const char *name)
{
    return RegisterWindowMessageA(name);
}

void thr_win32_set_msg_pump_func(THR_WIN32_PUMP_FUNC func)
{
    state.m_pump_func = func;
}

uint64_t thr_win32_pump_messages(uint64_t limit)
{
    if (!is_main_thread())
        return 0;
    exit_event(&thr_win32_pump_exit_event);
    if (THR_WIN32_PUMP_FUNC pump_func = state.m_pump_func)
        return pump_func(limit);
    return pump(limit);
}

void thr_win32_post_pump_exit_event()
{
    thr_event_post(exit_event(&thr_win32_pump_exit_event));
}

void thr_qt_set_process_event_func(THR_QT_PROCESS_EVENT_FUNC func)
{
    state.m_qt_process_event_func = func;
}

uint64_t thr_qt_process_events()
{
    THR_QT_PROCESS_EVENT_FUNC process_events = state.m_qt_process_event_func;
    if (!process_events)
        return 0;
    uint64_t retcode = thr_win32_pump_exit_retcode;
    if (is_main_thread()) {
        exit_event(&thr_qt_exit_event);
        process_events();
    }
    return retcode;
}

int thr_qt_post_exit_event()
{
    if (!state.m_qt_process_event_func)
        return 0;
    thr_event_post(exit_event(&thr_qt_exit_event));
    return 1;
}
