// Events, mutexes and the read-write semaphore among threads, through the classes over them.

#include "support/test.h"

#include <random>

using namespace support;

namespace
{

using Sem = THR_READ_WRITE_SEMAPHORE;

// The semaphore's record, whose fields are in this order.
struct Record {
    THR_MUTEX state_mutex, writer_mutex;
    THR_EVENT no_readers_event, no_writers_event;
    int32_t reader_count, writer_count;
};

// What the threads of a scene share.
struct Shared {
    THR_EVENT_OBJ event;
    THR_MUTEX mutex = thr_mutex_create();
    THR_MUTEX_OBJ guarded;
    Sem semaphore;
    Record *record; // the semaphore's

    Shared() { memcpy(&record, &semaphore, sizeof record); }
} * shared; // each scene makes its own, and leaves it to threads that still wait

// The counts of readers and writers, which no event may contradict: each is posted exactly while
// its count is 0.
std::string counts()
{
    Record &record = *shared->record;
    thr_mutex_lock(record.state_mutex);
    EXPECT_EQ(thr_event_is_posted(record.no_readers_event), record.reader_count == 0);
    EXPECT_EQ(thr_event_is_posted(record.no_writers_event), record.writer_count == 0);
    const std::string text =
        std::to_string(record.reader_count) + "+" + std::to_string(record.writer_count);
    thr_mutex_unlock(record.state_mutex);
    return text;
}

std::atomic<int> waiting; // for the event, without limit

DWORD WINAPI wait(HANDLE handle, DWORD limit)
{
    DWORD result = WaitForSingleObject(handle, limit == INFINITE ? 0 : limit);
    if (limit == INFINITE && result == WAIT_TIMEOUT) {
        waiting++;
        say_as_thread("waits");
        result = WaitForSingleObject(handle, INFINITE);
        waiting--;
    }
    return result;
}

// The semaphore's state is locked for a moment only.
void WINAPI enter(CRITICAL_SECTION *section)
{
    auto *state = reinterpret_cast<CRITICAL_SECTION *>(shared->record->state_mutex);
    if (section != state && !TryEnterCriticalSection(section))
        say_as_thread("waits");
    else if (section != state)
        return;
    EnterCriticalSection(section);
}

// A pulse misses a thread that is just before its wait: hence several.
bool pulse()
{
    for (int tries = 0; tries == 0 || (waiting > 0 && tries < 5000); ++tries) {
        shared->event.pulse();
        Sleep(1);
    }
    return true;
}

thread_local std::vector<std::unique_ptr<THR_SCOPED_MUTEX>> guards;

const Orders ORDERS = {
    {"wait", [](auto &) { return shared->event.wait(0); }},
    {"wait_briefly", [](auto &) { return shared->event.wait((1ull << 32) + 5); }}, // 5 of it count
    {"is_posted", [](auto &) { return shared->event.is_posted(); }},
    {"post", [](auto &) { return shared->event.post(), true; }},
    {"pulse", [](auto &) { return pulse(); }},
    {"reset", [](auto &) { return shared->event.reset(), true; }},
    {"lock", [](auto &) { return thr_mutex_lock(shared->mutex), true; }},
    {"try_lock", [](auto &) { return thr_mutex_try_lock(shared->mutex); }},
    {"end_lock", [](auto &) { return thr_mutex_unlock(shared->mutex), true; }},
    {"guard", [](auto &) { return !!guards.emplace_back(new THR_SCOPED_MUTEX(shared->guarded)); }},
    {"end_guard", [](auto &) { return guards.pop_back(), true; }},
    {"read", [](auto &) { return shared->semaphore.read_lock(), true; }},
    {"try_read", [](auto &) { return shared->semaphore.try_read_lock(); }},
    {"end_read", [](auto &) { return shared->semaphore.read_unlock(), true; }},
    {"write", [](auto &) { return shared->semaphore.write_lock(), true; }},
    {"try_write", [](auto &) { return shared->semaphore.try_write_lock(); }},
    {"end_write", [](auto &) { return shared->semaphore.write_unlock(), true; }},
    {"counts", [](auto &) { return counts(); }}};

// Plays steps of threads, which say "waits" where they do.
void play(const char *steps)
{
    shared = new Shared;
    Gate waits("WaitForSingleObject", &wait), enters("EnterCriticalSection", &enter);
    Scene([](const std::string &) { return new Child(ORDERS); }).play(steps);
}

TEST(Event, StaysPostedUntilItIsReset)
{
    play("A is_posted wait_briefly is_posted = 0 1 0; A wait = waits; B wait = waits;"
         "C post = 1; A = 1; B = 1; C wait is_posted reset is_posted = 1 1 1 0;"
         "A wait = waits; B wait = waits; C pulse = 1; A = 1; B = 1;"
         "C post pulse is_posted = 1 1 0");
}

TEST(Mutex, IsRecursiveForItsOwnerAndExcludesOtherThreads)
{
    play("A lock try_lock end_lock = 1 1 1; B try_lock = 0; B lock = waits; A end_lock = 1; B = 1;"
         "A try_lock = 0; B end_lock = 1; A try_lock end_lock = 1 1;"
         "A guard guard end_guard = 1 1 1; B guard = waits; A end_guard = 1; B end_guard = 1");
}

TEST(RwSem, WritersGoFirst)
{
    play("M counts = 0+0; A read = 1; B read = 1; M try_write = 0;"
         "W write = waits; M try_read counts = 0 2+1;"
         "R read = waits; A end_read counts = 1 1+1; B end_read = 1; W = 1; M try_write = 0;"
         "V write = waits; M counts = 0+2; W end_write = 1; V = 1; V write end_write = 1 1;"
         "M counts try_read = 0+1 0; V end_write = 1; R = 1; M counts try_write = 1+0 0;"
         "R end_read = 1; M try_write counts = 1 0+1; R try_read try_write = 0 0;"
         "M end_write counts try_read counts end_read = 1 0+0 1 1+0 1");
}

// --- under load ---------------------------------------------------------------------------------

// One of the library's calls, before which other threads are let in now and then.
template <auto *function, class... Args> auto jittery(Args... args)
{
    const int choice = rand() % 64; // each thread has its own series
    if (choice == 0)
        Sleep(1);
    else if (choice < 24)
        SwitchToThread();
    return function(args...);
}

// What a thread under load does; answers how often somebody was in who should not have been.
Answer use_often(bool writes, unsigned seed)
{
    static std::atomic<int> inside; // readers, and 1000 for each writer
    const int share = writes ? 1000 : 1;
    auto lock = writes ? &Sem::write_lock : &Sem::read_lock;
    auto try_lock = writes ? &Sem::try_write_lock : &Sem::try_read_lock;
    auto unlock = writes ? &Sem::write_unlock : &Sem::read_unlock;
    int faults = 0;
    srand(seed);
    for (int round = 0; round < 1000; ++round) {
        if (rand() % 4 != 0)
            (shared->semaphore.*lock)();
        else if (!(shared->semaphore.*try_lock)())
            continue;
        const int now = inside += share;
        faults += writes ? now != share : now > 1000;
        SwitchToThread();
        inside -= share;
        (shared->semaphore.*unlock)();
    }
    return faults;
}

TEST(RwSem, KeepsItsInvariantsUnderLoad)
{
    Gate patches[] = {{"EnterCriticalSection", &jittery<&EnterCriticalSection, CRITICAL_SECTION *>},
                      {"LeaveCriticalSection", &jittery<&LeaveCriticalSection, CRITICAL_SECTION *>},
                      {"SetEvent", &jittery<&SetEvent, HANDLE>},
                      {"WaitForSingleObject", &jittery<&WaitForSingleObject, HANDLE, DWORD>}};
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    shared = new Shared;
    auto watch = [](auto &) {
        for (int round = 0; round < 3000; ++round)
            counts();
        return 0;
    };
    Scene scene([&](const std::string &who) {
        const bool writes = who < "D";
        const unsigned own_seed = seed + who[0];
        return new Child(
            {{"use", [=](auto &) { return use_often(writes, own_seed); }}, {"watch", watch}});
    });
    scene.play("A use; B use; C use; D use; E use; F use; G use; H watch = 0; A = 0; B = 0; C = 0;"
               "D = 0; E = 0; F = 0; G = 0");
    EXPECT_EQ(counts(), "0+0");
    EXPECT_TRUE(shared->semaphore.try_write_lock());
    shared->semaphore.write_unlock();
}

// --- overloads ----------------------------------------------------------------------------------

TEST(ProcessOverloads, ExitAsksTheLoopToEndAndTerminateTakesAHandleAsANumber)
{
    thr_process_exit(5);
    MSG message = {};
    EXPECT_EQ(GetMessageA(&message, nullptr, 0, 0), 0);
    EXPECT_EQ(static_cast<int>(message.wParam), -1);
    EXPECT_EXIT(thr_process_terminate(reinterpret_cast<uint64_t>(GetCurrentProcess()), 5),
                testing::ExitedWithCode(5), "");
}

} // namespace
