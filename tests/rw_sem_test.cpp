#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <random>
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

// The two ways to hold the semaphore.
struct Access {
    void (*lock)(THR_RW_SEM);
    int (*try_lock)(THR_RW_SEM);
    void (*unlock)(THR_RW_SEM);
};

const Access READ = {thr_rw_sem_read_lock, thr_rw_sem_read_try_lock, thr_rw_sem_read_unlock};
const Access WRITE = {thr_rw_sem_write_lock, thr_rw_sem_write_try_lock, thr_rw_sem_write_unlock};

TEST(RwSem, ANullSemaphoreIsAlwaysAvailable)
{
    for (const Access &access : {READ, WRITE}) {
        access.lock(nullptr);
        EXPECT_EQ(access.try_lock(nullptr), 1);
        access.unlock(nullptr);
    }
    thr_rw_sem_destroy(nullptr);
}

// Plays a scene with a semaphore. Ends the process when it hangs: its threads could not be joined.
template <class Scene> void play(Scene scene)
{
    THR_RW_SEM sem = thr_rw_sem_create();
    auto end = std::async(std::launch::async, scene, sem);
    if (end.wait_for(std::chrono::milliseconds(PATIENCE_MS)) != std::future_status::ready)
        TerminateProcess(GetCurrentProcess(), 3);
    thr_rw_sem_destroy(sem);
    free(sem);
}

template <class Condition> void until(Condition condition)
{
    while (!condition())
        Sleep(1);
}

// A thread that asks for the semaphore, and has it until it is told to leave.
struct Actor {
    std::atomic<bool> in{false}, may_leave{false};
    std::thread thread;

    Actor(THR_RW_SEM sem, const Access &access)
        : thread([=] {
              access.lock(sem);
              in = true;
              until([this] { return may_leave.load(); });
              access.unlock(sem);
          })
    {
    }
    void await_in()
    {
        until([this] { return in.load(); });
    }
    void leave()
    {
        may_leave = true;
        thread.join();
    }
};

TEST(RwSem, WritersGoFirst)
{
    static std::atomic<int> waits; // for an event
    auto wait = +[](HANDLE handle, DWORD limit) {
        waits += limit == INFINITE;
        return WaitForSingleObject(handle, limit);
    };
    ImportPatch patch("WaitForSingleObject", wait);
    play([](THR_RW_SEM sem) {
        Actor reader(sem, READ), other_reader(sem, READ);
        reader.await_in();
        other_reader.await_in();
        Actor writer(sem, WRITE);
        until([&] { return counts_of(sem) == Counts(2, 1); });
        EXPECT_EQ(thr_rw_sem_read_try_lock(sem), 0);
        EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 0);
        Actor late_reader(sem, READ);
        until([] { return waits == 2; }); // the writer and the late reader
        reader.leave();
        EXPECT_EQ(counts_of(sem), Counts(1, 1));
        EXPECT_FALSE(writer.in || late_reader.in);
        other_reader.leave();
        writer.await_in();
        Actor late_writer(sem, WRITE);
        until([&] { return counts_of(sem) == Counts(0, 2); });
        EXPECT_FALSE(late_writer.in || late_reader.in);
        writer.leave();
        late_writer.await_in();
        EXPECT_EQ(counts_of(sem), Counts(0, 1));
        EXPECT_FALSE(late_reader.in);
        late_writer.leave();
        late_reader.await_in();
        EXPECT_EQ(counts_of(sem), Counts(1, 0));
        late_reader.leave();
    });
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
    const Access &access = writes ? WRITE : READ;
    std::minstd_rand &random = random_of_thread;
    random.seed(seed);
    int faults = 0;
    for (int round = 0; round < 1000; ++round) {
        if (random() % 4 != 0)
            access.lock(sem);
        else if (!access.try_lock(sem))
            continue;
        const bool again = writes && random() % 4 == 0;
        if (again)
            access.lock(sem);
        const int now = inside += writes ? 1000 : 1;
        faults += writes ? now != 1000 : now > 1000;
        SwitchToThread();
        inside -= writes ? 1000 : 1;
        if (again)
            access.unlock(sem);
        access.unlock(sem);
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
    printf("seed %u\n", seed);
    play([&](THR_RW_SEM sem) {
        std::atomic<int> running(7);
        std::vector<std::thread> threads;
        for (int i = 0; i < 7; ++i) {
            threads.emplace_back([&, i] {
                EXPECT_EQ(use_often(sem, i < 3, seed + i), 0);
                --running;
            });
        }
        for (; running > 0; Sleep(0))
            counts_of(sem);
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(counts_of(sem), Counts(0, 0));
        EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 1);
        thr_rw_sem_write_unlock(sem);
    });
}

} // namespace
