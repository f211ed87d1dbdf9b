// The entry of every test program: a role in a scene of several processes, or its tests.
#include "support/test.h"

#include <cstdio>

namespace
{

// A test that takes more than a minute ends the program, by name; the sweep may take longer.
class Watchdog : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo &test) override
    {
        const DWORD minutes = strcmp(test.test_suite_name(), "RefusalSweep") ? 1 : 9;
        auto end_program = [](void *name, BOOLEAN) {
            fprintf(stderr, "%s is out of time\n", static_cast<const char *>(name));
            TerminateProcess(GetCurrentProcess(), 3);
        };
        CreateTimerQueueTimer(&m_timer, nullptr, end_program, const_cast<char *>(test.name()),
                              minutes * 60000, 0, WT_EXECUTEONLYONCE);
    }
    void OnTestEnd(const testing::TestInfo &) override
    {
        (void)DeleteTimerQueueTimer(nullptr, m_timer, nullptr);
    }

    HANDLE m_timer = nullptr;
};

} // namespace

int main(int argc, char **argv)
{
    // A crash ends the program at once, where a dialog or a debugger would hold up the run.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    support::guard_heap();
    if (argc >= 3 && strcmp(argv[1], "--role") == 0)
        return support::roles().at(argv[2])({argv + 3, argv + argc});
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the library's users have many threads
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
    return RUN_ALL_TESTS();
}
