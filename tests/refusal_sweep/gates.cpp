#include "gates.h"

#include "support/heap.h"
#include "support/import_patch.h"

#include <cstdlib>
#include <cstring>
#include <new>

enum Answer {
    ZERO,
    MINUS_ONE,
    BAD_ALLOC, // throws it
    DONE,      // a release: does its work, and returns 0 all the same
    DONE_MINUS_ONE,
    NONE // never refused
};

// How functions refuse, and what each call that is let through adds to.
struct Rule {
    const char *functions; // names with blanks between
    Answer answer;
    DWORD error;
    LONG *count;
    LONG step;
};

// Never released: calls pass the gates until the process has gone.
std::vector<Gate> &gates = *new std::vector<Gate>;
Balance used;

namespace
{

const DWORD NO_MEMORY = ERROR_NOT_ENOUGH_MEMORY;

const Rule RULES[] = {
    {"AddVectoredExceptionHandler AssignProcessToJobObject ConnectNamedPipe CreateEventA "
     "CreateJobObjectA CreateMutexA CreatePipe CreateProcessA CreateThread DeleteFileW "
     "DisableThreadLibraryCalls DisconnectNamedPipe DuplicateHandle FindNextFileW FlushFileBuffers "
     "FormatMessageA GetComputerNameExA GetConsoleMode GetCurrentDirectoryW GetExitCodeProcess "
     "GetFullPathNameW GetModuleFileNameA GetModuleHandleA GetProcAddress GetProcessAffinityMask "
     "GetProcessId LoadLibraryA MoveFileW MultiByteToWideChar OpenJobObjectA OpenProcess "
     "PeekMessageA PeekNamedPipe PulseEvent QueryInformationJobObject ReadFile "
     "RegisterWindowMessageA RemoveDirectoryW ResetEvent SearchPathA SetCurrentDirectoryW "
     "SetDllDirectoryA SetEvent SetInformationJobObject SetPriorityClass SetThreadAffinityMask "
     "TerminateProcess TerminateThread TlsSetValue WaitNamedPipeA WideCharToMultiByte WriteFile",
     ZERO, NO_MEMORY, nullptr, 0},
    {"CreateFileA CreateFileW CreateNamedPipeA FindFirstFileW GetFileAttributesW GetMessageA "
     "GetStdHandle ResumeThread TlsAlloc WaitForSingleObject _fstat64 _open_osfhandle _putenv "
     "_time64 system",
     MINUS_ONE, NO_MEMORY, nullptr, 0},
    {"CloseHandle FindClose FreeLibrary ReleaseMutex RemoveVectoredExceptionHandler TlsFree", DONE,
     ERROR_INVALID_HANDLE, nullptr, 0},
    {"_close", DONE_MINUS_ONE, ERROR_INVALID_HANDLE, nullptr, 0},
    {"malloc calloc _strdup", ZERO, NO_MEMORY, &used.blocks, 1},
    {"_Znwy _ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE7reserveEy "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_appendEPKcy "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_assignERKS4_ "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_createERyy",
     BAD_ALLOC, NO_MEMORY, nullptr, 0},
    {"InitializeCriticalSection", NONE, 0, &used.sections, 1},
    {"DeleteCriticalSection", NONE, 0, &used.sections, -1},
    {"EnterCriticalSection", NONE, 0, &used.entered, 1},
    {"LeaveCriticalSection", NONE, 0, &used.entered, -1},

    // They have no failure, or none that a caller could act on.
    {"DebugBreak DispatchMessageA GetCurrentProcess GetCurrentProcessId GetCurrentThread "
     "GetCurrentThreadId GetLastError GetStartupInfoA GetTickCount LocalFree OutputDebugStringA "
     "PostQuitMessage RaiseException Sleep TranslateMessage _getpid free _ZdlPv _ZdlPvy "
     "_ZSt13set_terminatePFvvE _ZSt15set_new_handlerPFvvE "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE10_M_disposeEv "
     // Their null is an answer.
     "TlsGetValue TryEnterCriticalSection getenv "
     // They work on memory that they are given.
     "_vscprintf _vsnprintf _wcsnicmp iswalpha memcmp memcpy memmove memset strcmp strcpy strlen "
     "strncmp strrchr wcslen wsprintfA wsprintfW "
     // They speak to a reader: nobody else could be told of a refusal.
     "__iob_func fprintf fputc fwrite perror printf vfprintf "
     // They do not return.
     "ExitThread _wassert abort exit "
     // The runtime's own start-up code calls them.
     "VirtualProtect VirtualQuery _amsg_exit _initterm _lock _unlock realloc "
     // They throw, or carry what is thrown.
     "_Unwind_Resume __gxx_personality_seh0 __cxa_allocate_exception __cxa_begin_catch "
     "__cxa_end_catch __cxa_free_exception __cxa_guard_abort __cxa_guard_acquire "
     "__cxa_guard_release __cxa_rethrow __cxa_throw _ZNSt12length_errorC1EPKc "
     "_ZNSt12length_errorD1Ev _ZNSt9bad_allocD1Ev _ZSt19__throw_logic_errorPKc "
     "_ZSt20__throw_length_errorPKc _ZSt24__throw_out_of_range_fmtPKcz "
     // They are data.
     "_ZTVN10__cxxabiv117__class_type_infoE _ZTVN10__cxxabiv120__si_class_type_infoE "
     "_ZTVSt9bad_alloc _ZTVSt9exception",
     NONE, 0, nullptr, 0},
};
const Rule RUNTIME_ALLOCATION = {"", NONE, 0, &used.blocks, 1};

struct Plan {
    Gate *gate;
    LONG nth;
    bool onwards;
    volatile LONG refused;
    volatile LONG later;
};
Plan plan;

intptr_t zero()
{
    return 0;
}
intptr_t minus_one()
{
    return -1;
}
void bad_alloc()
{
    throw std::bad_alloc();
}
intptr_t done(void *argument)
{
    reinterpret_cast<intptr_t (*)(void *)>(plan.gate->target)(argument);
    SetLastError(plan.gate->rule->error);
    return plan.gate->rule->answer == DONE ? 0 : -1;
}

void counted_free(void *block)
{
    if (block)
        InterlockedDecrement(&used.blocks);
    support::checked_free(block);
}

BOOL WINAPI counted_try_enter(CRITICAL_SECTION *section)
{
    BOOL is_entered = TryEnterCriticalSection(section);
    InterlockedExchangeAdd(&used.entered, is_entered != 0);
    return is_entered;
}

// Where the call that stands at the gate goes. It leaves the last error alone unless it refuses.
void *way(Gate *gate)
{
    LONG call = InterlockedIncrement(&gate->calls);
    bool is_refused = gate == plan.gate && (plan.onwards ? call >= plan.nth : call == plan.nth);
    if (gate == plan.gate && call > plan.nth)
        InterlockedIncrement(&plan.later);
    if (!is_refused) {
        if (gate->rule->count)
            InterlockedExchangeAdd(gate->rule->count, gate->rule->step);
        return gate->target;
    }
    InterlockedIncrement(&plan.refused);
    SetLastError(gate->rule->error);
    switch (gate->rule->answer) {
    case ZERO:
        return reinterpret_cast<void *>(zero);
    case MINUS_ONE:
        return reinterpret_cast<void *>(minus_one);
    case BAD_ALLOC:
        return reinterpret_cast<void *>(bad_alloc);
    default:
        return reinterpret_cast<void *>(done);
    }
}

// The code of a gate, for a function of any arguments: it saves those that are in registers, asks
// way() and jumps there, so that the call is as if it had been made to that function.
void *make_thunk(Gate *gate)
{
    unsigned char code[] = {0x51, 0x52, 0x41, 0x50, 0x41, 0x51, // push rcx, rdx, r8, r9
                            0x48, 0x83, 0xec, 0x28, // sub rsp, 40: the callee's space, aligned
                            0x48, 0xb9, 0,    0,    0,    0,    0, 0, 0, 0, // mov rcx, gate
                            0x48, 0xb8, 0,    0,    0,    0,    0, 0, 0, 0, // mov rax, way
                            0xff, 0xd0, 0x48, 0x83, 0xc4, 0x28,             // call rax; add rsp, 40
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

const Rule *rule_of(const std::string &name)
{
    for (const Rule &rule : RULES) {
        if (has_name(rule.functions, name))
            return &rule;
    }
    return nullptr;
}

// For the life of the process.
template <class T> void replace(const std::string &function, T *replacement, HMODULE module)
{
    new support::ImportPatch(function.c_str(), reinterpret_cast<void (*)()>(replacement), module);
}

} // namespace

Gate &gate_of(const std::string &name)
{
    size_t i = 0;
    while (gates.at(i).name != name)
        ++i;
    return gates[i];
}

bool has_name(const char *names, const std::string &name)
{
    return (std::string(" ") + names + " ").find(" " + name + " ") != std::string::npos;
}

std::vector<std::string> install_gates()
{
    HMODULE library = support::thr_module();
    HMODULE runtime = GetModuleHandleA("libstdc++-6.dll");
    std::vector<std::string> unknown;
    std::vector<support::Import> imports = support::imports_of(library);
    gates.reserve(imports.size()); // they stay where they are
    for (const support::Import &import : imports) {
        const Rule *rule = rule_of(import.function);
        if (!rule)
            unknown.push_back(import.function);
        if (!rule || (rule->answer == NONE && !rule->count))
            continue;
        Gate gate = {import.function, rule, *import.slot, 0};
        if (rule->answer != NONE)
            gates.push_back(gate);
        replace(gate.name, make_thunk(rule->answer == NONE ? new Gate(gate) : &gates.back()),
                library);
    }
    replace("TryEnterCriticalSection", counted_try_enter, library);
    replace("free", counted_free, library);
    replace("free", counted_free, runtime);
    for (const support::Import &import : support::imports_of(runtime)) {
        if (has_name("malloc calloc", import.function))
            replace(import.function,
                    make_thunk(new Gate{import.function, &RUNTIME_ALLOCATION, *import.slot, 0}),
                    runtime);
    }
    return unknown;
}

void refuse(Gate *gate, LONG nth, bool onwards)
{
    plan = {gate, nth, onwards, 0, 0};
    for (Gate &each : gates)
        each.calls = 0;
}

LONG refused_calls()
{
    return plan.refused;
}

bool was_called_again()
{
    return plan.later != 0;
}
