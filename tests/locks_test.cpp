// Events, mutexes and the read-write semaphore among threads, through the classes over them.
#include "support/test.h"

using namespace support;

namespace
{

// What the threads share; left to those that still wait when a test has failed.
THR_EVENT_OBJ &event = *new THR_EVENT_OBJ;
THR_MUTEX_OBJ &guarded = *new THR_MUTEX_OBJ;
THR_READ_WRITE_SEMAPHORE &semaphore = *new THR_READ_WRITE_SEMAPHORE;

// The one field of an object: the record that it wraps. The semaphore's has fields in this order.
const THR_MUTEX mutex = reinterpret_cast<THR_MUTEX &>(guarded);
const struct Record {
    THR_MUTEX state_mutex, writer_mutex;
    THR_EVENT no_readers_event, no_writers_event;
    int32_t reader_count, writer_count;
} &record = *reinterpret_cast<Record *>(reinterpret_cast<THR_RW_SEM &>(semaphore));

// The counts of readers and writers, which no event may contradict: each is posted exactly while
// its count is 0.
std::string counts()
{
    thr_mutex_lock(record.state_mutex);
    const int readers = record.reader_count, writers = record.writer_count;
    EXPECT_EQ(thr_event_is_posted(record.no_readers_event), readers == 0);
    EXPECT_EQ(thr_event_is_posted(record.no_writers_event), writers == 0);
    thr_mutex_unlock(record.state_mutex);
    return std::to_string(readers) + "+" + std::to_string(writers);
}

DWORD WINAPI wait(HANDLE handle, DWORD limit)
{
    if (limit != 0 && WaitForSingleObject(handle, 0) != WAIT_OBJECT_0)
        say_as_thread(limit == INFINITE ? "waits" : "waits " + std::to_string(limit));
    return WaitForSingleObject(handle, limit);
}

void WINAPI enter(CRITICAL_SECTION *section)
{
    if (TryEnterCriticalSection(section))
        return;
    if (static_cast<void *>(section) != record.state_mutex) // locked for a moment only
        say_as_thread("waits");
    EnterCriticalSection(section);
}

const Orders ORDERS = {
    {"wait", [](auto &) { return event.wait(0); }},
    {"wait_briefly", [](auto &) { return event.wait((1ull << 32) + 5); }}, // 5 of it count
    {"is_posted", [](auto &) { return event.is_posted(); }},
    {"post", [](auto &) { return event.post(), true; }},
    {"pulse", [](auto &) { return event.pulse(), true; }},
    {"reset", [](auto &) { return event.reset(), true; }},
    {"lock", [](auto &) { return thr_mutex_lock(mutex), true; }},
    {"try_lock", [](auto &) { return thr_mutex_try_lock(mutex); }},
    {"end_lock", [](auto &) { return thr_mutex_unlock(mutex), true; }},
    {"guard", [](auto &) { return !!std::make_unique<THR_SCOPED_MUTEX>(guarded); }},
    {"read", [](auto &) { return semaphore.read_lock(), true; }},
    {"try_read", [](auto &) { return semaphore.try_read_lock(); }},
    {"end_read", [](auto &) { return semaphore.read_unlock(), true; }},
    {"write", [](auto &) { return semaphore.write_lock(), true; }},
    {"try_write", [](auto &) { return semaphore.try_write_lock(); }},
    {"end_write", [](auto &) { return semaphore.write_unlock(), true; }},
    {"guard_read", [](auto &) { return (void)THR_SCOPED_READ_LOCK(semaphore), counts(); }},
    {"guard_write", [](auto &) { return (void)THR_SCOPED_WRITE_LOCK(semaphore), counts(); }},
    {"counts", [](auto &) { return counts(); }}};

// Plays steps of threads, which say "waits" where they do.
void play(const char *steps)
{
    Gate waits("WaitForSingleObject", &wait), enters("EnterCriticalSection", &enter);
    Scene([](const std::string &) { return new Child(ORDERS); }).play(steps);
}

TEST(Event, StaysPostedUntilItIsReset)
{
    play("A wait_briefly is_posted = waits 5; A = 1 0; A wait = waits; B wait = waits; C post = 1;"
         "A = 1; B = 1; C wait is_posted reset is_posted post pulse is_posted = 1 1 1 0 1 1 0");
}

TEST(Mutex, IsRecursiveForItsOwnerAndExcludesOtherThreads)
{
    play("A lock try_lock guard end_lock = 1 1 1 1; B try_lock = 0; B lock = waits; A end_lock = 1;"
         "B = 1; A guard = waits; B end_lock = 1; A = 1; B try_lock end_lock = 1 1");
}

TEST(RwSem, WritersGoFirst)
{
    play("M counts guard_read guard_write counts = 0+0 1+0 0+1 0+0; A read = 1; B read = 1;"
         "M try_write = 0; W write = waits; M try_read counts = 0 2+1; R read = waits;"
         "A end_read counts = 1 1+1; B end_read = 1; W = 1; M try_write = 0; V write = waits;"
         "M counts = 0+2; W end_write = 1; V = 1; V write end_write = 1 1;"
         "M counts try_read = 0+1 0; V end_write = 1; R = 1; M counts try_write = 1+0 0;"
         "R end_read = 1; M try_write counts = 1 0+1; R try_read try_write = 0 0;"
         "M end_write counts try_read counts end_read = 1 0+0 1 1+0 1");
}

TEST(RwSem, KeepsItsInvariantsUnderLoad)
{
    auto jitter = [](const Call &call) { // lets other threads in before it now and then
        if (rand() % 3 == 0)
            Sleep(rand() % 24 == 0);
        return call.go_on();
    };
    Gate enters("EnterCriticalSection", jitter), leaves("LeaveCriticalSection", jitter),
        posts("SetEvent", jitter), waits("WaitForSingleObject", jitter);
    std::atomic<int> inside = 0; // readers, and 1000 for each writer
    auto use = [&](int number) {
        const std::string kind = number < 3 ? "write" : "read";
        const int weight = number < 3 ? 1000 : 1;
        srand(number); // each thread has its own series
        for (int round = 0; round < 1000; ++round) {
            if (obey(ORDERS, (rand() % 4 ? "" : "try_") + kind) == "0")
                continue;
            const int now = inside += weight;
            EXPECT_TRUE(weight == 1 ? now < 1000 : now == 1000) << now;
            SwitchToThread();
            inside -= weight;
            obey(ORDERS, "end_" + kind);
        }
    };
    std::vector<std::thread> threads;
    for (int number = 0; number < 7; ++number)
        threads.emplace_back(use, number);
    for (int round = 0; round < 3000; ++round)
        counts();
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(counts(), "0+0");
}

} // namespace
