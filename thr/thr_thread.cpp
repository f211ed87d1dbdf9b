#include "thr/thr.h"
#include "thr/thr_report.h"

#include <process.h>

#include <windows.h>

// --- thread variables -------------------------------------------------------------------------

static_assert(sizeof(THR_THREAD_VAR) == sizeof(DWORD), "a thread variable is an OS slot index");

int thr_thread_var_init(THR_THREAD_VAR *var)
{
    *var = TlsAlloc();
    if (*var != TLS_OUT_OF_INDEXES)
        return 0;
    DWORD code = GetLastError();
    if (code != 0)
        thr_debug_message("thr_thread_var_init() failed with error code %d", code);
    return static_cast<int>(code);
}

int thr_thread_var_destroy(THR_THREAD_VAR *var)
{
    return TlsFree(*var) ? 0 : static_cast<int>(GetLastError());
}

void *thr_thread_var_get(const THR_THREAD_VAR *var)
{
    return TlsGetValue(*var);
}

int thr_thread_var_set(const THR_THREAD_VAR *var, void *value)
{
    return TlsSetValue(*var, value) ? 0 : static_cast<int>(GetLastError());
}

// --- time, affinity, names ----------------------------------------------------------------------

void thr_sleep(uint32_t seconds)
{
    Sleep(seconds * 1000);
}

void thr_msleep(uint32_t milliseconds)
{
    Sleep(milliseconds);
}

uint32_t thr_get_tick_count()
{
    return GetTickCount();
}

uintptr_t thr_get_cpu_affinity_mask()
{
    DWORD_PTR proc_mask = 0;
    DWORD_PTR sys_mask = 0;
    THR_CHECK_WIN32("set the process' CPU affinity mask",
                    GetProcessAffinityMask(GetCurrentProcess(), &proc_mask, &sys_mask));
    return proc_mask;
}

void thr_set_thread_affinity_mask(uintptr_t affinity_mask)
{
    affinity_mask &= thr_get_cpu_affinity_mask();
    THR_CHECK(affinity_mask != 0);
    THR_CHECK_WIN32("set the thread's CPU affinity mask",
                    SetThreadAffinityMask(GetCurrentThread(), (DWORD_PTR)affinity_mask));
}

namespace
{

const DWORD THREAD_NAMING_EXCEPTION = 0x406D1388;

// The record by which a debugger is told a thread's name.
struct THREADNAME_INFO {
    DWORD dwType;
    LPCSTR szName;
    DWORD dwThreadID;
    DWORD dwFlags;
};

// One thread at a time raises the naming exception, so that the handler, which every thread's
// exceptions reach, can tell that thread's from another's.
struct RenameState {
    SRWLOCK lock;
    DWORD thread_id;
};

RenameState rename_state = {SRWLOCK_INIT, 0};

LONG CALLBACK continue_after_naming(EXCEPTION_POINTERS *exception)
{
    bool is_ours = exception->ExceptionRecord->ExceptionCode == THREAD_NAMING_EXCEPTION &&
                   rename_state.thread_id == GetCurrentThreadId();
    return is_ours ? EXCEPTION_CONTINUE_EXECUTION : EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

// The raise is guarded by a vectored handler, since not every compiler has structured exception
// blocks. Without the handler nothing may be raised: nobody would catch it.
void thr_rename_thread(const char *name)
{
    THREADNAME_INFO info = {0x1000, name, 0xFFFFFFFF, 0};
    AcquireSRWLockExclusive(&rename_state.lock);
    rename_state.thread_id = GetCurrentThreadId();
    if (void *handler = AddVectoredExceptionHandler(1, continue_after_naming)) {
        RaiseException(THREAD_NAMING_EXCEPTION, 0, sizeof info / sizeof(ULONG_PTR),
                       reinterpret_cast<const ULONG_PTR *>(&info));
        RemoveVectoredExceptionHandler(handler);
    }
    rename_state.thread_id = 0;
    ReleaseSRWLockExclusive(&rename_state.lock);
}

int thr_getpid()
{
    return _getpid();
}
