// Lost results. scripts/consumers.sh sees that compilers warn at the marked lines and nowhere else.
#include "thr/thr.h"

void lose(THR_THREAD_FUNC work, THR_MUTEX mutex, THR_IP_MUTEX ip_mutex);

void lose(THR_THREAD_FUNC work, THR_MUTEX mutex, THR_IP_MUTEX ip_mutex)
{
    thr_event_create();            // warns
    thr_thread_create(work, 0, 0); // warns
    thr_thread_wait(thr_thread_create(work, 0, 0));
    thr_mutex_try_lock(mutex); // warns
    if (thr_mutex_try_lock(mutex))
        thr_mutex_unlock(mutex);
    thr_ip_mutex_lock(ip_mutex); // warns
}
