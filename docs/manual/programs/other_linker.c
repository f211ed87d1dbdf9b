/* On thr.lib alone, as a toolchain uses it that knows nothing of MinGW: no C runtime, no headers
   but the library's and the compiler's, and perhaps another default calling convention. Ends with
   exit code 42. */
#include "thr/thr.h"

__declspec(dllimport) void __stdcall ExitProcess(unsigned code);

static void *THR_CALL work(void *arg)
{
    return arg;
}

void __stdcall start(void);

void __stdcall start(void)
{
    THR_MUTEX mutex = thr_mutex_create();
    thr_mutex_lock(mutex);
    int is_good = thr_mutex_try_lock(mutex) && thr_thread_self() == THR_THREAD_MAIN_ID;
    THR_THREAD_ID thread = thr_thread_create(work, &is_good, 0);
    ExitProcess(thr_thread_wait(thread) == &is_good && is_good ? 42 : 1);
}
