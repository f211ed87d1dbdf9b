// Events and mutexes, and the classes over them and the read-write semaphore.
#include "thr/thr_classes.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
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
    EXPECT_TRUE(event.wait(0));
    EXPECT_TRUE(event.is_posted());
    event.reset();
    EXPECT_FALSE(event.is_posted());
    event.post();
    event.pulse();
    EXPECT_FALSE(event.is_posted());
}

TEST(Event, PostAndPulseReleaseEveryWaiterAndNothingElseDoes)
{
    for (auto *release : {thr_event_post, thr_event_pulse}) {
        THR_EVENT event = thr_event_create();
        std::atomic<int> released(0);
        auto wait = [&] {
            thr_event_wait(event, 0);
            ++released;
        };
        std::thread waiter(wait), other_waiter(wait);
        Sleep(50);
        EXPECT_EQ(released, 0) << "0 is no limit";
        // A pulse may miss a thread that is just away from its wait: hence several.
        for (DWORD ms = 0; released < 2 && ms < PATIENCE_MS; ms += 10) {
            release(event);
            Sleep(10);
        }
        EXPECT_EQ(released, 2);
        thr_event_post(event);
        waiter.join();
        other_waiter.join();
        thr_event_destroy(event);
    }
}

TEST(Event, WithoutAHandleIsNotPostedAndNobodyWaitsForIt)
{
    ReportRecorder reports;
    auto refuse = +[](SECURITY_ATTRIBUTES *, BOOL, BOOL, const char *) { return HANDLE(); };
    ImportPatch patch("CreateEventA", refuse);
    THR_EVENT event = thr_event_create();
    EXPECT_EQ(thr_event_wait(event, 0), 1);
    EXPECT_EQ(thr_event_is_posted(event), 0);
    thr_event_destroy(event);
}

TEST(EventDeathTest, InternalErrors)
{
    for (auto *call : {thr_event_destroy, thr_event_post, thr_event_pulse, thr_event_reset})
        EXPECT_INTERNAL_ERROR(call(nullptr), "event != 0", "thr_event");
    EXPECT_INTERNAL_ERROR(thr_event_wait(nullptr, 1), "event != 0", "thr_event");
    EXPECT_INTERNAL_ERROR(thr_event_is_posted(nullptr), "event != 0", "thr_event");
}

// --- mutexes ------------------------------------------------------------------------------------

TEST(Mutex, IsRecursiveForItsOwnerAndExcludesOtherThreads)
{
    THR_MUTEX mutex = thr_mutex_create();
    // Tries the mutex on a thread of its own, and lets go of it again.
    auto can_others_lock = [&] {
        int taken = -1;
        std::thread([&] {
            taken = thr_mutex_try_lock(mutex);
            if (taken)
                thr_mutex_unlock(mutex);
        }).join();
        return taken;
    };
    thr_mutex_lock(mutex);
    EXPECT_EQ(thr_mutex_try_lock(mutex), 1);
    for (int locks = 2; locks > 0; --locks) {
        EXPECT_EQ(can_others_lock(), 0) << locks << " locks";
        thr_mutex_unlock(mutex);
    }
    EXPECT_EQ(can_others_lock(), 1);
    thr_mutex_destroy(mutex);
}

TEST(ScopedMutex, NestsAndExcludesOtherThreads)
{
    THR_MUTEX_OBJ mutex;
    int counter = 0; // a lost update shows two threads inside at once
    auto count = [&] {
        for (int round = 0; round < 10000; ++round) {
            THR_SCOPED_MUTEX outer(mutex);
            THR_SCOPED_MUTEX inner(mutex);
            counter = counter + 1;
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(counter, 20000);
}

TEST(MutexDeathTest, InternalErrors)
{
    void (*const calls[])(THR_MUTEX) = {thr_mutex_destroy, thr_mutex_lock, thr_mutex_unlock,
                                        [](THR_MUTEX mutex) { thr_mutex_try_lock(mutex); }};
    for (auto *call : calls)
        EXPECT_INTERNAL_ERROR(call(nullptr), "mutex != 0", "thr_mutex");
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
    semaphore.read_lock();
    ASSERT_TRUE(semaphore.try_read_lock());
    semaphore.read_unlock();
    EXPECT_FALSE(semaphore.try_write_lock());
    semaphore.read_unlock();
    semaphore.write_lock();
    EXPECT_FALSE(semaphore.try_read_lock() || semaphore.try_write_lock());
    semaphore.write_unlock();
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
