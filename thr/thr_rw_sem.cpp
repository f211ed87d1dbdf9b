#include "thr/thr.h"
#include "thr/thr_report.h"

#include <cstdlib>
#include <cstring>

// Whenever m_state_mutex is free, each event is posted exactly while its count is 0. A thread never
// waits, for an event or for m_writer_mutex, while it holds m_state_mutex.
struct THR_RW_SEM_RECORD {
    THR_MUTEX m_state_mutex;
    THR_MUTEX m_writer_mutex; // held by the writer that owns the lock
    THR_EVENT m_no_readers_event;
    THR_EVENT m_no_writers_event;
    int32_t m_reader_count; // holding
    int32_t m_writer_count; // holding and waiting
};

namespace
{

// With the state mutex locked: waits until a count that others change is 0.
void wait_until_none(THR_RW_SEM sem, const int32_t &count, THR_EVENT none_event)
{
    while (count > 0) {
        thr_mutex_unlock(sem->m_state_mutex);
        thr_event_wait(none_event, 0);
        thr_mutex_lock(sem->m_state_mutex);
    }
}

// With the state mutex locked: counts one more holder, and takes the post back for the first.
void add_one(int32_t &count, THR_EVENT none_event)
{
    if (count == 0)
        thr_event_reset(none_event);
    count++;
}

// With the state mutex locked: counts one holder less, and posts after the last.
void subtract_one(int32_t &count, THR_EVENT none_event)
{
    count--;
    if (count == 0)
        thr_event_post(none_event);
}

} // namespace

THR_RW_SEM thr_rw_sem_create()
{
    THR_RW_SEM new_sem = static_cast<THR_RW_SEM>(malloc(sizeof *new_sem));
    THR_CHECK(new_sem);
    memset(new_sem, 0, sizeof *new_sem);
    new_sem->m_state_mutex = thr_mutex_create();
    new_sem->m_writer_mutex = thr_mutex_create();
    new_sem->m_no_readers_event = thr_event_create();
    new_sem->m_no_writers_event = thr_event_create();
    thr_event_post(new_sem->m_no_readers_event);
    thr_event_post(new_sem->m_no_writers_event);
    return new_sem;
}

void thr_rw_sem_destroy(THR_RW_SEM sem)
{
    if (!sem)
        return;
    thr_mutex_destroy(sem->m_state_mutex);
    thr_mutex_destroy(sem->m_writer_mutex);
    thr_event_destroy(sem->m_no_readers_event);
    thr_event_destroy(sem->m_no_writers_event);
}

void thr_rw_sem_read_lock(THR_RW_SEM sem)
{
    if (!sem)
        return;
    thr_mutex_lock(sem->m_state_mutex);
    wait_until_none(sem, sem->m_writer_count, sem->m_no_writers_event);
    add_one(sem->m_reader_count, sem->m_no_readers_event);
    thr_mutex_unlock(sem->m_state_mutex);
}

int thr_rw_sem_read_try_lock(THR_RW_SEM sem)
{
    if (!sem)
        return 1;
    thr_mutex_lock(sem->m_state_mutex);
    int taken = sem->m_writer_count == 0;
    if (taken)
        add_one(sem->m_reader_count, sem->m_no_readers_event);
    thr_mutex_unlock(sem->m_state_mutex);
    return taken;
}

void thr_rw_sem_read_unlock(THR_RW_SEM sem)
{
    if (!sem)
        return;
    thr_mutex_lock(sem->m_state_mutex);
    subtract_one(sem->m_reader_count, sem->m_no_readers_event);
    thr_mutex_unlock(sem->m_state_mutex);
}

void thr_rw_sem_write_lock(THR_RW_SEM sem)
{
    if (!sem)
        return;
    thr_mutex_lock(sem->m_state_mutex);
    add_one(sem->m_writer_count, sem->m_no_writers_event); // from here on new readers wait
    wait_until_none(sem, sem->m_reader_count, sem->m_no_readers_event);
    thr_mutex_unlock(sem->m_state_mutex);
    thr_mutex_lock(sem->m_writer_mutex);
}

int thr_rw_sem_write_try_lock(THR_RW_SEM sem)
{
    if (!sem)
        return 1;
    thr_mutex_lock(sem->m_state_mutex);
    int taken = sem->m_writer_count == 0 && sem->m_reader_count == 0 &&
                thr_mutex_try_lock(sem->m_writer_mutex);
    if (taken) {
        sem->m_writer_count = 1;
        thr_event_reset(sem->m_no_writers_event);
    }
    thr_mutex_unlock(sem->m_state_mutex);
    return taken;
}

void thr_rw_sem_write_unlock(THR_RW_SEM sem)
{
    if (!sem)
        return;
    thr_mutex_unlock(sem->m_writer_mutex);
    thr_mutex_lock(sem->m_state_mutex);
    subtract_one(sem->m_writer_count, sem->m_no_writers_event);
    thr_mutex_unlock(sem->m_state_mutex);
}
