#include "thr/thr.h"

#include "support/import_patch.h"
#include "support/recorders.h"

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

// --- thread variables -------------------------------------------------------------------------

TEST(ThreadVar, EachThreadHasItsOwnValue)
{
    THR_THREAD_VAR var, other_var;
    int value, other_value;
    ASSERT_EQ(thr_thread_var_init(&var), 0);
    ASSERT_EQ(thr_thread_var_init(&other_var), 0);
    EXPECT_EQ(thr_thread_var_get(&var), nullptr);
    EXPECT_EQ(thr_thread_var_set(&var, &value), 0);
    EXPECT_EQ(thr_thread_var_get(&other_var), nullptr);
    std::thread([&] {
        EXPECT_EQ(thr_thread_var_get(&var), nullptr);
        EXPECT_EQ(thr_thread_var_set(&var, &other_value), 0);
        EXPECT_EQ(thr_thread_var_get(&var), &other_value);
    }).join();
    EXPECT_EQ(thr_thread_var_get(&var), &value);

    EXPECT_EQ(thr_thread_var_destroy(&var), 0);
    ASSERT_EQ(thr_thread_var_init(&var), 0); // most likely the same slot again
    EXPECT_EQ(thr_thread_var_get(&var), nullptr);
    EXPECT_EQ(thr_thread_var_destroy(&var), 0);
    EXPECT_EQ(thr_thread_var_destroy(&other_var), 0);
}

DWORD refusal_code;

DWORD WINAPI refused_tls_alloc()
{
    SetLastError(refusal_code);
    return TLS_OUT_OF_INDEXES;
}

TEST(ThreadVar, RefusedCallsGiveTheCodeAndNoReport)
{
    ReportRecorder reports;
    DebugRecorder debug;
    ImportPatch patch("TlsAlloc", &refused_tls_alloc);
    THR_THREAD_VAR var = 1;
    refusal_code = ERROR_NOT_ENOUGH_MEMORY;
    EXPECT_EQ(thr_thread_var_init(&var), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(debug.take(),
              std::vector<std::string>{"thr_thread_var_init() failed with error code 8"});
    EXPECT_EQ(var, 0xFFFFFFFF);
    EXPECT_EQ(thr_thread_var_set(&var, &var), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(thr_thread_var_destroy(&var), ERROR_INVALID_PARAMETER);

    var = 1;
    refusal_code = 0;
    EXPECT_EQ(thr_thread_var_init(&var), 0);
    EXPECT_EQ(var, 0xFFFFFFFF);
    EXPECT_TRUE(debug.take().empty());
    EXPECT_TRUE(reports.take().empty());
}

// --- time, process id -------------------------------------------------------------------------

std::vector<DWORD> sleeps;

void WINAPI recorded_sleep(DWORD milliseconds)
{
    sleeps.push_back(milliseconds);
}

TEST(Timing, SleepsComputeIn32Bits)
{
    thr_sleep(0);
    thr_msleep(0);
    ImportPatch patch("Sleep", &recorded_sleep);
    for (uint32_t seconds : {0u, 3u, 4294967u, 4294968u})
        thr_sleep(seconds);
    for (uint32_t milliseconds : {0u, 7u, 0xFFFFFFFFu})
        thr_msleep(milliseconds);
    EXPECT_EQ(sleeps, (std::vector<DWORD>{0, 3000, 4294967000, 704, 0, 7, 0xFFFFFFFF}));
}

TEST(Timing, TickCountAndProcessIdAreTheSystems)
{
    DWORD before = GetTickCount();
    uint32_t ticks = thr_get_tick_count();
    EXPECT_LE(ticks - before, GetTickCount() - before); // differences survive the wrap
    EXPECT_EQ(thr_getpid(), static_cast<int>(GetCurrentProcessId()));
}

// --- affinity -----------------------------------------------------------------------------------

const char GET_MASK[] = "GetProcessAffinityMask(GetCurrentProcess(), &proc_mask, &sys_mask)";
const char SET_MASK[] = "SetThreadAffinityMask(GetCurrentThread(), (DWORD_PTR)affinity_mask)";

DWORD_PTR process_mask()
{
    DWORD_PTR process = 0, system = 0;
    GetProcessAffinityMask(GetCurrentProcess(), &process, &system);
    return process;
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

TEST(Affinity, KeepsTheThreadOnTheProcessorsInside)
{
    const DWORD_PTR all = process_mask();
    const DWORD_PTR lowest = all & (0 - all);
    EXPECT_EQ(thr_get_cpu_affinity_mask(), all);
    std::thread([&] {
        thr_set_thread_affinity_mask(lowest | ~all);
        EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), lowest);
        thr_set_thread_affinity_mask(~uintptr_t{0});
        EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), all);
    }).join();
}

TEST(Affinity, RefusedCallsAreReported)
{
    using Messages = std::vector<std::string>;
    ReportRecorder reports;
    {
        ImportPatch patch("GetProcessAffinityMask", &refused_get_mask);
        EXPECT_EQ(thr_get_cpu_affinity_mask(), 0u);
    }
    EXPECT_EQ(reports.take_messages(),
              Messages{os_failure_text("set the process' CPU affinity mask", GET_MASK, 5)});
    ImportPatch patch("SetThreadAffinityMask", &refused_set_mask);
    thr_set_thread_affinity_mask(process_mask());
    EXPECT_EQ(reports.take_messages(),
              Messages{os_failure_text("set the thread's CPU affinity mask", SET_MASK, 87)});
}

TEST(AffinityDeathTest, AMaskWithoutAProcessorOfTheProcessIsAnInternalError)
{
    EXPECT_INTERNAL_ERROR(thr_set_thread_affinity_mask(~process_mask()), "affinity_mask != 0",
                          "thr_thread");
}

// --- thread names -------------------------------------------------------------------------------

const DWORD NAMING_CODE = 0x406D1388;

struct Raised {
    DWORD code, flags;
    std::vector<ULONG_PTR> arguments;
    std::string name;
};

std::vector<Raised> raised;

// Keeps what is raised and raises it.
void WINAPI recorded_raise(DWORD code, DWORD flags, DWORD count, const ULONG_PTR *arguments)
{
    raised.push_back({code, flags, {arguments, arguments + count}, ""});
    if (count > 1)
        raised.back().name = reinterpret_cast<const char *>(arguments[1]);
    RaiseException(code, flags, count, arguments);
}

std::vector<void *> handlers;

void *WINAPI recorded_add(ULONG first, PVECTORED_EXCEPTION_HANDLER func)
{
    handlers.push_back(AddVectoredExceptionHandler(first, func));
    return handlers.back();
}

ULONG WINAPI recorded_remove(void *handler)
{
    handlers.erase(std::remove(handlers.begin(), handlers.end(), handler), handlers.end());
    return RemoveVectoredExceptionHandler(handler);
}

TEST(Rename, RaisesTheNamingRecordAndReturns)
{
    ImportPatch patches[] = {{"RaiseException", &recorded_raise},
                             {"AddVectoredExceptionHandler", &recorded_add},
                             {"RemoveVectoredExceptionHandler", &recorded_remove}};
    thr_rename_thread("worker of the test");
    EXPECT_TRUE(handlers.empty()) << "a handler stays behind";
    ASSERT_EQ(raised.size(), 1u);
    const Raised &call = raised[0];
    EXPECT_EQ(call.code, NAMING_CODE);
    EXPECT_EQ(call.flags, 0u);
    ASSERT_EQ(call.arguments.size(), 3u);
    EXPECT_EQ(call.arguments[0] & 0xFFFFFFFF, 0x1000u);
    EXPECT_EQ(call.name, "worker of the test");
    EXPECT_EQ(call.arguments[2], 0xFFFFFFFFu) << "the id in the lower half, flags in the upper";
}

LONG seen_by_host;

LONG CALLBACK host_handler(EXCEPTION_POINTERS *exception)
{
    if (exception->ExceptionRecord->ExceptionCode != NAMING_CODE)
        return EXCEPTION_CONTINUE_SEARCH;
    InterlockedIncrement(&seen_by_host);
    return EXCEPTION_CONTINUE_EXECUTION;
}

// In the middle of the library's own raise, another thread of the host raises the same code.
void WINAPI raise_beside_another_thread(DWORD code, DWORD flags, DWORD count,
                                        const ULONG_PTR *arguments)
{
    std::thread([] { RaiseException(NAMING_CODE, 0, 0, nullptr); }).join();
    RaiseException(code, flags, count, arguments);
}

TEST(Rename, LeavesTheHostsExceptionsToTheHost)
{
    void *handler = AddVectoredExceptionHandler(1, host_handler);
    {
        ImportPatch patch("RaiseException", &raise_beside_another_thread);
        thr_rename_thread("a");
    }
    EXPECT_EQ(seen_by_host, 1) << "the other thread's, and not the library's own";
    RaiseException(NAMING_CODE, 0, 0, nullptr);
    EXPECT_EQ(seen_by_host, 2) << "after the call every exception is the host's";

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round)
                thr_rename_thread("b");
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(seen_by_host, 2);
    RemoveVectoredExceptionHandler(handler);
}

void *WINAPI refused_handler(ULONG, PVECTORED_EXCEPTION_HANDLER)
{
    return nullptr;
}

TEST(Rename, RaisesNothingThatNobodyWouldCatch)
{
    ImportPatch raise("RaiseException", &recorded_raise);
    ImportPatch handler("AddVectoredExceptionHandler", &refused_handler);
    raised.clear();
    thr_rename_thread("c");
    EXPECT_TRUE(raised.empty());
}

} // namespace
