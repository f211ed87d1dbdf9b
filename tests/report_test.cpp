// The reporting frame as a host meets it. The affinity mask serves as the refused call, a null
// mutex as the broken precondition and a refused thread variable as the debug message.
#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

const char ACTION[] = "set the process' CPU affinity mask";
const char API[] = "GetProcessAffinityMask(GetCurrentProcess(), &proc_mask, &sys_mask)";

thread_local DWORD code_of_thread = ERROR_ACCESS_DENIED;

BOOL WINAPI refused_get_mask(HANDLE, DWORD_PTR *, DWORD_PTR *)
{
    SetLastError(code_of_thread);
    return FALSE;
}

void print_report(const char *message, const char *sub_system, const char *file, int line)
{
    fprintf(stderr, "hook: %s|%s|%s|%d\n", message, sub_system, file, line > 0);
}

void say_goodbye()
{
    fprintf(stderr, "goodbye\n");
}

// --- reports ------------------------------------------------------------------------------------

TEST(ReportDeathTest, WithoutAHookIsPrintedAndEndsTheProcessThroughExit)
{
    EXPECT_EXIT(
        {
            atexit(say_goodbye);
            thr_set_report_func(print_report);
            thr_set_report_func(nullptr);
            ImportPatch patch("GetProcessAffinityMask", &refused_get_mask);
            thr_get_cpu_affinity_mask();
        },
        testing::ExitedWithCode(-1),
        "^" + literal_regex(os_failure_text(ACTION, API, ERROR_ACCESS_DENIED)) +
            "\nLocation: thr/thr_thread\\.cpp:\\d+\ngoodbye\n$");
}

TEST(ReportDeathTest, AnInternalErrorGoesToTheHookAndEndsTheProcessAllTheSame)
{
    EXPECT_EXIT(
        {
            thr_set_report_func(print_report);
            thr_mutex_lock(nullptr);
        },
        testing::ExitedWithCode(-1), "^hook: mutex != 0\\|THR\\|thr/thr_mutex\\.cpp\\|1\n$");
}

// Two threads stand in the hook at once before either looks at its report.
LONG reports_in_hook;
std::atomic<int> own_reports;

void compare_when_both_report(const char *message, const char *, const char *, int)
{
    InterlockedIncrement(&reports_in_hook);
    for (int tries = 0; tries < 10000 && InterlockedOr(&reports_in_hook, 0) < 2; ++tries)
        Sleep(1);
    own_reports += message == os_failure_text(ACTION, API, code_of_thread);
}

TEST(Report, OfAnOsFailureGoesToTheHookAndReturnsOnThreadsAtOnce)
{
    ImportPatch patch("GetProcessAffinityMask", &refused_get_mask);
    thr_set_report_func(compare_when_both_report);
    std::vector<std::thread> threads;
    for (DWORD code : {ERROR_ACCESS_DENIED, ERROR_ALREADY_EXISTS}) {
        threads.emplace_back([code] {
            code_of_thread = code;
            EXPECT_EQ(thr_get_cpu_affinity_mask(), 0u);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    thr_set_report_func(nullptr);
    EXPECT_EQ(reports_in_hook, 2);
    EXPECT_EQ(own_reports, 2);
}

// --- debug channel ------------------------------------------------------------------------------

DWORD WINAPI refused_tls_alloc()
{
    SetLastError(ERROR_NO_MORE_ITEMS);
    return TLS_OUT_OF_INDEXES;
}

void print_debug(const char *sub_system, const char *format, va_list args)
{
    printf("hook: %s: ", sub_system);
    vprintf(format, args);
    printf("\n");
}

const struct {
    THR_DEBUG_FUNC hook;
    int fake_debug;
    std::string start;
} DEBUG_STEPS[] = {{nullptr, 0, ""},           {print_debug, 0, "hook"},
                   {nullptr, 0, ""},           {nullptr, 2, "Fake Debug"},
                   {nullptr, 0, "Fake Debug"}, {print_debug, 0, "hook"}};

ROLE(debug_channel)
{
    ImportPatch patch("TlsAlloc", &refused_tls_alloc);
    for (auto &step : DEBUG_STEPS) {
        thr_set_debug_func(step.hook, step.fake_debug);
        THR_THREAD_VAR var;
        thr_thread_var_init(&var);
        say("done");
    }
    return 0;
}

TEST(DebugChannel, GoesToTheHookElseToFakeDebugElseNowhere)
{
    Child child("debug_channel");
    for (auto &step : DEBUG_STEPS) {
        if (!step.start.empty()) {
            EXPECT_EQ(child.read_line(),
                      step.start + ": THR: thr_thread_var_init() failed with error code 259");
        }
        EXPECT_EQ(child.read_line(), "done");
    }
    EXPECT_EQ(child.wait(), 0);
}

} // namespace
