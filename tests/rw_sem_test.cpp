#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

using namespace support;

namespace
{

// The semaphore's record, whose fields are in this order.
struct Record {
    THR_MUTEX state_mutex, writer_mutex;
    THR_EVENT no_readers_event, no_writers_event;
    int32_t reader_count, writer_count;
};

using Counts = std::pair<int, int>; // of readers and writers

// The counts, which no event may contradict: each is posted exactly while its count is 0.
Counts counts_of(THR_RW_SEM sem)
{
    Record &record = *reinterpret_cast<Record *>(sem);
    thr_mutex_lock(record.state_mutex);
    Counts counts(record.reader_count, record.writer_count);
    EXPECT_EQ(thr_event_is_posted(record.no_readers_event), counts.first == 0);
    EXPECT_EQ(thr_event_is_posted(record.no_writers_event), counts.second == 0);
    thr_mutex_unlock(record.state_mutex);
    return counts;
}

// Ends the process when it hangs: its threads could not be joined.
template <class Condition> void await(Condition condition)
{
    for (DWORD ms = 0; !condition(); ++ms) {
        if (ms == PATIENCE_MS)
            TerminateProcess(GetCurrentProcess(), 3);
        Sleep(1);
    }
}

// A thread that asks for the semaphore, and has it until it is told to leave.
struct Actor {
    std::atomic<bool> in{false}, may_leave{false};
    std::thread thread;

    Actor(THR_RW_SEM sem, void (*lock)(THR_RW_SEM), void (*unlock)(THR_RW_SEM))
        : thread([=] {
              lock(sem);
              in = true;
              await([this] { return may_leave.load(); });
              unlock(sem);
          })
    {
    }
    void leave_once_in()
    {
        await([this] { return in.load(); });
        may_leave = true;
        thread.join();
    }
};

struct Reader : Actor {
    explicit Reader(THR_RW_SEM sem) : Actor(sem, thr_rw_sem_read_lock, thr_rw_sem_read_unlock) {}
};

struct Writer : Actor {
    explicit Writer(THR_RW_SEM sem) : Actor(sem, thr_rw_sem_write_lock, thr_rw_sem_write_unlock) {}
};

std::atomic<int> waits; // for an event, without limit

DWORD WINAPI counted_wait(HANDLE handle, DWORD limit)
{
    waits += limit == INFINITE;
    return WaitForSingleObject(handle, limit);
}

TEST(RwSem, WritersGoFirst)
{
    ImportPatch patch("WaitForSingleObject", &counted_wait);
    THR_RW_SEM sem = thr_rw_sem_create();
    Reader reader(sem), other_reader(sem);
    await([&] { return reader.in && other_reader.in; });
    EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 0);
    Writer writer(sem);
    await([] { return waits == 1; });
    EXPECT_EQ(counts_of(sem), Counts(2, 1));
    EXPECT_EQ(thr_rw_sem_read_try_lock(sem), 0);
    Reader late_reader(sem);
    await([] { return waits == 2; });
    reader.leave_once_in();
    EXPECT_EQ(counts_of(sem), Counts(1, 1));
    other_reader.leave_once_in();
    await([&] { return writer.in.load(); });
    Writer late_writer(sem);
    await([&] { return counts_of(sem) == Counts(0, 2); });
    writer.leave_once_in();
    await([&] { return late_writer.in.load(); });
    EXPECT_EQ(counts_of(sem), Counts(0, 1));
    EXPECT_FALSE(late_reader.in);
    late_writer.leave_once_in();
    await([&] { return late_reader.in.load(); });
    EXPECT_EQ(counts_of(sem), Counts(1, 0));
    late_reader.leave_once_in();
    thr_rw_sem_destroy(sem);
    free(sem);
}

// --- under load ---------------------------------------------------------------------------------

thread_local std::minstd_rand random_of_thread;

// One of the library's calls, before which other threads are let in now and then.
template <auto *function, class... Args> auto jittery(Args... args)
{
    const unsigned choice = random_of_thread() % 64;
    if (choice == 0)
        Sleep(1);
    else if (choice < 24)
        SwitchToThread();
    return function(args...);
}

// What a thread under load does; returns how often somebody was in who should not have been.
int use_often(THR_RW_SEM sem, bool writes, unsigned seed)
{
    static std::atomic<int> inside; // readers, and 1000 for each writer
    auto lock = writes ? thr_rw_sem_write_lock : thr_rw_sem_read_lock;
    auto try_lock = writes ? thr_rw_sem_write_try_lock : thr_rw_sem_read_try_lock;
    auto unlock = writes ? thr_rw_sem_write_unlock : thr_rw_sem_read_unlock;
    random_of_thread.seed(seed);
    int faults = 0;
    for (int round = 0; round < 1000; ++round) {
        if (random_of_thread() % 4 != 0)
            lock(sem);
        else if (!try_lock(sem))
            continue;
        const bool again = writes && random_of_thread() % 4 == 0;
        if (again)
            lock(sem);
        const int now = inside += writes ? 1000 : 1;
        faults += writes ? now != 1000 : now > 1000;
        SwitchToThread();
        inside -= writes ? 1000 : 1;
        if (again)
            unlock(sem);
        unlock(sem);
    }
    return faults;
}

TEST(RwSem, KeepsItsInvariantsUnderLoad)
{
    ImportPatch patches[] = {
        {"EnterCriticalSection", &jittery<&EnterCriticalSection, CRITICAL_SECTION *>},
        {"LeaveCriticalSection", &jittery<&LeaveCriticalSection, CRITICAL_SECTION *>},
        {"SetEvent", &jittery<&SetEvent, HANDLE>},
        {"WaitForSingleObject", &jittery<&WaitForSingleObject, HANDLE, DWORD>}};
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    THR_RW_SEM sem = thr_rw_sem_create();
    std::atomic<int> running(7), faults(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 7; ++i) {
        threads.emplace_back([&, i] {
            faults += use_often(sem, i < 3, seed + i);
            --running;
        });
    }
    await([&] { return counts_of(sem), running == 0; });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(faults, 0);
    EXPECT_EQ(counts_of(sem), Counts(0, 0));
    EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 1);
    thr_rw_sem_write_unlock(sem);
    thr_rw_sem_destroy(sem);
    free(sem);
}

} // namespace
