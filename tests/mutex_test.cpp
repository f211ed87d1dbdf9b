#include "thr/thr.h"

#include "support/import_patch.h"
#include "support/recorders.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

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
    THR_MUTEX mutex = thr_mutex_create();
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(try_on_another_thread(mutex), 1);
    thr_mutex_lock(mutex);
    thr_mutex_lock(mutex);
    EXPECT_EQ(thr_mutex_try_lock(mutex), 1);
    for (int locks = 3; locks > 0; --locks) {
        EXPECT_EQ(try_on_another_thread(mutex), 0) << locks << " locks";
        thr_mutex_unlock(mutex);
    }
    EXPECT_EQ(try_on_another_thread(mutex), 1);
    thr_mutex_destroy(mutex);
}

TEST(Mutex, LockWaitsForTheOwner)
{
    THR_MUTEX mutex = thr_mutex_create();
    int counter = 0; // a lost update shows two threads inside at once
    std::vector<std::thread> threads;
    thr_mutex_lock(mutex);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 10000; ++round) {
                thr_mutex_lock(mutex);
                counter = counter + 1;
                thr_mutex_unlock(mutex);
            }
        });
    }
    Sleep(50);
    EXPECT_EQ(counter, 0) << "a thread came in while the mutex was owned";
    thr_mutex_unlock(mutex);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 40000);
    thr_mutex_destroy(mutex);
}

// What the library asks of the platform, in order.
std::vector<std::string> calls;
void *record;

void *dirty_malloc(size_t size)
{
    record = malloc(size);
    if (record)
        memset(record, 0xA5, size);
    calls.push_back("allocate");
    return record;
}

// A compiler makes one calloc of a malloc and the filling with zeros.
void *recorded_calloc(size_t count, size_t size)
{
    record = calloc(count, size);
    calls.push_back("allocate");
    return record;
}

void WINAPI recorded_initialize(CRITICAL_SECTION *section)
{
    const CRITICAL_SECTION zeroes = {};
    bool is_zeroed = section == record && memcmp(section, &zeroes, sizeof zeroes) == 0;
    calls.push_back(is_zeroed ? "initialize" : "initialize, record not filled with zeros");
    InitializeCriticalSection(section);
}

void WINAPI recorded_delete(CRITICAL_SECTION *section)
{
    calls.push_back(section == record ? "delete" : "delete of something else");
    DeleteCriticalSection(section);
}

void recorded_free(void *memory)
{
    calls.push_back(memory == record ? "free" : "free of something else");
    free(memory);
}

TEST(Mutex, DestroyReleasesWhatCreateMade)
{
    ImportPatch patches[] = {{"malloc", &dirty_malloc},
                             {"calloc", &recorded_calloc},
                             {"InitializeCriticalSection", &recorded_initialize},
                             {"DeleteCriticalSection", &recorded_delete},
                             {"free", &recorded_free}};
    THR_MUTEX mutex = thr_mutex_create();
    EXPECT_EQ(mutex, record);
    thr_mutex_destroy(mutex);
    EXPECT_EQ(calls, (std::vector<std::string>{"allocate", "initialize", "delete", "free"}));
}

TEST(MutexDeathTest, InternalErrors)
{
    EXPECT_INTERNAL_ERROR(thr_mutex_destroy(nullptr), "mutex != 0", "thr_mutex");
    EXPECT_INTERNAL_ERROR(thr_mutex_lock(nullptr), "mutex != 0", "thr_mutex");
    EXPECT_INTERNAL_ERROR(thr_mutex_try_lock(nullptr), "mutex != 0", "thr_mutex");
    EXPECT_INTERNAL_ERROR(thr_mutex_unlock(nullptr), "mutex != 0", "thr_mutex");
    EXPECT_INTERNAL_ERROR(
        {
            RefusedMalloc refused;
            thr_mutex_create();
        },
        "mutex", "thr_mutex");
}

} // namespace
