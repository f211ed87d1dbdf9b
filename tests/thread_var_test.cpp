#include "thr/thr.h"

#include "support/import_patch.h"
#include "support/recorders.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace support;

namespace
{

using Messages = std::vector<std::string>;

TEST(ThreadVar, EachThreadHasItsOwnValue)
{
    THR_THREAD_VAR var;
    int value, other_value;
    ASSERT_EQ(thr_thread_var_init(&var), 0);
    EXPECT_EQ(thr_thread_var_set(&var, &value), 0);
    std::thread([&] {
        EXPECT_EQ(thr_thread_var_get(&var), nullptr);
        EXPECT_EQ(thr_thread_var_set(&var, &other_value), 0);
    }).join();
    EXPECT_EQ(thr_thread_var_get(&var), &value);
    EXPECT_EQ(thr_thread_var_destroy(&var), 0);
}

std::vector<DWORD> sleeps;

void WINAPI recorded_sleep(DWORD milliseconds)
{
    sleeps.push_back(milliseconds);
}

TEST(System, SleepsComputeIn32Bits)
{
    ImportPatch patch("Sleep", &recorded_sleep);
    thr_sleep(3);
    thr_sleep(4294968);
    thr_msleep(7);
    EXPECT_EQ(sleeps, (std::vector<DWORD>{3000, 704, 7}));
}

// --- affinity -----------------------------------------------------------------------------------

TEST(Affinity, KeepsTheThreadOnTheProcessorsInside)
{
    DWORD_PTR all = 0, system = 0;
    ASSERT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &all, &system));
    const DWORD_PTR lowest = all & (0 - all);
    EXPECT_EQ(thr_get_cpu_affinity_mask(), all);
    std::thread([&] {
        thr_set_thread_affinity_mask(lowest | ~all);
        EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), lowest);
    }).join();
    EXPECT_INTERNAL_ERROR(thr_set_thread_affinity_mask(~all), "affinity_mask != 0", "thr_thread");
}

// --- refused calls ------------------------------------------------------------------------------

DWORD WINAPI refused_tls_alloc()
{
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return TLS_OUT_OF_INDEXES;
}

BOOL WINAPI refused_get_mask(HANDLE, DWORD_PTR *, DWORD_PTR *)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

DWORD_PTR WINAPI refused_set_mask(HANDLE, DWORD_PTR)
{
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
}

TEST(Refusal, IsReportedByItsText)
{
    ReportRecorder reports;
    DebugRecorder debug;
    ImportPatch tls_patch("TlsAlloc", &refused_tls_alloc);
    THR_THREAD_VAR var = 1;
    EXPECT_EQ(thr_thread_var_init(&var), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(debug.take(), Messages{"thr_thread_var_init() failed with error code 8"});
    EXPECT_EQ(thr_thread_var_destroy(&var), ERROR_INVALID_PARAMETER);

    ImportPatch set_patch("SetThreadAffinityMask", &refused_set_mask);
    thr_set_thread_affinity_mask(thr_get_cpu_affinity_mask());
    ImportPatch get_patch("GetProcessAffinityMask", &refused_get_mask);
    EXPECT_EQ(thr_get_cpu_affinity_mask(), 0u);
    const char set[] = "SetThreadAffinityMask(GetCurrentThread(), (DWORD_PTR)affinity_mask)";
    const char get[] = "GetProcessAffinityMask(GetCurrentProcess(), &proc_mask, &sys_mask)";
    EXPECT_EQ(reports.take_messages(),
              (Messages{os_failure_text("set the thread's CPU affinity mask", set, 87),
                        os_failure_text("set the process' CPU affinity mask", get, 5)}));
}

// --- thread names -------------------------------------------------------------------------------

const DWORD NAMING_CODE = 0x406D1388;

std::string raised_name;

// In the middle of the library's own raise, another thread of the host raises the same code.
void WINAPI raise_beside_another_thread(DWORD code, DWORD flags, DWORD count,
                                        const ULONG_PTR *arguments)
{
    EXPECT_EQ(code, NAMING_CODE);
    EXPECT_EQ(flags, 0u);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(arguments[0] & 0xFFFFFFFF, 0x1000u);
    EXPECT_EQ(arguments[2], 0xFFFFFFFFu) << "the id in the lower half, flags in the upper";
    raised_name = reinterpret_cast<const char *>(arguments[1]);
    std::thread([] { RaiseException(NAMING_CODE, 0, 0, nullptr); }).join();
    RaiseException(code, flags, count, arguments);
}

LONG seen_by_host;

LONG CALLBACK host_handler(EXCEPTION_POINTERS *exception)
{
    if (exception->ExceptionRecord->ExceptionCode != NAMING_CODE)
        return EXCEPTION_CONTINUE_SEARCH;
    InterlockedIncrement(&seen_by_host);
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST(Rename, RaisesTheNamingRecordAndLeavesTheHostsExceptionsToTheHost)
{
    void *handler = AddVectoredExceptionHandler(1, host_handler);
    ImportPatch patch("RaiseException", &raise_beside_another_thread);
    thr_rename_thread("worker of the test");
    EXPECT_EQ(raised_name, "worker of the test");
    EXPECT_EQ(seen_by_host, 1) << "the other thread's, and not the library's own";
    RaiseException(NAMING_CODE, 0, 0, nullptr);
    EXPECT_EQ(seen_by_host, 2) << "after the call every exception is the host's";
    RemoveVectoredExceptionHandler(handler);
}

} // namespace
