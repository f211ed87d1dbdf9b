// That the tests would find damage to the heap.
#include "support/heap.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include <windows.h>

namespace
{

using support::are_heaps_sound;
using support::checked_free;

TEST(HeapDeathTest, DamageIsFound)
{
    using Flags = ULONG(WINAPI *)();
    auto flags = reinterpret_cast<Flags>(reinterpret_cast<void *>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlGetNtGlobalFlags")));
    if ((flags() & 0x30) != 0x30)
        GTEST_SKIP() << "the system's heap checks are off: scripts/test.sh puts them on";
    volatile size_t size = 24; // which the compiler then does not know
    auto *written_past = static_cast<volatile char *>(malloc(size));
    const char tail = written_past[size];
    written_past[size] = 'x';
    EXPECT_FALSE(are_heaps_sound());
    EXPECT_EXIT(checked_free(const_cast<char *>(written_past)), testing::ExitedWithCode(3),
                "A damaged or foreign block");
    written_past[size] = tail;
    auto *written_late = static_cast<volatile char *>(malloc(size));
    checked_free(const_cast<char *>(written_late));
    const char filling = written_late[size / 2];
    written_late[size / 2] = 'x';
    EXPECT_FALSE(are_heaps_sound());
    written_late[size / 2] = filling;
    EXPECT_TRUE(are_heaps_sound());
    checked_free(const_cast<char *>(written_past));
}

} // namespace
