#include "thr/thr_classes.h"

#include "support/handles.h"
#include "support/import_patch.h"

#include <cstdlib>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

using namespace support;

namespace
{

// A copy would release or unlock twice.
template <class... Classes>
constexpr bool have_one_owner = (... && !std::is_copy_constructible_v<Classes>);

static_assert(have_one_owner<THR_MUTEX_OBJ, THR_EVENT_OBJ, THR_READ_WRITE_SEMAPHORE,
                             THR_SCOPED_MUTEX, THR_SCOPED_READ_LOCK, THR_SCOPED_WRITE_LOCK>);

TEST(EventObj, ForwardsToItsEvent)
{
    THR_EVENT_OBJ event;
    event.post();
    EXPECT_TRUE(event.is_posted());
    event.reset();
    EXPECT_FALSE(event.is_posted());
    EXPECT_TRUE(event.wait((1ull << 32) + 5)) << "the low 32 bits count";
}

TEST(ReadWriteSemaphore, AndItsGuardsForwardToItsSemaphore)
{
    THR_READ_WRITE_SEMAPHORE semaphore;
    // Whether another thread can read and write, as two digits.
    auto others_can = [&] {
        int can = 0;
        std::thread([&] {
            if (semaphore.try_read_lock()) {
                can = 10;
                semaphore.read_unlock();
            }
            if (semaphore.try_write_lock()) {
                can += 1;
                semaphore.write_unlock();
            }
        }).join();
        return can;
    };
    semaphore.read_lock();
    EXPECT_EQ(others_can(), 10);
    semaphore.read_unlock();
    semaphore.write_lock();
    EXPECT_EQ(others_can(), 0);
    semaphore.write_unlock();
    {
        THR_SCOPED_READ_LOCK guard(semaphore);
        EXPECT_EQ(others_can(), 10);
    }
    {
        THR_SCOPED_WRITE_LOCK guard(semaphore);
        EXPECT_EQ(others_can(), 0);
    }
    EXPECT_EQ(others_can(), 11);
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

int frees;

void counted_free(void *memory)
{
    frees += memory != nullptr;
    free(memory);
}

TEST(Objects, ReleaseAllThatTheyMade)
{
    const size_t handles = live_handle_count();
    ImportPatch patch("free", &counted_free);
    {
        THR_MUTEX_OBJ mutex; // made by this program, through the library
        THR_EVENT_OBJ event;
        THR_READ_WRITE_SEMAPHORE semaphore;
    }
    EXPECT_EQ(frees, 1 + 1 + 5);
    EXPECT_EQ(live_handle_count(), handles);
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
