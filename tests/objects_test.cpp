// Events and mutexes, and the classes over them and the read-write semaphore.
#include "thr/thr_classes.h"

#include "support/child.h"
#include "support/import_patch.h"

#include <atomic>
#include <future>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

using namespace support;

namespace
{

// --- events -------------------------------------------------------------------------------------

TEST(Event, StaysPostedUntilItIsReset)
{
    THR_EVENT_OBJ event;
    EXPECT_TRUE(event.wait((1ull << 32) + 5))
        << "the time, of which the low 32 bits count, is over";
    EXPECT_FALSE(event.is_posted());
    event.post();
    EXPECT_TRUE(event.wait(0) && event.is_posted());
    event.reset();
    EXPECT_FALSE(event.is_posted());
    event.post();
    event.pulse();
    EXPECT_FALSE(event.is_posted());
}

std::atomic<int> endless_waits;

DWORD WINAPI counted_wait(HANDLE handle, DWORD limit)
{
    endless_waits += limit == INFINITE;
    return WaitForSingleObject(handle, limit);
}

TEST(Event, PostAndPulseReleaseEveryWaiter)
{
    ImportPatch patch("WaitForSingleObject", &counted_wait);
    for (auto *release : {thr_event_post, thr_event_pulse}) {
        THR_EVENT event = thr_event_create();
        endless_waits = 0;
        std::atomic<int> released(0);
        auto wait = [&] {
            thr_event_wait(event, 0);
            ++released;
        };
        std::thread waiter(wait), other_waiter(wait);
        // A pulse misses a thread that is just away from its wait: hence several.
        for (DWORD ms = 0; released < 2 && ms < PATIENCE_MS; ++ms) {
            if (endless_waits == 2)
                release(event);
            Sleep(1);
        }
        EXPECT_EQ(endless_waits, 2);
        EXPECT_EQ(released, 2);
        thr_event_post(event);
        waiter.join();
        other_waiter.join();
        thr_event_destroy(event);
    }
}

// --- mutexes ------------------------------------------------------------------------------------

TEST(Mutex, IsRecursiveForItsOwnerAndExcludesOtherThreads)
{
    THR_MUTEX mutex = thr_mutex_create();
    auto others_can_lock = [&] {
        return std::async(std::launch::async,
                          [&] {
                              const int taken = thr_mutex_try_lock(mutex);
                              if (taken)
                                  thr_mutex_unlock(mutex);
                              return taken;
                          })
            .get();
    };
    thr_mutex_lock(mutex);
    EXPECT_EQ(thr_mutex_try_lock(mutex), 1);
    for (int locks = 2; locks > 0; --locks) {
        EXPECT_EQ(others_can_lock(), 0) << locks << " locks";
        thr_mutex_unlock(mutex);
    }
    EXPECT_EQ(others_can_lock(), 1);
    thr_mutex_destroy(mutex);
}

int depth;

TEST(ScopedMutex, LocksAndUnlocksAsItNests)
{
    auto enter = +[](CRITICAL_SECTION *) { ++depth; };
    auto leave = +[](CRITICAL_SECTION *) { --depth; };
    ImportPatch patches[] = {{"EnterCriticalSection", enter}, {"LeaveCriticalSection", leave}};
    THR_MUTEX_OBJ mutex;
    {
        THR_SCOPED_MUTEX outer(mutex);
        THR_SCOPED_MUTEX inner(mutex);
        EXPECT_EQ(depth, 2);
    }
    EXPECT_EQ(depth, 0);
}

// --- classes ------------------------------------------------------------------------------------

// A copy would release or unlock twice.
template <class... Classes>
constexpr bool have_one_owner = (... && !std::is_copy_constructible_v<Classes>);

static_assert(
    have_one_owner<THR_MUTEX_OBJ, THR_EVENT_OBJ, THR_READ_WRITE_SEMAPHORE, THR_SCOPED_MUTEX,
                   THR_SCOPED_READ_LOCK, THR_SCOPED_WRITE_LOCK, THR_IP_SCOPED_MUTEX>);

TEST(ReadWriteSemaphore, AndItsGuardsForwardToItsSemaphore)
{
    THR_READ_WRITE_SEMAPHORE semaphore;
    {
        THR_SCOPED_READ_LOCK guard(semaphore);
        ASSERT_TRUE(semaphore.try_read_lock());
        semaphore.read_unlock();
        EXPECT_FALSE(semaphore.try_write_lock());
    }
    {
        THR_SCOPED_WRITE_LOCK guard(semaphore);
        EXPECT_FALSE(semaphore.try_read_lock());
    }
    semaphore.read_lock();
    EXPECT_FALSE(semaphore.try_write_lock());
    semaphore.read_unlock();
    semaphore.write_lock();
    EXPECT_FALSE(semaphore.try_read_lock());
    semaphore.write_unlock();
    EXPECT_TRUE(semaphore.try_write_lock());
    semaphore.write_unlock();
}

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
