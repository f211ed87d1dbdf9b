#include "sweep.h"

#include "support/import_patch.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>

namespace sweep
{

std::vector<Gate> gates;

namespace
{

const Refusal REFUSALS[] = {
    {"AddVectoredExceptionHandler AssignProcessToJobObject ConnectNamedPipe CreateEventA "
     "CreateJobObjectA CreateMutexA CreatePipe CreateProcessA CreateThread DeleteFileW "
     "DisableThreadLibraryCalls "
     "DisconnectNamedPipe DuplicateHandle FindNextFileW FlushFileBuffers FormatMessageA "
     "GetComputerNameExA GetConsoleMode "
     "GetCurrentDirectoryW GetExitCodeProcess GetFullPathNameW GetModuleFileNameA GetModuleHandleA "
     "GetProcAddress "
     "GetProcessAffinityMask GetProcessId LoadLibraryA MoveFileW MultiByteToWideChar "
     "OpenJobObjectA OpenProcess PeekMessageA "
     "PeekNamedPipe PulseEvent QueryInformationJobObject ReadFile RegisterWindowMessageA "
     "RemoveDirectoryW ResetEvent "
     "SearchPathA SetCurrentDirectoryW SetDllDirectoryA SetEvent SetInformationJobObject "
     "SetPriorityClass SetThreadAffinityMask "
     "TerminateProcess TerminateThread TlsSetValue WaitNamedPipeA WideCharToMultiByte WriteFile "
     "calloc malloc _strdup",
     Refusal::ZERO, ERROR_NOT_ENOUGH_MEMORY},
    {"CreateFileA CreateFileW CreateNamedPipeA FindFirstFileW GetFileAttributesW GetMessageA "
     "GetStdHandle "
     "ResumeThread TlsAlloc WaitForSingleObject _fstat64 _open_osfhandle _putenv _time64 system",
     Refusal::MINUS_ONE, ERROR_NOT_ENOUGH_MEMORY},
    {"CloseHandle FindClose FreeLibrary ReleaseMutex RemoveVectoredExceptionHandler TlsFree _close",
     Refusal::DONE, ERROR_INVALID_HANDLE},
    {"_Znwy _ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE7reserveEy "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_appendEPKcy "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_assignERKS4_ "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_createERyy",
     Refusal::BAD_ALLOC, ERROR_NOT_ENOUGH_MEMORY},
};

// Imports that are not refused.
struct Excuse {
    const char *functions;
    const char *reason;
};
const Excuse EXCUSES[] = {
    {"DebugBreak DeleteCriticalSection DispatchMessageA EnterCriticalSection GetCurrentProcess "
     "GetCurrentProcessId GetCurrentThread GetCurrentThreadId GetLastError GetStartupInfoA "
     "GetTickCount InitializeCriticalSection LeaveCriticalSection LocalFree OutputDebugStringA "
     "PostQuitMessage RaiseException Sleep TranslateMessage _getpid free",
     "has no failure that matters to a caller"},
    {"TlsGetValue TryEnterCriticalSection getenv", "its null is an answer, not a failure"},
    {"_vscprintf _vsnprintf _wcsnicmp iswalpha memcmp memcpy memmove memset strcmp strcpy strlen "
     "strncmp strrchr wcslen wsprintfA wsprintfW",
     "works on memory that it is given"},
    {"__iob_func fprintf fputc fwrite perror printf vfprintf",
     "speaks to a reader: when it is refused nobody can be told"},
    {"ExitThread _wassert abort exit", "does not return"},
    {"VirtualProtect VirtualQuery _amsg_exit _initterm _lock _unlock realloc",
     "is called by the runtime's own start-up code"},
    {"_Unwind_Resume __gxx_personality_seh0 __cxa_allocate_exception __cxa_begin_catch "
     "__cxa_end_catch __cxa_free_exception __cxa_guard_abort __cxa_guard_acquire "
     "__cxa_guard_release __cxa_rethrow __cxa_throw _ZNSt12length_errorC1EPKc "
     "_ZNSt12length_errorD1Ev _ZNSt9bad_allocD1Ev _ZSt19__throw_logic_errorPKc "
     "_ZSt20__throw_length_errorPKc _ZSt24__throw_out_of_range_fmtPKcz",
     "throws, or carries what is thrown"},
    {"_ZSt13set_terminatePFvvE _ZSt15set_new_handlerPFvvE _ZdlPv _ZdlPvy "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE10_M_disposeEv "
     "_ZTVN10__cxxabiv117__class_type_infoE _ZTVN10__cxxabiv120__si_class_type_infoE "
     "_ZTVSt9bad_alloc",
     "is data of the C++ runtime, or has no failure"},
};

// --- counted functions --------------------------------------------------------------------------

Balance used;
template <class T> T *counted(T *made, LONG &count)
{
    if (made)
        InterlockedIncrement(&count);
    return made;
}
void *counted_malloc(size_t size)
{
    return counted(malloc(size), used.blocks);
}
void *counted_calloc(size_t count, size_t size)
{
    return counted(calloc(count, size), used.blocks);
}
void *counted_realloc(void *block, size_t size)
{
    void *made = realloc(block, size);
    return block ? made : counted(made, used.blocks);
}
char *counted_strdup(const char *text)
{
    return counted(_strdup(text), used.blocks);
}
void counted_free(void *block)
{
    if (block)
        InterlockedDecrement(&used.blocks);
    free(block);
}
void WINAPI counted_initialize(CRITICAL_SECTION *section)
{
    InterlockedIncrement(&used.sections);
    InitializeCriticalSection(section);
}
void WINAPI counted_delete(CRITICAL_SECTION *section)
{
    InterlockedDecrement(&used.sections);
    DeleteCriticalSection(section);
}
void WINAPI counted_enter(CRITICAL_SECTION *section)
{
    EnterCriticalSection(section);
    InterlockedIncrement(&used.entered);
}
BOOL WINAPI counted_try_enter(CRITICAL_SECTION *section)
{
    BOOL is_entered = TryEnterCriticalSection(section);
    if (is_entered)
        InterlockedIncrement(&used.entered);
    return is_entered;
}
void WINAPI counted_leave(CRITICAL_SECTION *section)
{
    InterlockedDecrement(&used.entered);
    LeaveCriticalSection(section);
}

void *counted_function(const std::string &name)
{
    const std::pair<const char *, void *> functions[] = {
        {"malloc", reinterpret_cast<void *>(counted_malloc)},
        {"calloc", reinterpret_cast<void *>(counted_calloc)},
        {"realloc", reinterpret_cast<void *>(counted_realloc)},
        {"_strdup", reinterpret_cast<void *>(counted_strdup)},
        {"free", reinterpret_cast<void *>(counted_free)},
        {"InitializeCriticalSection", reinterpret_cast<void *>(counted_initialize)},
        {"DeleteCriticalSection", reinterpret_cast<void *>(counted_delete)},
        {"EnterCriticalSection", reinterpret_cast<void *>(counted_enter)},
        {"TryEnterCriticalSection", reinterpret_cast<void *>(counted_try_enter)},
        {"LeaveCriticalSection", reinterpret_cast<void *>(counted_leave)},
    };
    for (auto &[known, function] : functions) {
        if (name == known)
            return function;
    }
    return nullptr;
}

// --- gates --------------------------------------------------------------------------------------

struct Plan {
    Gate *gate;
    LONG nth;
    bool onwards;
    volatile LONG refused;
    volatile LONG later;
};
Plan plan;

intptr_t refused_with_zero()
{
    return 0;
}
intptr_t refused_with_minus_one()
{
    return -1;
}
void refused_with_bad_alloc()
{
    throw std::bad_alloc();
}
intptr_t done_and_refused(void *argument)
{
    reinterpret_cast<intptr_t (*)(void *)>(plan.gate->target)(argument);
    SetLastError(plan.gate->refusal->error);
    return 0;
}

// Where the call that stands at the gate goes. Leaves the last error alone unless it refuses.
void *way(Gate *gate)
{
    LONG call = InterlockedIncrement(&gate->calls);
    if (gate != plan.gate || call < plan.nth)
        return gate->target;
    if (call > plan.nth) {
        InterlockedIncrement(&plan.later);
        if (!plan.onwards)
            return gate->target;
    }
    InterlockedIncrement(&plan.refused);
    SetLastError(gate->refusal->error);
    switch (gate->refusal->answer) {
    case Refusal::ZERO:
        return reinterpret_cast<void *>(refused_with_zero);
    case Refusal::MINUS_ONE:
        return reinterpret_cast<void *>(refused_with_minus_one);
    case Refusal::BAD_ALLOC:
        return reinterpret_cast<void *>(refused_with_bad_alloc);
    default:
        return reinterpret_cast<void *>(done_and_refused);
    }
}

// The code of a gate, for a function of any arguments: it saves those in registers, asks way() and
// jumps there, so that the call goes on as if it had been made to that function.
void *make_thunk(Gate *gate)
{
    unsigned char code[] = {0x51, 0x52, 0x41, 0x50, 0x41, 0x51, // push rcx, rdx, r8, r9
                            0x48, 0x83, 0xec, 0x28, // sub rsp, 40: the callee's space, aligned
                            0x48, 0xb9, 0,    0,    0,    0,    0, 0, 0, 0, // mov rcx, gate
                            0x48, 0xb8, 0,    0,    0,    0,    0, 0, 0, 0, // mov rax, way
                            0xff, 0xd0,                                     // call rax
                            0x48, 0x83, 0xc4, 0x28,                         // add rsp, 40
                            0x41, 0x59, 0x41, 0x58, 0x5a, 0x59,             // pop r9, r8, rdx, rcx
                            0xff, 0xe0};                                    // jmp rax
    void *(*function)(Gate *) = way;
    memcpy(code + 12, &gate, sizeof gate);
    memcpy(code + 22, &function, sizeof function);
    static unsigned char *room = static_cast<unsigned char *>(
        VirtualAlloc(nullptr, 65536, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    void *thunk = memcpy(room, code, sizeof code);
    room += sizeof code;
    return thunk;
}

const Refusal *refusal_of(const std::string &name)
{
    for (const Refusal &refusal : REFUSALS) {
        if (has_name(refusal.functions, name))
            return &refusal;
    }
    return nullptr;
}

bool is_excused(const std::string &name)
{
    for (const Excuse &excuse : EXCUSES) {
        if (has_name(excuse.functions, name))
            return true;
    }
    return false;
}

// For the life of the process.
void replace(const std::string &function, void *replacement, HMODULE module)
{
    new support::ImportPatch(function.c_str(), reinterpret_cast<void (*)()>(replacement), module);
}

} // namespace

bool has_name(const char *names, const std::string &name)
{
    return (std::string(" ") + names + " ").find(" " + name + " ") != std::string::npos;
}

std::vector<std::string> install_gates()
{
    std::vector<std::string> unknown;
    std::vector<support::Import> imports = support::imports_of(support::thr_module());
    gates.reserve(imports.size()); // the gates stay where they are
    for (const support::Import &import : imports) {
        void *counted = counted_function(import.function);
        if (const Refusal *refusal = refusal_of(import.function)) {
            gates.push_back({import.function, refusal, counted ? counted : *import.slot, 0});
            replace(import.function, make_thunk(&gates.back()), support::thr_module());
        } else if (counted) {
            replace(import.function, counted, support::thr_module());
        }
        if (!refusal_of(import.function) && !is_excused(import.function))
            unknown.push_back(import.function);
    }
    replace("exit", reinterpret_cast<void *>(end_of_process), support::thr_module());
    replace("_wassert", reinterpret_cast<void *>(end_by_assertion), support::thr_module());
    HMODULE runtime = GetModuleHandleA("libstdc++-6.dll");
    for (const char *function : {"malloc", "calloc", "realloc", "free"})
        replace(function, counted_function(function), runtime);
    return unknown;
}

void start_run(Gate *gate, LONG nth, bool onwards)
{
    plan = {gate, nth, onwards, 0, 0};
    for (Gate &each : gates)
        each.calls = 0;
    run = {};
}

LONG refused_calls()
{
    return plan.refused;
}

bool was_called_again()
{
    return plan.later != 0;
}

Balance balance()
{
    return used;
}

} // namespace sweep
