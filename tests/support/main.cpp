// The entry of every test program: a role in a scene of several processes, or its tests.
#include "support/child.h"
#include "support/heap.h"
#include "support/watchdog.h"

#include <cstring>

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    // A crash ends the program at once, where a dialog or a debugger would hold up the run.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    support::guard_heap();
    if (argc >= 3 && strcmp(argv[1], "--role") == 0)
        return support::run_role(argv[2], support::RoleArgs(argv + 3, argv + argc));
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the library's users have many threads
    support::watch_tests();
    return RUN_ALL_TESTS();
}
