#include "thr/thr.h"

#include "support/import_patch.h"
#include "support/recorders.h"

#include <thread>

#include <gtest/gtest.h>

using namespace support;

namespace
{

int sections; // that the library has made and not deleted

void WINAPI counted_initialize(CRITICAL_SECTION *section)
{
    ++sections;
    InitializeCriticalSection(section);
}

void WINAPI counted_delete(CRITICAL_SECTION *section)
{
    --sections;
    DeleteCriticalSection(section);
}

// Tries the mutex on a thread of its own, and lets go of it again.
int try_on_another_thread(THR_MUTEX mutex)
{
    int taken = -1;
    std::thread([&] {
        taken = thr_mutex_try_lock(mutex);
        if (taken)
            thr_mutex_unlock(mutex);
    }).join();
    return taken;
}

TEST(Mutex, IsRecursiveForItsOwnerAndExcludesOtherThreads)
{
    ImportPatch patches[] = {{"InitializeCriticalSection", &counted_initialize},
                             {"DeleteCriticalSection", &counted_delete}};
    THR_MUTEX mutex = thr_mutex_create();
    EXPECT_EQ(sections, 1);
    thr_mutex_lock(mutex);
    EXPECT_EQ(thr_mutex_try_lock(mutex), 1);
    for (int locks = 2; locks > 0; --locks) {
        EXPECT_EQ(try_on_another_thread(mutex), 0) << locks << " locks";
        thr_mutex_unlock(mutex);
    }
    EXPECT_EQ(try_on_another_thread(mutex), 1);
    thr_mutex_destroy(mutex);
    EXPECT_EQ(sections, 0);
}

TEST(MutexDeathTest, InternalErrors)
{
    void (*const calls[])(THR_MUTEX) = {thr_mutex_destroy, thr_mutex_lock, thr_mutex_unlock,
                                        [](THR_MUTEX mutex) { thr_mutex_try_lock(mutex); }};
    for (auto *call : calls)
        EXPECT_INTERNAL_ERROR(call(nullptr), "mutex != 0", "thr_mutex");
    RefusedMalloc refused;
    EXPECT_INTERNAL_ERROR(thr_mutex_create(), "mutex", "thr_mutex");
}

} // namespace
