#include "thr/thr.h"
#include "thr/thr_report.h"

#include <cstdlib>
#include <cstring>

#include <windows.h>

struct THR_EVENT_RECORD {
    HANDLE hevent;
};

THR_EVENT thr_event_create()
{
    THR_EVENT event = static_cast<THR_EVENT>(malloc(sizeof *event));
    THR_CHECK_AS(event, "event");
    memset(event, 0, sizeof *event);
    event->hevent = THR_CHECK_HANDLE("create an event", CreateEvent(0, TRUE, FALSE, NULL));
    return event;
}

void thr_event_destroy(THR_EVENT event)
{
    THR_CHECK(event != 0);
    HANDLE hevent = event->hevent;
    THR_WARN_WIN32("destroy an event", CloseHandle(hevent));
    event->hevent = nullptr;
    free(event);
}

void thr_event_post(THR_EVENT event)
{
    THR_CHECK(event != 0);
    HANDLE hevent = event->hevent;
    THR_CHECK_WIN32("set an event", SetEvent(hevent));
}

void thr_event_pulse(THR_EVENT event)
{
    THR_CHECK(event != 0);
    HANDLE hevent = event->hevent;
    THR_CHECK_WIN32("set an event", PulseEvent(hevent));
}

void thr_event_reset(THR_EVENT event)
{
    THR_CHECK(event != 0);
    HANDLE hevent = event->hevent;
    THR_CHECK_WIN32("reset an event", ResetEvent(hevent));
}

int thr_event_is_posted(THR_EVENT event)
{
    THR_CHECK(event != 0);
    return WaitForSingleObject(event->hevent, 0) == WAIT_OBJECT_0;
}

int thr_event_wait(THR_EVENT event, uint32_t timeout)
{
    THR_CHECK(event != 0);
    DWORD ret_val = WaitForSingleObject(event->hevent, timeout ? timeout : INFINITE);
    THR_CHECK_WIN32("wait for an event", ret_val != WAIT_FAILED);
    return 1;
}
