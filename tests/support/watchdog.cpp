#include "support/watchdog.h"

#include <cstdio>

#include <gtest/gtest.h>

#include <windows.h>

namespace support
{

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

void watch_tests()
{
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
}

void allow_seconds(unsigned seconds)
{
    (void)ChangeTimerQueueTimer(nullptr, timer, seconds * 1000, 0);
}

} // namespace support
