#include "thr/thr.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"

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

Record &record_of(THR_RW_SEM sem)
{
    return *reinterpret_cast<Record *>(sem);
}

// Nobody holds the writers' mutex while there is no writer.
bool is_writer_mutex_right(const Record &record)
{
    if (record.writer_count != 0)
        return true;
    bool is_free = thr_mutex_try_lock(record.writer_mutex);
    if (is_free)
        thr_mutex_unlock(record.writer_mutex);
    return is_free;
}

// With the state mutex locked: each event is posted exactly while its count is 0.
bool is_consistent(const Record &record)
{
    return is_writer_mutex_right(record) && record.reader_count >= 0 && record.writer_count >= 0 &&
           thr_event_is_posted(record.no_readers_event) == (record.reader_count == 0) &&
           thr_event_is_posted(record.no_writers_event) == (record.writer_count == 0);
}

Counts counts_of(THR_RW_SEM sem)
{
    Record &record = record_of(sem);
    thr_mutex_lock(record.state_mutex);
    EXPECT_TRUE(is_consistent(record));
    Counts counts(record.reader_count, record.writer_count);
    thr_mutex_unlock(record.state_mutex);
    return counts;
}

// Ends the process when a test hangs: its threads could not be joined.
class Watchdog
{
public:
    explicit Watchdog(const std::string &test)
        : m_thread([this, test] {
              for (DWORD ms = 0; ms < PATIENCE_MS; ms += 10) {
                  if (m_is_done)
                      return;
                  Sleep(10);
              }
              fprintf(stderr, "%s hangs\n", test.c_str());
              TerminateProcess(GetCurrentProcess(), 3);
          })
    {
    }
    ~Watchdog()
    {
        m_is_done = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_is_done{false};
    std::thread m_thread;
};

TEST(RwSem, ANullSemaphoreIsAlwaysAvailable)
{
    for (auto *operation : {thr_rw_sem_write_lock, thr_rw_sem_read_lock, thr_rw_sem_write_lock,
                            thr_rw_sem_read_unlock, thr_rw_sem_write_unlock, thr_rw_sem_destroy})
        operation(nullptr);
    EXPECT_EQ(thr_rw_sem_write_try_lock(nullptr), 1);
    EXPECT_EQ(thr_rw_sem_read_try_lock(nullptr), 1);
}

std::vector<void *> freed;

void keep_freed(void *memory)
{
    freed.push_back(memory);
    free(memory);
}

TEST(RwSem, DestroyReleasesAllButTheRecord)
{
    const size_t handles = live_handle_count();
    THR_RW_SEM sem = thr_rw_sem_create();
    const Record parts = record_of(sem);
    EXPECT_EQ(live_handle_count(), handles + 2);
    {
        ImportPatch patch("free", &keep_freed);
        thr_rw_sem_destroy(sem);
    }
    EXPECT_EQ(freed, (std::vector<void *>{parts.state_mutex, parts.writer_mutex,
                                          parts.no_readers_event, parts.no_writers_event}));
    EXPECT_EQ(live_handle_count(), handles);
    free(sem);
    EXPECT_INTERNAL_ERROR(
        {
            RefusedMalloc refused;
            thr_rw_sem_create();
        },
        "new_sem", "thr_rw_sem");
}

// Whether another thread gets the lock, which it gives back.
int can(int (*try_lock)(THR_RW_SEM), void (*unlock)(THR_RW_SEM), THR_RW_SEM sem)
{
    int taken = 0;
    std::thread([&] {
        taken = try_lock(sem);
        if (taken)
            unlock(sem);
    }).join();
    return taken;
}

TEST(RwSem, ReadersShareAndAWriterExcludes)
{
    auto try_read = [](THR_RW_SEM sem) { EXPECT_EQ(thr_rw_sem_read_try_lock(sem), 1); };
    auto try_write = [](THR_RW_SEM sem) { EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 1); };
    auto fail_write = [](THR_RW_SEM sem) { EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 0); };
    struct {
        void (*operation)(THR_RW_SEM);
        Counts counts;
        int can_read, can_write; // another thread
    } steps[] = {{thr_rw_sem_read_lock, {1, 0}, 1, 0},
                 {try_read, {2, 0}, 1, 0},
                 {fail_write, {2, 0}, 1, 0},
                 {thr_rw_sem_read_unlock, {1, 0}, 1, 0},
                 {thr_rw_sem_read_unlock, {0, 0}, 1, 1},
                 {thr_rw_sem_write_lock, {0, 1}, 0, 0},
                 {thr_rw_sem_write_lock, {0, 2}, 0, 0}, // again, by its owner
                 {thr_rw_sem_write_unlock, {0, 1}, 0, 0},
                 {thr_rw_sem_write_unlock, {0, 0}, 1, 1},
                 {try_write, {0, 1}, 0, 0},
                 {fail_write, {0, 1}, 0, 0},
                 {thr_rw_sem_write_unlock, {0, 0}, 1, 1}};
    THR_RW_SEM sem = thr_rw_sem_create();
    for (const auto &step : steps) {
        SCOPED_TRACE("step " + std::to_string(&step - steps));
        step.operation(sem);
        EXPECT_EQ(can(thr_rw_sem_read_try_lock, thr_rw_sem_read_unlock, sem), step.can_read);
        EXPECT_EQ(can(thr_rw_sem_write_try_lock, thr_rw_sem_write_unlock, sem), step.can_write);
        EXPECT_EQ(counts_of(sem), step.counts);
    }
    thr_rw_sem_destroy(sem);
    free(sem);
}

// --- writers first ------------------------------------------------------------------------------

void until(const std::atomic<bool> &flag)
{
    while (!flag)
        Sleep(1);
}

// A thread that asks for the semaphore, and has it until it is told to leave.
struct Actor {
    std::atomic<bool> asked{false}, in{false}, may_leave{false};
    int enters = 0; // of critical sections, while it asks
    std::thread thread;
    static thread_local Actor *s_self;

    Actor(THR_RW_SEM sem, void (*lock)(THR_RW_SEM), void (*unlock)(THR_RW_SEM))
        : thread([=] {
              s_self = this;
              lock(sem);
              s_self = nullptr;
              in = true;
              until(may_leave);
              unlock(sem);
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

thread_local Actor *Actor::s_self; // while it asks

// An actor has asked when it is about to wait for an event or, its second critical section, to
// take the writers' mutex.
DWORD WINAPI marked_wait(HANDLE handle, DWORD limit)
{
    if (Actor::s_self)
        Actor::s_self->asked = true;
    return WaitForSingleObject(handle, limit);
}

void WINAPI marked_enter(CRITICAL_SECTION *section)
{
    if (Actor::s_self && ++Actor::s_self->enters == 2)
        Actor::s_self->asked = true;
    EnterCriticalSection(section);
}

TEST(RwSem, WritersGoFirst)
{
    Watchdog watchdog("RwSem.WritersGoFirst");
    ImportPatch patches[] = {{"WaitForSingleObject", &marked_wait},
                             {"EnterCriticalSection", &marked_enter}};
    THR_RW_SEM sem = thr_rw_sem_create();
    {
        Actor reader(sem, thr_rw_sem_read_lock, thr_rw_sem_read_unlock);
        Actor other_reader(sem, thr_rw_sem_read_lock, thr_rw_sem_read_unlock);
        until(reader.in);
        until(other_reader.in);
        Actor writer(sem, thr_rw_sem_write_lock, thr_rw_sem_write_unlock);
        until(writer.asked);
        EXPECT_EQ(thr_rw_sem_read_try_lock(sem), 0);
        EXPECT_EQ(thr_rw_sem_write_try_lock(sem), 0);
        Actor late_reader(sem, thr_rw_sem_read_lock, thr_rw_sem_read_unlock);
        until(late_reader.asked);
        EXPECT_EQ(counts_of(sem), Counts(2, 1));
        reader.leave();
        EXPECT_EQ(counts_of(sem), Counts(1, 1));
        EXPECT_FALSE(writer.in || late_reader.in);
        other_reader.leave();
        until(writer.in);
        Actor late_writer(sem, thr_rw_sem_write_lock, thr_rw_sem_write_unlock);
        until(late_writer.asked);
        EXPECT_EQ(counts_of(sem), Counts(0, 2));
        EXPECT_FALSE(late_writer.in || late_reader.in);
        writer.leave();
        until(late_writer.in);
        EXPECT_EQ(counts_of(sem), Counts(0, 1));
        EXPECT_FALSE(late_reader.in);
        late_writer.leave();
        until(late_reader.in);
        EXPECT_EQ(counts_of(sem), Counts(1, 0));
    }
    thr_rw_sem_destroy(sem);
    free(sem);
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
JITTERY(BOOL, TryEnterCriticalSection, (CRITICAL_SECTION * section), (section))
JITTERY(void, LeaveCriticalSection, (CRITICAL_SECTION * section), (section))
JITTERY(BOOL, SetEvent, (HANDLE event), (event))
JITTERY(BOOL, ResetEvent, (HANDLE event), (event))
JITTERY(DWORD, WaitForSingleObject, (HANDLE handle, DWORD limit), (handle, limit))

// Readers and writers, and who is in.
struct Load {
    THR_RW_SEM sem = thr_rw_sem_create();
    std::atomic<int> readers{0}, writers{0}, writes{0};
    std::atomic<int> faults{0}; // somebody was in who should not have been
    int total = 0;              // a lost update shows two writers at once

    ~Load()
    {
        thr_rw_sem_destroy(sem);
        free(sem);
    }
    void read(bool tries)
    {
        if (!tries)
            thr_rw_sem_read_lock(sem);
        else if (!thr_rw_sem_read_try_lock(sem))
            return;
        ++readers;
        faults += writers != 0;
        jitter();
        --readers;
        thr_rw_sem_read_unlock(sem);
    }
    void write(bool tries, bool again)
    {
        if (!tries)
            thr_rw_sem_write_lock(sem);
        else if (!thr_rw_sem_write_try_lock(sem))
            return;
        if (again)
            thr_rw_sem_write_lock(sem);
        faults += ++writers != 1 || readers != 0;
        int before = total;
        jitter();
        total = before + 1;
        ++writes;
        --writers;
        if (again)
            thr_rw_sem_write_unlock(sem);
        thr_rw_sem_write_unlock(sem);
    }
    // What holds whenever the state mutex is free.
    void inspect()
    {
        const Record &record = record_of(sem);
        thr_mutex_lock(record.state_mutex);
        bool is_writing = writers != 0; // the counts can't change from here on
        faults += !is_consistent(record) ||
                  (is_writing && (record.reader_count != 0 || record.writer_count < 1));
        thr_mutex_unlock(record.state_mutex);
    }
};

TEST(RwSem, KeepsItsInvariantsUnderLoad)
{
    const int READERS = 4, THREADS = 7, ROUNDS = 300;
    ImportPatch patches[] = {{"EnterCriticalSection", &jittery_EnterCriticalSection},
                             {"TryEnterCriticalSection", &jittery_TryEnterCriticalSection},
                             {"LeaveCriticalSection", &jittery_LeaveCriticalSection},
                             {"SetEvent", &jittery_SetEvent},
                             {"ResetEvent", &jittery_ResetEvent},
                             {"WaitForSingleObject", &jittery_WaitForSingleObject}};
    for (int run = 0; run < 4; ++run) {
        const unsigned seed = std::random_device()();
        printf("seed %u\n", seed);
        Watchdog watchdog("RwSem.KeepsItsInvariantsUnderLoad, seed " + std::to_string(seed));
        Load load;
        std::atomic<int> running(THREADS);
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&, i] {
                std::minstd_rand random(seed + i);
                schedule = &random;
                for (int round = 0; round < ROUNDS; ++round)
                    i < READERS ? load.read(random() % 4 == 0)
                                : load.write(random() % 4 == 0, random() % 4 == 0);
                schedule = nullptr;
                --running;
            });
        }
        for (; running > 0; Sleep(0))
            load.inspect();
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(load.faults, 0);
        EXPECT_EQ(load.total, load.writes);
        EXPECT_EQ(counts_of(load.sem), Counts(0, 0));
        EXPECT_EQ(can(thr_rw_sem_write_try_lock, thr_rw_sem_write_unlock, load.sem), 1);
    }
}

} // namespace
