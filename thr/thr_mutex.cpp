#include "thr/thr.h"
#include "thr/thr_report.h"

#include <cstdlib>
#include <cstring>

#include <windows.h>

struct THR_MUTEX_RECORD {
    CRITICAL_SECTION m_section;
};

THR_MUTEX thr_mutex_create()
{
    THR_MUTEX mutex = static_cast<THR_MUTEX>(malloc(sizeof *mutex));
    THR_CHECK_AS(mutex, "mutex");
    memset(mutex, 0, sizeof *mutex);
    InitializeCriticalSection(&mutex->m_section);
    return mutex;
}

void thr_mutex_destroy(THR_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    DeleteCriticalSection(&mutex->m_section);
    free(mutex);
}

void thr_mutex_lock(THR_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    EnterCriticalSection(&mutex->m_section);
}

int thr_mutex_try_lock(THR_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    return TryEnterCriticalSection(&mutex->m_section) ? 1 : 0;
}

void thr_mutex_unlock(THR_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    LeaveCriticalSection(&mutex->m_section);
}
