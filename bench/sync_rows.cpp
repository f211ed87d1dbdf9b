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

// Makes batches of operations as they are, for one thread.
const auto ALONE = [](auto op) { return repeat(op); };

void mutex_rows(Report &report)
{
    report.row({"mutex create+destroy", 1.25, repeat([] { thr_mutex_destroy(thr_mutex_create()); }),
                repeat([] { raw::destroy_section(raw::make_section()); })});
    THR_MUTEX mutex = thr_mutex_create();
    CRITICAL_SECTION *section = raw::make_section();
    std::mutex standard;
    std::recursive_mutex recursive;
    SRWLOCK slim = SRWLOCK_INIT;
    auto row = [&](const char *name, double goal, auto batch, double seconds, const char *below) {
        report.row({name,
                    goal,
                    batch([=] { thr_mutex_lock(mutex), thr_mutex_unlock(mutex); }),
                    batch([=] { EnterCriticalSection(section), LeaveCriticalSection(section); }),
                    {{"std::recursive_mutex", batch([&] { recursive.lock(), recursive.unlock(); })},
                     {"std::mutex", batch([&] { standard.lock(), standard.unlock(); })},
                     {"slim lock", batch([&] {
                          AcquireSRWLockExclusive(&slim), ReleaseSRWLockExclusive(&slim);
                      })}},
                    seconds,
                    below});
    };
    row("mutex lock+unlock", 1.08, ALONE, BATCH, "std::recursive_mutex");
    report.row({"mutex try-lock+unlock", 1.25,
                repeat([=] { (void)thr_mutex_try_lock(mutex), thr_mutex_unlock(mutex); }),
                repeat([=] { TryEnterCriticalSection(section), LeaveCriticalSection(section); })});
    Crew crew(2);
    auto shared = [&](auto op) { return together(crew, [op](int) { op(); }); };
    row("mutex lock+unlock, two threads", 1.25, shared, THREADS_BATCH, "");
    raw::destroy_section(section);
    thr_mutex_destroy(mutex);
}

void event_rows(Report &report)
{
    report.row({"event create+destroy", 1.08, repeat([] { thr_event_destroy(thr_event_create()); }),
                repeat([] { raw::destroy_event(raw::make_event()); })});
    THR_EVENT events[2] = {thr_event_create(), thr_event_create()};
    raw::Event *raw_events[2] = {raw::make_event(), raw::make_event()};
    THR_EVENT event = events[0];
    HANDLE raw_event = raw_events[0]->m_handle;
    report.row({"event post+reset", 1.08,
                repeat([=] { thr_event_post(event), thr_event_reset(event); }),
                repeat([=] { SetEvent(raw_event), ResetEvent(raw_event); })});
    report.row({"event test", 1.08, repeat([=] { thr_event_is_posted(event); }),
                repeat([=] { WaitForSingleObject(raw_event, 0); })});
    Crew crew(2); // two threads that wait for each other's posts in turn
    auto ping_pong = [&](auto post, auto wait_and_reset) {
        return in_step(crew, [=](int member) {
            if (member == 0)
                post(1);
            wait_and_reset(member);
            if (member == 1)
                post(0);
        });
    };
    auto post = [=](int member) { thr_event_post(events[member]); };
    auto wait = [=](int member) {
        thr_event_wait(events[member], 0), thr_event_reset(events[member]);
    };
    auto raw_post = [=](int member) { SetEvent(raw_events[member]->m_handle); };
    auto raw_wait = [=](int member) {
        WaitForSingleObject(raw_events[member]->m_handle, INFINITE);
        ResetEvent(raw_events[member]->m_handle);
    };
    report.row({"event ping-pong of two threads",
                1.08,
                ping_pong(post, wait),
                ping_pong(raw_post, raw_wait),
                {},
                THREADS_BATCH});
    for (int member = 0; member < 2; ++member) {
        thr_event_destroy(events[member]);
        raw::destroy_event(raw_events[member]);
    }
}

void rw_sem_rows(Report &report)
{
    THR_RW_SEM sem = thr_rw_sem_create();
    raw::RwSem raw_sem;
    std::shared_mutex standard;
    SRWLOCK slim = SRWLOCK_INIT;
    // `batch` makes one of an operation that reads and one that writes
    auto row = [&](const std::string &name, double goal, auto batch, double seconds) {
        report.row(
            {name,
             goal,
             batch([=] { thr_rw_sem_read_lock(sem), thr_rw_sem_read_unlock(sem); },
                   [=] { thr_rw_sem_write_lock(sem), thr_rw_sem_write_unlock(sem); }),
             batch([&] { raw_sem.read_lock(), raw_sem.read_unlock(); },
                   [&] { raw_sem.write_lock(), raw_sem.write_unlock(); }),
             {{"std::shared_mutex", batch([&] { standard.lock_shared(), standard.unlock_shared(); },
                                          [&] { standard.lock(), standard.unlock(); })},
              {"slim lock",
               batch([&] { AcquireSRWLockShared(&slim), ReleaseSRWLockShared(&slim); },
                     [&] { AcquireSRWLockExclusive(&slim), ReleaseSRWLockExclusive(&slim); })}},
             seconds});
    };
    auto reads = [](auto read, auto) { return repeat(read); };
    row("rw sem read lock+unlock", 1.08, reads, BATCH);
    thr_rw_sem_read_lock(sem);
    raw_sem.read_lock();
    row("rw sem read lock+unlock beside a reader", 1.25, reads, BATCH);
    thr_rw_sem_read_unlock(sem);
    raw_sem.read_unlock();
    row(
        "rw sem write lock+unlock", 1.08, [](auto, auto write) { return repeat(write); }, BATCH);

    Crew four(4);
    auto one_writes = [&](auto read, auto write) {
        return together(four, [=](int member) { member == 0 ? write() : read(); });
    };
    row("rw sem, three readers and a writer", 1.08, one_writes, THREADS_BATCH);
    for (int threads : {1, 2, 4, 8}) {
        Crew crew(threads);
        auto mixed = [&](auto read, auto write) {
            const int parts = 8;
            auto op = [=](int) {
                for (int reads_done = 1; reads_done < parts; ++reads_done)
                    read();
                write();
            };
            return together(crew, op, parts);
        };
        row("rw sem, " + std::to_string(threads) + " threads, 1 of 8 writes", 1.08, mixed,
            2 * BATCH);
    }
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
