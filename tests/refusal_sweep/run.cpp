#include "run.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <set>

#include <cxxabi.h>

using support::Call;

struct Rule {
    const char *functions;                  // names with blanks between
    enum { ANSWERS, RELEASES, THROWS } way; // a release does its work all the same
    intptr_t answer;
    DWORD error;
    bool only_asks; // or makes a text: one call of each operation and place in the code is enough
};

// Never released: calls pass the gates until the process has gone.
std::deque<SweepGate> &gates = *new std::deque<SweepGate>;
Balance used;
Run *run = new Run();

bool is_told(const Run &it)
{
    return it.reports || it.failures || it.traces;
}

void must(bool holds, const char *what)
{
    if (!holds && !*run->fault)
        strcpy(run->fault, what);
}

namespace
{

const Rule RULES[] = {
    {"FindNextFileW FormatMessageA GetComputerNameExA GetConsoleMode GetCurrentDirectoryW "
     "GetEnvironmentVariableW GetExitCodeProcess GetFullPathNameW GetModuleFileNameA "
     "GetModuleHandleA GetProcAddress GetProcessAffinityMask GetProcessId MultiByteToWideChar "
     "PeekNamedPipe QueryInformationJobObject SearchPathA WideCharToMultiByte malloc",
     Rule::ANSWERS, 0, ERROR_NOT_ENOUGH_MEMORY, true},
    {"AssignProcessToJobObject ConnectNamedPipe CreateEventA CreateJobObjectA CreateMutexA "
     "CreatePipe CreateProcessA CreateThread DeleteFileW DisconnectNamedPipe DuplicateHandle "
     "FlushFileBuffers LoadLibraryA MoveFileW OpenJobObjectA OpenProcess PeekMessageA PulseEvent "
     "ReadFile RegisterWindowMessageA RemoveDirectoryW ResetEvent SetCurrentDirectoryW "
     "SetDllDirectoryA SetEvent SetInformationJobObject SetPriorityClass SetThreadAffinityMask "
     "TerminateProcess TerminateThread TlsSetValue WaitNamedPipeA WriteFile",
     Rule::ANSWERS, 0, ERROR_NOT_ENOUGH_MEMORY, false},
    {"FindFirstFileW GetFileAttributesW GetStdHandle _fstat64 _time64", Rule::ANSWERS, -1,
     ERROR_NOT_ENOUGH_MEMORY, true},
    {"CreateFileA CreateFileW CreateNamedPipeA ResumeThread TlsAlloc WaitForSingleObject "
     "_open_osfhandle _putenv _wputenv system",
     Rule::ANSWERS, -1, ERROR_NOT_ENOUGH_MEMORY, false},
    {"CloseHandle FindClose FreeLibrary ReleaseMutex TlsFree", Rule::RELEASES, 0,
     ERROR_INVALID_HANDLE, false},
    {"_close", Rule::RELEASES, -1, ERROR_INVALID_HANDLE, false},
    {"operator new", Rule::THROWS, 0, ERROR_NOT_ENOUGH_MEMORY, true},
};

// What takes or releases something that is counted, when it does.
bool is_done(const Call &, intptr_t answer)
{
    return answer && static_cast<LONG>(answer) != -1;
}
bool has_argument(const Call &call, intptr_t)
{
    return call.args[0];
}
bool makes_text(const Call &call, intptr_t answer)
{
    return answer && call.arg<DWORD>(0) & FORMAT_MESSAGE_ALLOCATE_BUFFER;
}
const struct {
    const char *import;
    Kind kind;
    LONG change;
    bool (*when)(const Call &call, intptr_t answer);
} COUNTED[] = {
    {"malloc", BLOCKS, 1, is_done},
    {"free", BLOCKS, -1, has_argument},
    {"InitializeCriticalSection", SECTIONS, 1, has_argument},
    {"DeleteCriticalSection", SECTIONS, -1, has_argument},
    {"EnterCriticalSection", ENTERED, 1, has_argument},
    {"TryEnterCriticalSection", ENTERED, 1, is_done},
    {"LeaveCriticalSection", ENTERED, -1, has_argument},
    {"FormatMessageA", TEXTS, 1, makes_text},
    {"LocalFree", TEXTS, -1, has_argument},
    {"TlsAlloc", SLOTS, 1, is_done},
    {"TlsFree", SLOTS, -1, is_done},
    {"LoadLibraryA", LIBRARIES, 1, is_done},
    {"FreeLibrary", LIBRARIES, -1, is_done},
    {"FindFirstFileW", SEARCHES, 1, is_done},
    {"FindClose", SEARCHES, -1, is_done},
};

void count(const std::string &import, const Call &call, intptr_t answer)
{
    for (const auto &row : COUNTED) {
        if (import == row.import && row.when(call, answer))
            InterlockedExchangeAdd(&used.count[row.kind], row.change);
    }
}

// The call at which something happens.
SweepGate *refused_gate;
LONG refused_nth;
bool keeps_sites;
HANDLE new_child;

// What of the library this program's first thread called last.
const char *volatile operation;
const DWORD first_thread = GetCurrentThreadId();

const char *present_operation()
{
    return GetCurrentThreadId() == first_thread ? operation : "a thread";
}

// Tells calls of an import apart: by the operation and the place, or also by the functions between.
uint64_t site_of(const Call &call, bool only_asks)
{
    void *frames[62];
    const int count = CaptureStackBackTrace(0, 62, frames, nullptr);
    int i = std::find(frames, frames + count, call.caller) - frames;
    must(i < count, "the stack can't be read");
    uint64_t site = reinterpret_cast<uintptr_t>(present_operation());
    for (const int end = std::min(count, i + (only_asks ? 1 : 6)); i < end; ++i)
        site = site * 1099511628211u + reinterpret_cast<uintptr_t>(frames[i]);
    return site;
}

void keep_site(SweepGate &gate, const Call &call)
{
    static std::mutex mutex;
    const DWORD error = GetLastError();
    const uint64_t site = site_of(call, gate.only_asks);
    std::lock_guard<std::mutex> guard(mutex);
    if (gate.sites.size() < size_t(call.nth))
        gate.sites.resize(call.nth);
    gate.sites[call.nth - 1] = site;
    SetLastError(error);
}

void die()
{
    end_new_child();
    TerminateProcess(GetCurrentProcess(), DIED);
}

intptr_t refuse(const std::string &name, const Rule &rule, const Call &call)
{
    if (rule.way == Rule::THROWS)
        throw std::bad_alloc();
    if (rule.way == Rule::RELEASES)
        count(name, call, call.go_on());
    SetLastError(rule.error);
    return rule.answer;
}

// A call stands at a gate. The last error stays the call's.
intptr_t pass(SweepGate &gate, const Call &call)
{
    if (keeps_sites && gate.rule)
        keep_site(gate, call);
    const bool is_it = &gate == refused_gate && call.nth == refused_nth;
    const bool is_later = &gate == refused_gate && call.nth > refused_nth;
    if (is_later)
        run->has_later = true;
    if (is_it)
        strcpy(run->operation, present_operation());
    if (is_it && run->how == BEFORE)
        die();
    if ((is_it && run->how <= ONWARDS) || (is_later && run->how == ONWARDS))
        return refuse(gate.name, *gate.rule, call);
    const intptr_t answer = call.go_on();
    count(gate.name, call, answer);
    if (gate.name == "CreateProcessA" && answer && !new_child)
        DuplicateHandle(GetCurrentProcess(), call.arg<PROCESS_INFORMATION *>(9)->hProcess,
                        GetCurrentProcess(), &new_child, 0, FALSE, DUPLICATE_SAME_ACCESS);
    if (is_it && run->how == AFTER)
        die();
    return answer;
}

} // namespace

bool has_name(const char *names, const std::string &name)
{
    const char *at = names; // without an allocation: it is asked often
    while ((at = strstr(at, name.c_str())) &&
           ((at != names && at[-1] != ' ') || (at[name.size()] && at[name.size()] != ' ')))
        ++at;
    return at;
}

void install_gates()
{
    HMODULE library = support::thr_module();
    std::set<std::pair<HMODULE, std::string>> seen;
    for (HMODULE module : {library, GetModuleHandleA("libstdc++-6.dll")}) {
        for (const support::Import &import : support::imports_of(module)) {
            const std::string name = support::plain_name(import.function);
            const Rule *rule = nullptr;
            for (const Rule &each : RULES) {
                if (module == library && has_name(each.functions, name))
                    rule = &each;
            }
            const bool is_counted = std::any_of(std::begin(COUNTED), std::end(COUNTED),
                                                [&](auto &row) { return name == row.import; });
            if (!(rule || is_counted) || !seen.insert({module, name}).second)
                continue;
            gates.push_back({name, rule, rule && rule->only_asks, nullptr, {}});
            SweepGate &gate = gates.back(); // it stays there
            gate.gate = std::make_unique<support::Gate>(
                name, [&gate](const Call &call) { return pass(gate, call); }, module);
        }
    }
}

std::string name_in_source(const std::string &symbol)
{
    int status;
    const char *plain = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
    std::string name = plain ? plain : symbol;
    return name.substr(0, name.find('('));
}

std::vector<std::string> watch_operations()
{
    HMODULE program = GetModuleHandleA(nullptr);
    std::vector<std::string> names;
    for (const support::Import &import : support::imports_of(program)) {
        MEMORY_BASIC_INFORMATION memory = {};
        VirtualQuery(*import.slot, &memory, sizeof memory);
        if (import.dll != "thr.dll" || !(memory.Protect & 0xf0))
            continue; // another library's, or data
        names.push_back(import.function);
        const std::string &name = *new std::string(name_in_source(import.function));
        new support::Gate(
            import.function,
            [&name](const Call &call) {
                if (GetCurrentThreadId() == first_thread)
                    operation = name.c_str();
                return call.go_on();
            },
            program);
    }
    return names;
}

void start_run(Run *next, SweepGate *gate, LONG nth, bool shall_keep_sites)
{
    run = next;
    refused_gate = gate;
    refused_nth = nth;
    keeps_sites = shall_keep_sites;
    operation = "attach or detach"; // until this program calls
    for (SweepGate &each : gates) {
        each.gate->forget_calls();
        each.sites.clear();
    }
}

void end_new_child()
{
    TerminateProcess(new_child, 1);
    if (new_child)
        CloseHandle(new_child);
    new_child = nullptr;
}
