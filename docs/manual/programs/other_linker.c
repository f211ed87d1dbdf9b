/* On thr.lib alone, as a toolchain uses it that knows nothing of MinGW: no C runtime, no headers
   but the library's and the compiler's. Ends with exit code 42. */
#include "thr/thr.h"

__declspec(dllimport) void ExitProcess(unsigned code);

void start(void);

void start(void)
{
    THR_MUTEX mutex = thr_mutex_create();
    thr_mutex_lock(mutex);
    int is_good = thr_mutex_try_lock(mutex) && thr_thread_self() == THR_THREAD_MAIN_ID;
    ExitProcess(is_good ? 42 : 1);
}
