// That the tests would find damage to the heap: to blocks of this program, of the library and of
// the C++ runtime.
#include "thr/thr.h"

#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include <windows.h>

namespace
{

const struct Origin {
    void *(*take)();
    void (*release)(void *);
} ORIGINS[] = {
    {[] { return malloc(24); }, [](void *block) { free(block); }},
    {[]() -> void * { return thr_rw_sem_create(); },
     [](void *sem) { thr_rw_sem_destroy(static_cast<THR_RW_SEM>(sem)), free(sem); }},
    {[] { return operator new(24); }, [](void *block) { operator delete(block); }},
};

void write_past(const Origin &origin)
{
    auto *block = static_cast<volatile char *>(origin.take());
    block[4096 - reinterpret_cast<size_t>(block) % 4096] = 'x';
}

void write_late(const Origin &origin)
{
    auto *block = static_cast<volatile char *>(origin.take());
    origin.release(const_cast<char *>(block));
    *block = 'x';
}

TEST(HeapDeathTest, DamageIsFound)
{
    const testing::ExitedWithCode crashed(static_cast<int>(STATUS_ACCESS_VIOLATION));
    for (const Origin &origin : ORIGINS) {
        EXPECT_EXIT(write_past(origin), crashed, "");
        EXPECT_EXIT(write_late(origin), crashed, "");
    }
    for (int offset : {-1, 24}) {
        auto *block = static_cast<char *>(malloc(24));
        char *volatile damaged = block + offset;
        EXPECT_EXIT((*damaged = 'x', free(block)), testing::ExitedWithCode(3), "damaged block");
        free(block);
    }
}

} // namespace
