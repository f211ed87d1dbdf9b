#include "thr/thr_thread.h"

#include "thr/thr.h"
#include "thr/thr_report.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include <process.h>

#include <windows.h>

// --- lifecycle ----------------------------------------------------------------------------------

// Two have to be done with a record before it is released: the thread, when its function has
// finished, and the owner of the id. The two flags, under the mutex, tell the second that it is so.
struct THR_THREAD_RECORD {
    THR_THREAD_FUNC m_thread_func;
    void *m_thread_arg;
    void *m_exit_value;
    THR_MUTEX m_mutex;
    std::atomic<int> m_is_finished; // also read alone, without the mutex
    std::atomic<int> m_is_detached;
    HANDLE m_thread_handle; // null when the thread could not be started

    // A thread may detach itself before its creator has stored the handle, who then does it.
    enum Stage { CREATING, CREATED, GIVEN_UP };
    std::atomic<Stage> m_stage;
    std::atomic<DWORD> m_os_id; // stored by the thread; not used again while its handle is open
};

THR_THREAD_ID THR_THREAD_MAIN_ID = nullptr;

namespace
{

void *thr_thread_call_func(THR_THREAD_FUNC func, void *arg)
{
    return func(arg);
}

struct ThreadState {
    THR_THREAD_VAR m_self_var; // TLS_OUT_OF_INDEXES: not set up
    THR_THREAD_WRAPPER m_chain_head;
    THR_THREAD_WRAPPER *m_chain_tail;
};

ThreadState state = {TLS_OUT_OF_INDEXES, thr_thread_call_func, &state.m_chain_head};

// Null when there is no memory.
THR_THREAD_ID new_record()
{
    void *block = malloc(sizeof(THR_THREAD_RECORD));
    return block ? new (block) THR_THREAD_RECORD() : nullptr;
}

void release(THR_THREAD_ID record)
{
    thr_mutex_destroy(record->m_mutex);
    SecureZeroMemory(static_cast<void *>(record), sizeof *record);
    free(record);
}

// The thread's side: its function is done, and with it the thread's use of its id.
void finish(THR_THREAD_ID info)
{
    thr_mutex_lock(info->m_mutex);
    thr_thread_var_set(&state.m_self_var, nullptr);
    int is_detached = info->m_is_detached;
    info->m_is_finished = 1;
    thr_mutex_unlock(info->m_mutex);
    if (is_detached)
        release(info);
}

// The owner's side, with the record's mutex locked: nobody uses the id any more.
void give_up_locked(THR_THREAD_ID thread_id)
{
    int is_finished = thread_id->m_is_finished;
    thread_id->m_is_detached = 1;
    thr_mutex_unlock(thread_id->m_mutex);
    if (is_finished)
        release(thread_id);
}

void give_up(THR_THREAD_ID thread_id)
{
    thr_mutex_lock(thread_id->m_mutex);
    give_up_locked(thread_id);
}

// A thread can hand its id on before its creator has stored the handle.
void wait_for_creator(THR_THREAD_ID thread_id)
{
    while (thread_id->m_stage == THR_THREAD_RECORD::CREATING)
        Sleep(1);
}

DWORD WINAPI thr_thread_begin(void *argument)
{
    THR_THREAD_ID info = static_cast<THR_THREAD_ID>(argument);
    THR_CHECK(info != 0);
    info->m_os_id = GetCurrentThreadId();
    THR_CHECK(thr_thread_var_set(&state.m_self_var, info) == 0);
    info->m_exit_value = state.m_chain_head(info->m_thread_func, info->m_thread_arg);
    finish(info);
    return 0;
}

} // namespace

THR_THREAD_ID thr_thread_create(THR_THREAD_FUNC func, void *arg, uint32_t stack_size)
{
    THR_CHECK(func);
    THR_THREAD_ID info = new_record();
    THR_CHECK_AS(info, "info");
    info->m_thread_func = func;
    info->m_thread_arg = arg;
    info->m_mutex = thr_mutex_create();
    info->m_thread_handle = THR_CHECK_HANDLE(
        "create a thread", CreateThread(0, stack_size, thr_thread_begin, info, 0, 0));
    if (!info->m_thread_handle)
        info->m_is_finished = 1; // it will never run
    if (info->m_stage.exchange(THR_THREAD_RECORD::CREATED) == THR_THREAD_RECORD::GIVEN_UP)
        thr_thread_detach(info);
    return info; // NOLINT(clang-analyzer-unix.Malloc): a value that may be as old as the thread is
}

void *thr_thread_wait(THR_THREAD_ID thread_id)
{
    THR_CHECK(thread_id);
    // also of a thread whose function is done, in a destructor
    THR_CHECK_AS(thread_id->m_os_id != GetCurrentThreadId(), "thread_id != thr_thread_self()");
    wait_for_creator(thread_id);
    DWORD waited = WaitForSingleObject(thread_id->m_thread_handle, INFINITE);
    THR_CHECK_WIN32_AS("shut down a thread", waited == WAIT_OBJECT_0,
                       "WaitForSingleObject(thread_id->m_thread_handle, INFINITE)==WAIT_OBJECT_0");
    THR_CHECK_WIN32("shut down a thread", CloseHandle(thread_id->m_thread_handle));
    if (waited != WAIT_OBJECT_0) {
        // The thread may still run, and then needs its record.
        thr_mutex_lock(thread_id->m_mutex);
        void *value = thread_id->m_is_finished ? thread_id->m_exit_value : nullptr;
        give_up_locked(thread_id);
        return value;
    }
    void *exit_value = thread_id->m_exit_value;
    release(thread_id);
    return exit_value;
}

void thr_thread_detach(THR_THREAD_ID thread_id)
{
    THR_CHECK(thread_id);
    if (thread_id->m_stage.exchange(THR_THREAD_RECORD::GIVEN_UP) == THR_THREAD_RECORD::CREATING)
        return;
    THR_CHECK_WIN32("detach a thread", CloseHandle(thread_id->m_thread_handle));
    give_up(thread_id);
}

void thr_thread_terminate_and_possibly_crash(THR_THREAD_ID thread_id)
{
    THR_CHECK(thread_id);
    wait_for_creator(thread_id);
    BOOL result = TerminateThread(thread_id->m_thread_handle, 0);
    THR_CHECK_WIN32_AS("terminate a thread", result,
                       "TerminateThread(thread_id->m_thread_handle, 0)");
    THR_CHECK_WIN32("terminate a thread", CloseHandle(thread_id->m_thread_handle));
    if (!result)
        give_up(thread_id);
    else if (thr_mutex_try_lock(thread_id->m_mutex))
        give_up_locked(thread_id);
    // else the thread was stopped in its last step and holds the mutex for good; its record stays
    // allocated, as that of any thread stopped before its end
}

void thr_thread_exit(void *exit_value)
{
    THR_THREAD_ID info = thr_thread_self();
    THR_CHECK(info != 0);
    info->m_exit_value = exit_value;
    finish(info);
    ExitThread(0);
}

int thr_thread_is_running(THR_THREAD_ID thread_id)
{
    THR_CHECK(thread_id);
    return thread_id->m_is_finished == 0;
}

THR_THREAD_ID thr_thread_self()
{
    if (state.m_self_var == TLS_OUT_OF_INDEXES)
        return nullptr;
    return static_cast<THR_THREAD_ID>(thr_thread_var_get(&state.m_self_var));
}

void thr_thread_set_next_wrapper_func(THR_THREAD_WRAPPER wrapper_func,
                                      THR_THREAD_WRAPPER *next_wrapper_func_ptr)
{
    THR_CHECK(wrapper_func);
    THR_CHECK(next_wrapper_func_ptr);
    THR_CHECK(*next_wrapper_func_ptr == 0);
    *next_wrapper_func_ptr = thr_thread_call_func;
    // Linked last, when it is whole: other threads may be running the chain.
    InterlockedExchangePointer(reinterpret_cast<void *volatile *>(state.m_chain_tail),
                               reinterpret_cast<void *>(wrapper_func));
    state.m_chain_tail = next_wrapper_func_ptr;
}

void *thr_thread_wrapper(THR_THREAD_FUNC func, void *arg)
{
    THR_CHECK(func);
    return state.m_chain_head(func, arg);
}

void thr_thread_set_stack_size(uint32_t) {}

bool thr_thread_init_main()
{
    THR_THREAD_MAIN_ID = new_record();
    THR_CHECK(THR_THREAD_MAIN_ID);
    THR_THREAD_MAIN_ID->m_stage = THR_THREAD_RECORD::CREATED;
    THR_THREAD_MAIN_ID->m_os_id = GetCurrentThreadId();
    thr_thread_var_init(&state.m_self_var);
    return thr_thread_var_set(&state.m_self_var, THR_THREAD_MAIN_ID) == 0;
}

void thr_thread_fini_main()
{
    thr_thread_var_destroy(&state.m_self_var);
    state.m_self_var = TLS_OUT_OF_INDEXES;
    free(THR_THREAD_MAIN_ID);
    THR_THREAD_MAIN_ID = nullptr;
}

// --- thread variables ---------------------------------------------------------------------------

static_assert(sizeof(THR_THREAD_VAR) == sizeof(DWORD), "a thread variable is an OS slot index");

int thr_thread_var_init(THR_THREAD_VAR *var)
{
    THR_CHECK(var);
    *var = TlsAlloc();
    if (*var != TLS_OUT_OF_INDEXES)
        return 0;
    DWORD code = GetLastError();
    if (code != 0)
        thr_debug_message("thr_thread_var_init() failed with error code %d",
                          static_cast<int>(code));
    return static_cast<int>(code);
}

int thr_thread_var_destroy(THR_THREAD_VAR *var)
{
    THR_CHECK(var);
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

} // namespace

// The raise is guarded by a block whose filter answers every exception with going on, whether or
// not a debugger took the name. GCC has no such blocks, but names a frame handler. The instruction
// behind the raise keeps its return address inside the guarded function's body.
#ifdef _MSC_VER

static void raise_naming(const THREADNAME_INFO &info)
{
    __try {
        RaiseException(THREAD_NAMING_EXCEPTION, 0, sizeof info / sizeof(ULONG_PTR),
                       reinterpret_cast<const ULONG_PTR *>(&info));
    } __except (EXCEPTION_CONTINUE_EXECUTION) {
    }
}

#else

extern "C" {

__attribute__((used)) static EXCEPTION_DISPOSITION thr_continue_naming(EXCEPTION_RECORD *, void *,
                                                                       CONTEXT *, void *)
{
    return ExceptionContinueExecution;
}
}

__attribute__((noinline)) static void raise_naming(const THREADNAME_INFO &info)
{
    RaiseException(THREAD_NAMING_EXCEPTION, 0, sizeof info / sizeof(ULONG_PTR),
                   reinterpret_cast<const ULONG_PTR *>(&info));
    __asm__ __volatile__(".seh_handler thr_continue_naming, @except\n\tnop");
}

#endif

void thr_rename_thread(const char *name)
{
    THREADNAME_INFO info;
    memset(&info, 0, sizeof info); // the gaps between its fields, too
    info.dwType = 0x1000;
    info.szName = name;
    info.dwThreadID = 0xFFFFFFFF;
    raise_naming(info);
}

int thr_getpid()
{
    return _getpid();
}
