// The reporting frame as a host meets it. The affinity mask serves as the refused call, a null
// mutex as the broken precondition and a refused thread variable as the debug message.
#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

BOOL WINAPI refused_get_mask(HANDLE, DWORD_PTR *, DWORD_PTR *)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

DWORD WINAPI refused_tls_alloc()
{
    SetLastError(ERROR_NO_MORE_ITEMS);
    return TLS_OUT_OF_INDEXES;
}

void print_report(const char *message, const char *sub_system, const char *file, int line)
{
    fprintf(stderr, "hook: %s|%s|%s|%d\n", message, sub_system, file, line > 0);
}

void say_goodbye()
{
    fprintf(stderr, "goodbye\n");
}

// --- internal errors ----------------------------------------------------------------------------

TEST(InternalErrorDeathTest, EndsTheProcessThroughExit)
{
    EXPECT_EXIT(
        {
            atexit(say_goodbye);
            thr_mutex_lock(nullptr);
        },
        testing::ExitedWithCode(-1),
        "^Internal Error: Sub-system: THR, File: thr/thr_mutex\\.cpp, Line: \\d+\n"
        "mutex != 0\ngoodbye\n$");
}

TEST(InternalErrorDeathTest, GoesToTheHookAndEndsTheProcessAllTheSame)
{
    EXPECT_EXIT(
        {
            thr_set_report_func(print_report);
            thr_mutex_lock(nullptr);
            fprintf(stderr, "it returned\n");
        },
        testing::ExitedWithCode(-1), "^hook: mutex != 0\\|THR\\|thr/thr_mutex\\.cpp\\|1\n$");
}

TEST(InternalErrorDeathTest, IsPrintedAgainOnceTheHookIsRemoved)
{
    EXPECT_INTERNAL_ERROR(
        {
            thr_set_report_func(print_report);
            thr_set_report_func(nullptr);
            thr_mutex_lock(nullptr);
        },
        "mutex != 0", "thr_mutex");
}

// --- OS failures --------------------------------------------------------------------------------

TEST(OsFailure, GoesToTheHookAndReturns)
{
    ReportRecorder reports;
    ImportPatch patch("GetProcessAffinityMask", &refused_get_mask);
    EXPECT_EQ(thr_get_cpu_affinity_mask(), 0u);
    std::vector<Report> taken = reports.take();
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_EQ(taken[0].message, os_failure_text(ACTION, API, ERROR_ACCESS_DENIED));
    EXPECT_EQ(taken[0].sub_system, "THR");
    EXPECT_EQ(taken[0].file, "thr/thr_thread.cpp");
    EXPECT_GT(taken[0].line, 0);
}

TEST(OsFailureDeathTest, EndsTheProcessWithoutAHook)
{
    EXPECT_EXIT(
        {
            atexit(say_goodbye);
            ImportPatch patch("GetProcessAffinityMask", &refused_get_mask);
            thr_get_cpu_affinity_mask();
        },
        testing::ExitedWithCode(-1),
        "^" + literal_regex(os_failure_text(ACTION, API, ERROR_ACCESS_DENIED)) +
            "\nLocation: thr/thr_thread\\.cpp:\\d+\ngoodbye\n$");
}

// Two threads stand in the hook at once before either looks at its report.
thread_local DWORD code_of_thread;
LONG reports_in_hook;
std::atomic<int> own_reports;

BOOL WINAPI refused_by_thread(HANDLE, DWORD_PTR *, DWORD_PTR *)
{
    SetLastError(code_of_thread);
    return FALSE;
}

void compare_when_both_report(const char *message, const char *, const char *, int)
{
    InterlockedIncrement(&reports_in_hook);
    for (int tries = 0; tries < 10000 && InterlockedOr(&reports_in_hook, 0) < 2; ++tries)
        Sleep(1);
    if (message == os_failure_text(ACTION, API, code_of_thread))
        ++own_reports;
}

TEST(OsFailure, ThreadsReportAtOnce)
{
    ImportPatch patch("GetProcessAffinityMask", &refused_by_thread);
    thr_set_report_func(compare_when_both_report);
    std::vector<std::thread> threads;
    for (DWORD code : {ERROR_ACCESS_DENIED, ERROR_ALREADY_EXISTS}) {
        threads.emplace_back([code] {
            code_of_thread = code;
            thr_get_cpu_affinity_mask();
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    thr_set_report_func(nullptr);
    EXPECT_EQ(reports_in_hook, 2);
    EXPECT_EQ(own_reports, 2);
}

// --- debug channel ------------------------------------------------------------------------------

void send_debug_message()
{
    ImportPatch patch("TlsAlloc", &refused_tls_alloc);
    THR_THREAD_VAR var;
    thr_thread_var_init(&var);
}

void first_hook(const char *sub_system, const char *format, va_list args)
{
    printf("first hook: %s: ", sub_system);
    vprintf(format, args);
    printf("\n");
}

void second_hook(const char *sub_system, const char *, va_list)
{
    printf("second hook: %s\n", sub_system);
}

ROLE(debug_channel)
{
    const struct {
        const char *step;
        THR_DEBUG_FUNC hook;
        int fake_debug;
    } steps[] = {{"nothing set", nullptr, 0},    {"hook", first_hook, 0},
                 {"hook removed", nullptr, 0},   {"fake debug", nullptr, 2},
                 {"fake debug off", nullptr, 0}, {"hook and fake debug", first_hook, 1},
                 {"other hook", second_hook, 0}, {"other hook removed", nullptr, 0}};
    for (auto &step : steps) {
        say(step.step);
        thr_set_debug_func(step.hook, step.fake_debug);
        send_debug_message();
    }
    return 0;
}

TEST(DebugChannel, GoesToTheHookElseToFakeDebugElseNowhere)
{
    const std::string text = "thr_thread_var_init() failed with error code 259";
    const std::string hooked = "first hook: THR: " + text;
    const std::string faked = "Fake Debug: THR: " + text;
    Child child("debug_channel");
    for (const std::string &line :
         {std::string("nothing set"), std::string("hook"), hooked, std::string("hook removed"),
          std::string("fake debug"), faked, std::string("fake debug off"), faked,
          std::string("hook and fake debug"), hooked, std::string("other hook"),
          std::string("second hook: THR"), std::string("other hook removed"), faked})
        EXPECT_EQ(child.read_line(), line);
    EXPECT_EQ(child.read_line(), std::nullopt);
    EXPECT_EQ(child.wait(), 0);
}

// --- debugger -----------------------------------------------------------------------------------

const char *debugger_text;

void WINAPI recorded_output(const char *text)
{
    debugger_text = text;
}

TEST(Debugger, OutputIsPassedOnUnchanged)
{
    ImportPatch patch("OutputDebugStringA", &recorded_output);
    const char text[] = "100%s of it\n";
    thr_win32_output_debug_string(text);
    EXPECT_EQ(debugger_text, text);
}

LONG breakpoints;

// Goes on behind the breakpoint instruction, as a debugger that continues.
LONG CALLBACK continue_like_a_debugger(EXCEPTION_POINTERS *exception)
{
    if (exception->ExceptionRecord->ExceptionCode != EXCEPTION_BREAKPOINT)
        return EXCEPTION_CONTINUE_SEARCH;
    ++breakpoints;
    ++exception->ContextRecord->Rip;
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST(Debugger, BreakIsABreakpointThatReturns)
{
    void *handler = AddVectoredExceptionHandler(1, continue_like_a_debugger);
    thr_debug_break();
    RemoveVectoredExceptionHandler(handler);
    EXPECT_EQ(breakpoints, 1);
}

} // namespace
