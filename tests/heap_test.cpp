// That the tests would find damage to the heap: to blocks of this program, of the library and of
// the C++ runtime.
#include "support/test.h"

namespace
{

// How a block is taken, and released.
const std::pair<void *(*)(), void (*)(void *)> ORIGINS[] = {
    {[] { return malloc(24); }, [](void *block) { free(block); }},
    {[]() -> void * { return thr_rw_sem_create(); },
     [](void *sem) { thr_rw_sem_destroy(static_cast<THR_RW_SEM>(sem)), free(sem); }},
    {[] { return operator new(24); }, [](void *block) { operator delete(block); }},
};

TEST(HeapDeathTest, DamageIsFound)
{
    for (const auto &origin : ORIGINS) {
        for (bool is_late : {false, true}) { // past the block, or after its release
            auto write = [=] {
                auto *block = static_cast<volatile char *>(origin.first());
                if (is_late)
                    origin.second(const_cast<char *>(block));
                block[is_late ? 0 : 4096 - reinterpret_cast<size_t>(block) % 4096] = 'x';
            };
            EXPECT_EXIT(write(), testing::ExitedWithCode(int(STATUS_ACCESS_VIOLATION)), "");
        }
    }
    for (int offset : {-1, 24}) {
        auto *block = static_cast<char *>(malloc(24));
        char *volatile damaged = block + offset;
        EXPECT_EXIT((*damaged = 'x', free(block)), testing::ExitedWithCode(3), "damaged block");
        free(block);
    }
}

} // namespace
