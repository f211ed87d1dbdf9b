#include "raw_calls.h"
#include "rows.h"

#include "thr/thr.h"

#include <cstdlib>
#include <mutex>
#include <shared_mutex>

namespace bench
{

namespace
{

const double THREADS_BATCH = 0.004; // seconds: the start of the threads must not count

void mutex_rows(Report &report)
{
    THR_MUTEX mutex = thr_mutex_create();
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    std::mutex standard;
    std::recursive_mutex recursive;
    SRWLOCK slim = SRWLOCK_INIT;
    auto library = [=] { thr_mutex_lock(mutex), thr_mutex_unlock(mutex); };
    auto raw = [&] { EnterCriticalSection(&section), LeaveCriticalSection(&section); };
    auto with_standard = [&] { standard.lock(), standard.unlock(); };
    auto with_recursive = [&] { recursive.lock(), recursive.unlock(); };
    auto with_slim = [&] { AcquireSRWLockExclusive(&slim), ReleaseSRWLockExclusive(&slim); };
    report.row({"mutex lock+unlock",
                1.08,
                repeat(library),
                repeat(raw),
                {{"std::recursive_mutex", repeat(with_recursive)},
                 {"std::mutex", repeat(with_standard)},
                 {"slim lock", repeat(with_slim)}},
                0.0005,
                "std::recursive_mutex"});

    Crew crew(2);
    auto shared = [&](auto op) { return together(crew, [op](int) { op(); }); };
    report.row({"mutex lock+unlock, two threads",
                1.25,
                shared(library),
                shared(raw),
                {{"std::recursive_mutex", shared(with_recursive)},
                 {"std::mutex", shared(with_standard)},
                 {"slim lock", shared(with_slim)}},
                THREADS_BATCH});
    DeleteCriticalSection(&section);
    thr_mutex_destroy(mutex);
}

// Two threads that wait for each other's posts in turn.
template <class Post, class Wait> Batch ping_pong(Crew &crew, Post post, Wait wait_and_reset)
{
    return in_step(crew, [=](int member) {
        if (member == 0)
            post(1);
        wait_and_reset(member);
        if (member == 1)
            post(0);
    });
}

void event_rows(Report &report)
{
    THR_EVENT events[2] = {thr_event_create(), thr_event_create()};
    HANDLE raw_events[2] = {raw::make_event(), raw::make_event()};
    THR_EVENT event = events[0];
    HANDLE raw_event = raw_events[0];
    report.row({"event post+reset", 1.08,
                repeat([=] { thr_event_post(event), thr_event_reset(event); }),
                repeat([=] { SetEvent(raw_event), ResetEvent(raw_event); })});
    report.row({"event test", 1.08, repeat([=] { thr_event_is_posted(event); }),
                repeat([=] { WaitForSingleObject(raw_event, 0); })});
    Crew crew(2);
    report.row({"event ping-pong of two threads",
                1.08,
                ping_pong(
                    crew, [&](int member) { thr_event_post(events[member]); },
                    [&](int member) {
                        thr_event_wait(events[member], 0);
                        thr_event_reset(events[member]);
                    }),
                ping_pong(
                    crew, [&](int member) { SetEvent(raw_events[member]); },
                    [&](int member) {
                        WaitForSingleObject(raw_events[member], INFINITE);
                        ResetEvent(raw_events[member]);
                    }),
                {},
                THREADS_BATCH});
    for (int member = 0; member < 2; ++member) {
        thr_event_destroy(events[member]);
        CloseHandle(raw_events[member]);
    }
}

void rw_sem_rows(Report &report)
{
    THR_RW_SEM sem = thr_rw_sem_create();
    raw::RwSem raw_sem;
    std::shared_mutex standard;
    SRWLOCK slim = SRWLOCK_INIT;
    auto read = [=] { thr_rw_sem_read_lock(sem), thr_rw_sem_read_unlock(sem); };
    auto write = [=] { thr_rw_sem_write_lock(sem), thr_rw_sem_write_unlock(sem); };
    auto raw_read = [&] { raw_sem.read_lock(), raw_sem.read_unlock(); };
    auto raw_write = [&] { raw_sem.write_lock(), raw_sem.write_unlock(); };
    auto standard_read = [&] { standard.lock_shared(), standard.unlock_shared(); };
    auto standard_write = [&] { standard.lock(), standard.unlock(); };
    auto slim_read = [&] { AcquireSRWLockShared(&slim), ReleaseSRWLockShared(&slim); };
    auto slim_write = [&] { AcquireSRWLockExclusive(&slim), ReleaseSRWLockExclusive(&slim); };
    std::vector<Variant> readers = {{"std::shared_mutex", repeat(standard_read)},
                                    {"slim lock", repeat(slim_read)}};
    report.row({"rw sem read lock+unlock", 1.08, repeat(read), repeat(raw_read), readers});

    thr_rw_sem_read_lock(sem);
    raw_sem.read_lock();
    report.row(
        {"rw sem read lock+unlock beside a reader", 1.25, repeat(read), repeat(raw_read), readers});
    thr_rw_sem_read_unlock(sem);
    raw_sem.read_unlock();

    report.row(
        {"rw sem write lock+unlock",
         1.08,
         repeat(write),
         repeat(raw_write),
         {{"std::shared_mutex", repeat(standard_write)}, {"slim lock", repeat(slim_write)}}});

    Crew crew(4);
    auto mixed = [&](auto reads, auto writes) {
        return together(crew, [=](int member) { member == 0 ? writes() : reads(); });
    };
    report.row({"rw sem, three readers and a writer",
                1.08,
                mixed(read, write),
                mixed(raw_read, raw_write),
                {{"std::shared_mutex", mixed(standard_read, standard_write)},
                 {"slim lock", mixed(slim_read, slim_write)}},
                THREADS_BATCH});
    thr_rw_sem_destroy(sem);
    free(sem);
}

} // namespace

void sync_rows(Report &report)
{
    report.part("synchronisation");
    mutex_rows(report);
    event_rows(report);
    rw_sem_rows(report);
}

} // namespace bench
