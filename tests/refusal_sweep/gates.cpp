#include "gates.h"

#include "support/heap.h"
#include "support/import_patch.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include <cxxabi.h>

// How functions refuse.
struct Rule {
    const char *functions; // names with blanks between
    void *refusal;         // where their refused calls go
    DWORD error;
};

// Never released: calls pass the gates until the process has gone.
std::vector<Gate> &gates = *new std::vector<Gate>;
Balance used;
Refusal refusal;

namespace
{

const DWORD NO_MEMORY = ERROR_NOT_ENOUGH_MEMORY;

template <intptr_t ANSWER> intptr_t answer()
{
    return ANSWER;
}
void bad_alloc()
{
    throw std::bad_alloc();
}
// A release: it does its work all the same.
template <intptr_t ANSWER> intptr_t done(void *argument)
{
    reinterpret_cast<intptr_t (*)(void *)>(refusal.gate->target)(argument);
    SetLastError(refusal.gate->rule->error);
    return ANSWER;
}
template <class F> void *to(F *function)
{
    return reinterpret_cast<void *>(function);
}

const Rule RULES[] = {
    {"AssignProcessToJobObject ConnectNamedPipe CreateEventA CreateJobObjectA CreateMutexA "
     "CreatePipe CreateProcessA CreateThread DeleteFileW DisconnectNamedPipe DuplicateHandle "
     "FindNextFileW FlushFileBuffers FormatMessageA GetComputerNameExA GetConsoleMode "
     "GetCurrentDirectoryW GetEnvironmentVariableW GetExitCodeProcess GetFullPathNameW "
     "GetModuleFileNameA GetModuleHandleA GetProcAddress GetProcessAffinityMask GetProcessId "
     "LoadLibraryA MoveFileW MultiByteToWideChar OpenJobObjectA OpenProcess PeekMessageA "
     "PeekNamedPipe PulseEvent QueryInformationJobObject ReadFile RegisterWindowMessageA "
     "RemoveDirectoryW ResetEvent SearchPathA SetCurrentDirectoryW SetDllDirectoryA SetEvent "
     "SetInformationJobObject SetPriorityClass SetThreadAffinityMask TerminateProcess "
     "TerminateThread TlsSetValue WaitNamedPipeA WideCharToMultiByte WriteFile _strdup calloc "
     "malloc",
     to(answer<0>), NO_MEMORY},
    {"CreateFileA CreateFileW CreateNamedPipeA FindFirstFileW GetFileAttributesW GetStdHandle "
     "ResumeThread TlsAlloc WaitForSingleObject _fstat64 _open_osfhandle _putenv _time64 _wputenv "
     "system",
     to(answer<-1>), NO_MEMORY},
    {"CloseHandle FindClose FreeLibrary ReleaseMutex TlsFree", to(done<0>), ERROR_INVALID_HANDLE},
    {"_close", to(done<-1>), ERROR_INVALID_HANDLE},
    {"_Znwy _ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE7reserveEy "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_appendEPKcy "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_assignERKS4_ "
     "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE9_M_createERyy",
     to(bad_alloc), NO_MEMORY},
};

template <class T> T taken(T result, LONG &count, T failure = T())
{
    if (result != failure)
        InterlockedIncrement(&count);
    return result;
}

intptr_t let_go(bool has_gone, LONG &count)
{
    InterlockedExchangeAdd(&count, -LONG(has_gone));
    return has_gone;
}

// What takes or releases something that is counted.
struct Counted {
    template <class F>
    Counted(const char *import, F function) : name(import), replacement(to(+function))
    {
    }
    const char *name;
    void *replacement;
};
const Counted COUNTED[] = {
    {"malloc", [](size_t size) { return taken(malloc(size), used.blocks); }},
    {"calloc", [](size_t n, size_t size) { return taken(calloc(n, size), used.blocks); }},
    {"_strdup", [](const char *text) { return taken(_strdup(text), used.blocks); }},
    {"free", [](void *block) { support::checked_free(block), let_go(block, used.blocks); }},
    {"InitializeCriticalSection",
     [](CRITICAL_SECTION *it) { InitializeCriticalSection(it), taken(1, used.sections); }},
    {"DeleteCriticalSection",
     [](CRITICAL_SECTION *it) { DeleteCriticalSection(it), let_go(true, used.sections); }},
    {"EnterCriticalSection",
     [](CRITICAL_SECTION *it) { EnterCriticalSection(it), taken(1, used.entered); }},
    {"TryEnterCriticalSection",
     [](CRITICAL_SECTION *it) { return taken(TryEnterCriticalSection(it), used.entered); }},
    {"LeaveCriticalSection",
     [](CRITICAL_SECTION *it) { LeaveCriticalSection(it), let_go(true, used.entered); }},
    {"FormatMessageA",
     [](DWORD flags, void *source, DWORD id, DWORD language, char *text, DWORD size,
        va_list *args) {
         DWORD length = FormatMessageA(flags, source, id, language, text, size, args);
         return flags & FORMAT_MESSAGE_ALLOCATE_BUFFER ? taken(length, used.texts) : length;
     }},
    {"LocalFree", [](void *text) { return LocalFree(text), let_go(text, used.texts); }},
    {"TlsAlloc", [] { return taken(TlsAlloc(), used.slots, TLS_OUT_OF_INDEXES); }},
    {"TlsFree", [](DWORD slot) { return let_go(TlsFree(slot), used.slots); }},
    {"LoadLibraryA", [](const char *name) { return taken(LoadLibraryA(name), used.libraries); }},
    {"FreeLibrary", [](HMODULE it) { return let_go(FreeLibrary(it), used.libraries); }},
    {"FindFirstFileW",
     [](const wchar_t *path, WIN32_FIND_DATAW *entry) {
         return taken(FindFirstFileW(path, entry), used.searches, INVALID_HANDLE_VALUE);
     }},
    {"FindClose", [](HANDLE search) { return let_go(FindClose(search), used.searches); }},
};

// What of the library this program's first thread called last.
const char *volatile operation;
const DWORD first_thread = GetCurrentThreadId();

// Where the call that stands at the gate goes. It leaves the last error alone unless it refuses.
void *way(Gate *gate)
{
    LONG call = InterlockedIncrement(&gate->calls);
    if (gate != refusal.gate || call < refusal.nth)
        return gate->target;
    if (call > refusal.nth)
        refusal.has_later = true;
    if (call > refusal.nth && !refusal.onwards)
        return gate->target;
    if (call == refusal.nth)
        refusal.operation = GetCurrentThreadId() == first_thread ? operation : "a thread";
    SetLastError(gate->rule->error);
    return gate->rule->refusal;
}

void *way_in(Gate *gate)
{
    if (GetCurrentThreadId() == first_thread)
        operation = gate->name.c_str();
    return gate->target;
}

// The code of a gate, for a function of any arguments: it saves those that are in registers, asks
// for the way and jumps there, so that the call is as if it had been made to that function.
void *make_thunk(Gate *gate, void *(*function)(Gate *))
{
    unsigned char code[] = {0x51, 0x52, 0x41, 0x50, 0x41, 0x51, // push rcx, rdx, r8, r9
                            0x48, 0x83, 0xec, 0x28, // sub rsp, 40: the callee's space, aligned
                            0x48, 0xb9, 0,    0,    0,    0,    0, 0, 0, 0, // mov rcx, gate
                            0x48, 0xb8, 0,    0,    0,    0,    0, 0, 0, 0, // mov rax, way
                            0xff, 0xd0, 0x48, 0x83, 0xc4, 0x28,             // call rax; add rsp, 40
                            0x41, 0x59, 0x41, 0x58, 0x5a, 0x59,             // pop r9, r8, rdx, rcx
                            0xff, 0xe0};                                    // jmp rax
    memcpy(code + 12, &gate, sizeof gate);
    memcpy(code + 22, &function, sizeof function);
    static auto *room = static_cast<unsigned char *>(
        VirtualAlloc(nullptr, 65536, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    void *thunk = memcpy(room, code, sizeof code);
    room += sizeof code;
    return thunk;
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

void install_gates()
{
    HMODULE library = support::thr_module();
    for (HMODULE module : {library, GetModuleHandleA("libstdc++-6.dll")}) {
        for (const support::Import &import : support::imports_of(module)) {
            for (const Counted &counted : COUNTED) {
                if (import.function == counted.name)
                    replace(import.function, counted.replacement, module);
            }
        }
    }
    std::vector<support::Import> imports = support::imports_of(library);
    gates.reserve(imports.size()); // they stay where they are
    for (const support::Import &import : imports) {
        for (const Rule &rule : RULES) {
            if (!has_name(rule.functions, import.function))
                continue;
            gates.push_back({import.function, &rule, *import.slot, 0});
            replace(import.function, make_thunk(&gates.back(), way), library);
        }
    }
}

std::vector<std::string> watch_operations()
{
    std::vector<std::string> names;
    for (const support::Import &import : support::imports_of(GetModuleHandleA(nullptr))) {
        MEMORY_BASIC_INFORMATION memory = {};
        VirtualQuery(*import.slot, &memory, sizeof memory);
        if (import.dll != "thr.dll" || !(memory.Protect & 0xf0))
            continue; // another library's, or data
        names.push_back(import.function);
        int status;
        const char *plain = abi::__cxa_demangle(import.function.c_str(), nullptr, nullptr, &status);
        std::string name = plain ? plain : import.function;
        auto *gate = new Gate{name.substr(0, name.find('(')), nullptr, *import.slot, 0};
        replace(import.function, make_thunk(gate, way_in), GetModuleHandleA(nullptr));
    }
    return names;
}

void refuse(Gate *gate, LONG nth, bool onwards)
{
    refusal = {gate, nth, onwards, false, nullptr};
    operation = "attach or detach"; // until this program calls
    for (Gate &each : gates)
        each.calls = 0;
}
