#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
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

// A semaphore for one test. Ends the process when the test hangs: its threads could not be joined.
struct Scene {
    THR_RW_SEM sem = thr_rw_sem_create();
    HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::thread watchdog{[this] {
        if (WaitForSingleObject(done, PATIENCE_MS) != WAIT_OBJECT_0)
            TerminateProcess(GetCurrentProcess(), 3);
    }};

    ~Scene()
    {
        SetEvent(done);
        watchdog.join();
        CloseHandle(done);
        thr_rw_sem_destroy(sem);
        free(sem);
    }
};

TEST(RwSem, ANullSemaphoreIsAlwaysAvailable)
{
    for (const Access &access : {READ, WRITE}) {
        access.lock(nullptr);
        EXPECT_EQ(access.try_lock(nullptr), 1);
        access.unlock(nullptr);
    }
    thr_rw_sem_destroy(nullptr);
}

int frees;

void counted_free(void *memory)
{
    ++frees;
    free(memory);
}

TEST(RwSem, DestroyReleasesAllButTheRecord)
{
    THR_RW_SEM sem = thr_rw_sem_create();
    ImportPatch patch("free", &counted_free);
    thr_rw_sem_destroy(sem);
    EXPECT_EQ(frees, 4) << "two mutexes, two events";
    free(sem);
}

// --- writers first ------------------------------------------------------------------------------

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
    ~Actor() { leave(); }
    void leave()
    {
        may_leave = true;
        if (thread.joinable())
            thread.join();
    }
};

std::atomic<int> waits; // for an event

DWORD WINAPI counted_wait(HANDLE handle, DWORD limit)
{
    waits += limit == INFINITE;
    return WaitForSingleObject(handle, limit);
}

TEST(RwSem, WritersGoFirst)
{
    ImportPatch patch("WaitForSingleObject", &counted_wait);
    Scene scene;
    const THR_RW_SEM sem = scene.sem;
    auto await = [&](const Counts &counts) { until([&] { return counts_of(sem) == counts; }); };
    auto await_in = [](Actor &actor) { until([&] { return actor.in.load(); }); };
    Actor reader(sem, READ), other_reader(sem, READ);
    await_in(reader);
    await_in(other_reader);
    Actor writer(sem, WRITE);
    await(Counts(2, 1));
    EXPECT_EQ(thr_rw_sem_read_try_lock(sem), 0);
    EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 0);
    Actor late_reader(sem, READ);
    until([] { return waits == 2; }); // the writer and the late reader
    reader.leave();
    EXPECT_EQ(counts_of(sem), Counts(1, 1));
    EXPECT_FALSE(writer.in || late_reader.in);
    other_reader.leave();
    await_in(writer);
    Actor late_writer(sem, WRITE);
    await(Counts(0, 2));
    EXPECT_FALSE(late_writer.in || late_reader.in);
    writer.leave();
    await_in(late_writer);
    EXPECT_EQ(counts_of(sem), Counts(0, 1));
    EXPECT_FALSE(late_reader.in);
    late_writer.leave();
    await_in(late_reader);
    EXPECT_EQ(counts_of(sem), Counts(1, 0));
}

// --- under load ---------------------------------------------------------------------------------

thread_local std::minstd_rand *schedule; // of a thread under load

// Lets the other threads in between two calls of the library, now and then.
void jitter()
{
    unsigned choice = schedule ? (*schedule)() % 64 : 63;
    if (choice == 0)
        Sleep(1);
    else if (choice < 24)
        SwitchToThread();
}

#define JITTERY(result, function, parameters, arguments)                                           \
    result WINAPI jittery_##function parameters                                                    \
    {                                                                                              \
        jitter();                                                                                  \
        return function arguments;                                                                 \
    }

JITTERY(void, EnterCriticalSection, (CRITICAL_SECTION * section), (section))
JITTERY(void, LeaveCriticalSection, (CRITICAL_SECTION * section), (section))
JITTERY(BOOL, SetEvent, (HANDLE event), (event))
JITTERY(DWORD, WaitForSingleObject, (HANDLE handle, DWORD limit), (handle, limit))

// What a thread under load does; returns how often somebody was in who should not have been.
int use_often(THR_RW_SEM sem, bool writes, unsigned seed)
{
    static std::atomic<int> inside; // readers, and 1000 for each writer
    const Access &access = writes ? WRITE : READ;
    std::minstd_rand random(seed);
    schedule = &random;
    int faults = 0;
    for (int round = 0; round < 300; ++round) {
        if (random() % 4 != 0)
            access.lock(sem);
        else if (!access.try_lock(sem))
            continue;
        const bool again = writes && random() % 4 == 0;
        if (again)
            access.lock(sem);
        const int now = inside += writes ? 1000 : 1;
        faults += writes ? now != 1000 : now > 1000;
        jitter();
        inside -= writes ? 1000 : 1;
        if (again)
            access.unlock(sem);
        access.unlock(sem);
    }
    schedule = nullptr;
    return faults;
}

TEST(RwSem, KeepsItsInvariantsUnderLoad)
{
    const int READERS = 4, THREADS = 7;
    ImportPatch patches[] = {{"EnterCriticalSection", &jittery_EnterCriticalSection},
                             {"LeaveCriticalSection", &jittery_LeaveCriticalSection},
                             {"SetEvent", &jittery_SetEvent},
                             {"WaitForSingleObject", &jittery_WaitForSingleObject}};
    for (int run = 0; run < 4; ++run) {
        const unsigned seed = std::random_device()();
        printf("seed %u\n", seed);
        Scene scene;
        std::atomic<int> running(THREADS), faults(0);
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&, i] {
                faults += use_often(scene.sem, i >= READERS, seed + i);
                --running;
            });
        }
        for (; running > 0; Sleep(0))
            counts_of(scene.sem);
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(faults, 0);
        EXPECT_EQ(counts_of(scene.sem), Counts(0, 0));
        EXPECT_EQ(thr_rw_sem_write_try_lock(scene.sem), 1);
        thr_rw_sem_write_unlock(scene.sem);
    }
}

} // namespace
