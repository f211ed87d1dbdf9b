// That the tests would find damage to the heap: to blocks of this program, of the library and of
// the C++ runtime.
#include "support/test.h"

namespace
{

TEST(HeapDeathTest, DamageIsFound)
{
    const auto crashed = testing::ExitedWithCode(int(STATUS_ACCESS_VIOLATION));
    for (void *taken : {malloc(24), static_cast<void *>(thr_event_create()), operator new(24)}) {
        char *volatile block = static_cast<char *>(taken);
        EXPECT_EXIT(block[4096 - reinterpret_cast<size_t>(taken) % 4096] = 'x', crashed, "");
        free(block);
        EXPECT_EXIT(block[0] = 'x', crashed, "");
        EXPECT_EXIT(free(block), crashed, "");
    }
    char *volatile block = static_cast<char *>(malloc(24)); // not released
    block[24] = 'x';
    EXPECT_EXIT(free(block), testing::ExitedWithCode(3), "a damaged block");
    block[-1] = 'x';
    EXPECT_EXIT(free(block), crashed, "");
}

} // namespace
