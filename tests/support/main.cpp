// The entry of every test program: a role in a scene of several processes, or its tests.
#include "support/child.h"
#include "support/heap.h"

#include <cstring>

#include <gtest/gtest.h>

class HeapCheck : public testing::EmptyTestEventListener
{
    void OnTestEnd(const testing::TestInfo &) override { EXPECT_TRUE(support::are_heaps_sound()); }
};

int main(int argc, char **argv)
{
    // A crash ends the program at once, where a dialog or a debugger would hold up the run.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    support::check_freed_blocks();
    if (argc >= 3 && strcmp(argv[1], "--role") == 0) {
        int code = support::run_role(argv[2], support::RoleArgs(argv + 3, argv + argc));
        return support::are_heaps_sound() ? code : 98;
    }
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the library's users have many threads
    testing::UnitTest::GetInstance()->listeners().Append(new HeapCheck);
    return RUN_ALL_TESTS();
}
