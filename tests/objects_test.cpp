#include "thr/thr_classes.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"

#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

using namespace support;

namespace
{

// One plain data member, and no copies: a copy would release or unlock twice.
template <class Class> constexpr bool is_one_pointer_of_one_owner()
{
    return sizeof(Class) == sizeof(void *) && std::is_standard_layout_v<Class> &&
           !std::is_copy_constructible_v<Class> && !std::is_copy_assignable_v<Class> &&
           !std::is_move_constructible_v<Class> && !std::is_move_assignable_v<Class>;
}

static_assert(is_one_pointer_of_one_owner<THR_MUTEX_OBJ>());
static_assert(is_one_pointer_of_one_owner<THR_EVENT_OBJ>());
static_assert(is_one_pointer_of_one_owner<THR_READ_WRITE_SEMAPHORE>());
static_assert(is_one_pointer_of_one_owner<THR_SCOPED_MUTEX>());
static_assert(is_one_pointer_of_one_owner<THR_SCOPED_READ_LOCK>());
static_assert(is_one_pointer_of_one_owner<THR_SCOPED_WRITE_LOCK>());

// The plain handle that an object wraps.
template <class Handle, class Class> Handle &wrapped_by(Class &object)
{
    return *reinterpret_cast<Handle *>(&object);
}

template <class Func> auto on_another_thread(Func func)
{
    decltype(func()) result;
    std::thread([&] { result = func(); }).join();
    return result;
}

DWORD asked_limit;

DWORD WINAPI recorded_wait(HANDLE, DWORD limit)
{
    asked_limit = limit;
    return WAIT_TIMEOUT;
}

TEST(EventObj, ForwardsToItsEvent)
{
    THR_EVENT_OBJ event;
    event.post();
    EXPECT_TRUE(event.is_posted());
    EXPECT_TRUE(event.wait(0));
    event.reset();
    EXPECT_FALSE(event.is_posted());
    event.post();
    event.pulse();
    EXPECT_FALSE(event.is_posted());
    const std::pair<uint64_t, DWORD> limits[] = {
        {0, INFINITE}, {20, 20}, {1ull << 32, INFINITE}, {(1ull << 32) + 5, 5}};
    ImportPatch patch("WaitForSingleObject", &recorded_wait);
    for (const auto &[timeout, limit] : limits) {
        EXPECT_TRUE(event.wait(timeout));
        EXPECT_EQ(asked_limit, limit) << timeout;
    }
}

TEST(ReadWriteSemaphore, AndItsGuardsForwardToItsSemaphore)
{
    THR_READ_WRITE_SEMAPHORE semaphore, other;
    auto can_read = [&] {
        bool taken = semaphore.try_read_lock();
        if (taken)
            semaphore.read_unlock();
        return taken;
    };
    auto can_write = [&] {
        bool taken = semaphore.try_write_lock();
        if (taken)
            semaphore.write_unlock();
        return taken;
    };
    using Flags = std::pair<bool, bool>;
    auto others_can = [&] {
        return Flags(on_another_thread(can_read), on_another_thread(can_write));
    };
    semaphore.read_lock();
    EXPECT_EQ(others_can(), Flags(true, false));
    semaphore.read_unlock();
    semaphore.write_lock();
    EXPECT_EQ(others_can(), Flags(false, false));
    semaphore.write_unlock();
    {
        THR_SCOPED_READ_LOCK guard(semaphore);
        EXPECT_EQ(others_can(), Flags(true, false));
    }
    EXPECT_EQ(others_can(), Flags(true, true));
    try {
        THR_SCOPED_WRITE_LOCK guard(semaphore);
        EXPECT_EQ(others_can(), Flags(false, false));
        throw std::runtime_error("unwinds the guard");
    } catch (const std::runtime_error &) {
    }
    EXPECT_EQ(others_can(), Flags(true, true));

    // A guard reads the object's handle at the moment it unlocks.
    other.write_lock();
    {
        THR_SCOPED_WRITE_LOCK guard(semaphore);
        std::swap(wrapped_by<THR_RW_SEM>(semaphore), wrapped_by<THR_RW_SEM>(other));
    }
    EXPECT_EQ(others_can(), Flags(true, true));
    other.write_unlock();
}

TEST(ScopedMutex, NestsAndLocksForItsLifetime)
{
    THR_MUTEX_OBJ mutex;
    auto is_free = [&] {
        int taken = thr_mutex_try_lock(wrapped_by<THR_MUTEX>(mutex));
        if (taken)
            thr_mutex_unlock(wrapped_by<THR_MUTEX>(mutex));
        return taken;
    };
    {
        THR_SCOPED_MUTEX outer(mutex);
        {
            THR_SCOPED_MUTEX inner(mutex);
        }
        EXPECT_EQ(on_another_thread(is_free), 0);
    }
    EXPECT_EQ(on_another_thread(is_free), 1);
}

int live_blocks;

void *counted_malloc(size_t size)
{
    ++live_blocks;
    return malloc(size);
}

void *counted_calloc(size_t count, size_t size)
{
    ++live_blocks;
    return calloc(count, size);
}

void counted_free(void *memory)
{
    live_blocks -= memory != nullptr;
    free(memory);
}

TEST(Objects, ReleaseAllThatTheyMade)
{
    const size_t handles = live_handle_count();
    ImportPatch patches[] = {
        {"malloc", &counted_malloc}, {"calloc", &counted_calloc}, {"free", &counted_free}};
    {
        THR_MUTEX_OBJ mutex; // made by this program, through the library
        THR_EVENT_OBJ event;
        THR_READ_WRITE_SEMAPHORE semaphore;
        EXPECT_EQ(live_blocks, 1 + 1 + 5);
        EXPECT_EQ(live_handle_count(), handles + 3);
    }
    EXPECT_EQ(live_blocks, 0);
    EXPECT_EQ(live_handle_count(), handles);
}

// --- overloads ----------------------------------------------------------------------------------

TEST(ProcessOverloads, ExitAsksTheCallingThreadsLoopToEnd)
{
    MSG message = {};
    on_another_thread([&] {
        thr_process_exit(5);
        return PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE);
    });
    EXPECT_EQ(message.message, WM_QUIT);
    EXPECT_EQ(static_cast<int>(message.wParam), -1);
}

ROLE(waits)
{
    hear();
    return 0;
}

TEST(ProcessOverloads, TerminateTakesTheHandleAsANumber)
{
    Child child("waits");
    HANDLE process = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), child.handle(), GetCurrentProcess(), &process,
                                0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_EQ(thr_process_terminate(reinterpret_cast<uint64_t>(process), 5), 0);
    EXPECT_EQ(child.wait(), 5);
    EXPECT_EQ(thr_process_terminate(uint64_t{0}, 5), -1);
    EXPECT_EQ(thr_process_terminate(uint64_t{0x7FFFFFFC}, 5), ERROR_INVALID_HANDLE);
}

} // namespace
