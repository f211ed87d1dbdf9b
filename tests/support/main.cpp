// The entry of every test program: a role in a scene of several processes, or its tests.
#include "support/test.h"

#include <cstdio>

namespace
{

HANDLE timer;

void CALLBACK end_program(void *test, BOOLEAN)
{
    auto *info = static_cast<const testing::TestInfo *>(test);
    fprintf(stderr, "[  FAILED  ] %s.%s was still running after its time\n",
            info->test_suite_name(), info->name());
    fflush(stderr);
    TerminateProcess(GetCurrentProcess(), 3);
}

// A test that takes more than a minute ends the program, by name.
class Watchdog : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo &info) override
    {
        CreateTimerQueueTimer(&timer, nullptr, end_program, const_cast<testing::TestInfo *>(&info),
                              60000, 0, WT_EXECUTEONLYONCE);
    }
    void OnTestEnd(const testing::TestInfo &) override
    {
        (void)DeleteTimerQueueTimer(nullptr, timer, nullptr);
    }
};

} // namespace

void support::allow_seconds(unsigned seconds)
{
    (void)ChangeTimerQueueTimer(nullptr, timer, seconds * 1000, 0);
}

int main(int argc, char **argv)
{
    // A crash ends the program at once, where a dialog or a debugger would hold up the run.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    support::guard_heap();
    if (argc >= 3 && strcmp(argv[1], "--role") == 0)
        return support::run_role(argv[2], support::RoleArgs(argv + 3, argv + argc));
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the library's users have many threads
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
    return RUN_ALL_TESTS();
}
