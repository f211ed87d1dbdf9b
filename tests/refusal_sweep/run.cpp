#include "run.h"

#include "support/test.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

#include <cxxabi.h>
#include <io.h>

using support::Call;

struct Rule {
    const char *functions;                  // each name between blanks
    enum { ANSWERS, RELEASES, THROWS } way; // a release does its work all the same
    intptr_t answer;
    DWORD error;
    bool only_asks; // or makes a text: one call of each operation and place in the code is enough
};

// A call takes when it answers with something, or takes or gives back what its argument is.
enum Kind { BLOCKS, SECTIONS, ENTERED, TEXTS, SLOTS, LIBRARIES, SEARCHES, KINDS };
struct Count {
    const char *functions;
    Kind kind;
    LONG change;
    enum { ANSWER, ARGUMENT } object;
};

// Never released: calls pass the gates until the process has gone.
std::deque<SweepGate> &gates = *new std::deque<SweepGate>;
Run *run = new Run();
int stopped_threads;

void must(bool holds, const char *what)
{
    if (!holds && !*run->fault)
        strcpy(run->fault, what);
}

namespace
{

const Rule RULES[] = {
    {" FindNextFileW FormatMessageA GetComputerNameExA GetConsoleMode GetEnvironmentVariableW "
     "GetExitCodeProcess GetFullPathNameW GetModuleFileNameA GetModuleHandleA GetProcAddress "
     "GetProcessAffinityMask GetProcessId MultiByteToWideChar PeekNamedPipe "
     "QueryInformationJobObject SearchPathA WideCharToMultiByte malloc ",
     Rule::ANSWERS, 0, ERROR_NOT_ENOUGH_MEMORY, true},
    {" AssignProcessToJobObject ConnectNamedPipe CreateEventA CreateJobObjectA CreateMutexA "
     "CreatePipe CreateProcessA CreateThread DeleteFileW DisconnectNamedPipe DuplicateHandle "
     "FlushFileBuffers GetCurrentDirectoryW LoadLibraryA MoveFileW OpenJobObjectA OpenProcess "
     "PeekMessageA PulseEvent ReadFile RegisterWindowMessageA RemoveDirectoryW ResetEvent "
     "SetCurrentDirectoryW SetDllDirectoryA SetEvent SetInformationJobObject SetPriorityClass "
     "SetThreadAffinityMask TerminateProcess TerminateThread TlsSetValue WaitNamedPipeA WriteFile ",
     Rule::ANSWERS, 0, ERROR_NOT_ENOUGH_MEMORY, false},
    {" FindFirstFileW GetFileAttributesW GetStdHandle _fstat64 _time64 ", Rule::ANSWERS, -1,
     ERROR_NOT_ENOUGH_MEMORY, true},
    {" CreateFileA CreateFileW CreateNamedPipeA ResumeThread TlsAlloc WaitForSingleObject "
     "_open_osfhandle _putenv _wputenv system ",
     Rule::ANSWERS, -1, ERROR_NOT_ENOUGH_MEMORY, false},
    {" CloseHandle FindClose FreeLibrary ReleaseMutex TlsFree ", Rule::RELEASES, 0,
     ERROR_INVALID_HANDLE, false},
    {" _close ", Rule::RELEASES, -1, ERROR_INVALID_HANDLE, false},
    {" operator new ", Rule::THROWS, 0, ERROR_NOT_ENOUGH_MEMORY, true},
};

const Count COUNTS[] = {
    {" malloc ", BLOCKS, 1, Count::ANSWER},
    {" free ", BLOCKS, -1, Count::ARGUMENT},
    {" InitializeCriticalSection ", SECTIONS, 1, Count::ARGUMENT},
    {" DeleteCriticalSection ", SECTIONS, -1, Count::ARGUMENT},
    {" EnterCriticalSection ", ENTERED, 1, Count::ARGUMENT},
    {" TryEnterCriticalSection ", ENTERED, 1, Count::ANSWER},
    {" LeaveCriticalSection ", ENTERED, -1, Count::ARGUMENT},
    {" FormatMessageA ", TEXTS, 1, Count::ANSWER},
    {" LocalFree ", TEXTS, -1, Count::ARGUMENT},
    {" TlsAlloc ", SLOTS, 1, Count::ANSWER},
    {" TlsFree ", SLOTS, -1, Count::ARGUMENT},
    {" LoadLibraryA ", LIBRARIES, 1, Count::ANSWER},
    {" FreeLibrary ", LIBRARIES, -1, Count::ARGUMENT},
    {" FindFirstFileW ", SEARCHES, 1, Count::ANSWER},
    {" FindClose ", SEARCHES, -1, Count::ARGUMENT},
};

volatile LONG used[KINDS]; // by the library; of the heap's blocks by the C++ runtime, too

void count(const SweepGate &gate, const Call &call, intptr_t answer)
{
    if (!gate.count ||
        (gate.name == "FormatMessageA" && !(call.arg<DWORD>(0) & FORMAT_MESSAGE_ALLOCATE_BUFFER)))
        return;
    const intptr_t object = gate.count->object == Count::ANSWER ? answer : call.args[0];
    if (object && static_cast<LONG>(object) != -1)
        InterlockedExchangeAdd(&used[gate.count->kind], gate.count->change);
}

// What of the library this program's first thread called last.
const char *volatile operation;
const DWORD first_thread = GetCurrentThreadId();

// Tells calls of an import apart, in any process: by the operation and the place, or also by the
// functions between, and those of the scenario.
int frames_below; // of the scenario's
uint64_t site_of(const SweepGate &gate, const Call &call, bool is_first_thread)
{
    const DWORD error = GetLastError();
    void *frames[62], *module;
    const int count = CaptureStackBackTrace(0, 62, frames, nullptr);
    int i = std::find(frames, frames + count, call.caller) - frames;
    must(i < count, "the stack can't be read");
    uint64_t site = std::hash<std::string_view>()(is_first_thread ? operation : "a thread");
    const int end = std::min(i + (gate.rule->only_asks ? 1 : 6),
                             is_first_thread ? count - frames_below : count);
    for (; i < end; ++i) {
        if (RtlPcToFileHeader(frames[i], &module))
            site = site * 1099511628211u + reinterpret_cast<uintptr_t>(frames[i]) -
                   reinterpret_cast<uintptr_t>(module);
    }
    SetLastError(error);
    return site;
}

HANDLE new_child;

// Ends the child that the library started: it may be suspended, and nobody else know of it.
void end_new_child()
{
    TerminateProcess(new_child, 1);
    if (new_child)
        CloseHandle(new_child);
    new_child = nullptr;
}

void die()
{
    end_new_child();
    TerminateProcess(GetCurrentProcess(), DIED);
}

intptr_t refuse(const SweepGate &gate, const Call &call)
{
    if (gate.rule->way == Rule::THROWS)
        throw std::bad_alloc();
    if (gate.rule->way == Rule::RELEASES)
        count(gate, call, call.go_on());
    SetLastError(gate.rule->error);
    return gate.rule->answer;
}

// A call stands at a gate. The last error stays the call's.
intptr_t pass(SweepGate &gate, const Call &call)
{
    const bool is_here = run->how >= ALONE && &gate == &gates[run->gate];
    const bool is_later = is_here && *run->operation;
    bool is_it = false;
    if (gate.rule && (run->how == LISTING || (is_here && !is_later))) {
        static std::mutex mutex;
        std::lock_guard<std::mutex> guard(mutex);
        const bool is_first_thread = GetCurrentThreadId() == first_thread;
        const uint64_t site = site_of(gate, call, is_first_thread);
        if (run->how == LISTING)
            gate.sites.insert(site);
        is_it = is_here && !*run->operation && site == run->site;
        if (is_it)
            strcpy(run->operation, is_first_thread ? operation : "a thread");
    }
    run->has_later = run->has_later || is_later;
    if (is_it && run->how == BEFORE)
        die();
    if ((is_it && run->how <= ONWARDS) || (is_later && run->how == ONWARDS))
        return refuse(gate, call);
    const intptr_t answer = call.go_on();
    count(gate, call, answer);
    if (gate.name == "CreateProcessA" && answer && !new_child)
        DuplicateHandle(GetCurrentProcess(), call.arg<PROCESS_INFORMATION *>(9)->hProcess,
                        GetCurrentProcess(), &new_child, 0, FALSE, DUPLICATE_SAME_ACCESS);
    // Who makes several at once, in arguments, has made one of a pipe's two inheritable.
    DWORD flags = 0;
    if (gate.name.compare(0, 6, "Create") == 0 && answer > 1 &&
        GetHandleInformation(reinterpret_cast<HANDLE>(answer), &flags))
        must(!(flags & HANDLE_FLAG_INHERIT), "children inherit a handle");
    if (is_it && run->how == AFTER)
        die();
    return answer;
}

// --- runs ---------------------------------------------------------------------------------------

const size_t HANDLES = 96; // looked at; more than a run ever has

const Scenario *scenario;
std::string directory;
Account *account;

// A message's first line up to what it quotes, and of an OS failure's details the call and code.
// No lock is held, but a semaphore's own or that of a thread in its last step.
void tell(const std::string &from, const std::string &message)
{
    auto part = [&](const char *before, const char *after) {
        const size_t begin = message.find(before) + strlen(before);
        return message.substr(begin, message.find(after, begin) - begin);
    };
    must(used[ENTERED] == 0 || from == "thr/thr_event.cpp" || from == "thr/thr_thread.cpp",
         "a report under a lock");
    std::string text = from + ": " + message.substr(0, message.find_first_of("\r\n\""));
    if (message.find("API: ") != message.npos)
        text += ": " + part("API: ", "\n") + ", code " + part("OS code: ", " ");
    strncat(run->told, (text + "\n").c_str(), sizeof run->told - strlen(run->told) - 1);
    InterlockedIncrement(&run->reports);
}

// Empties the folder of what nobody holds open, and sees what may not have been there: lock files,
// but for those that a refused removal left or that a scenario made. A file that was renamed to be
// removed stays when its process dies between; nobody waits for it.
void clear(bool keeps_files)
{
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        const std::string end = entry.path().extension().string();
        std::error_code error;
        must(std::filesystem::remove(entry.path(), error), "a lock file is still held");
        must(keeps_files || name == "db.9.rdr.flock" || end != ".flock", "a lock file is left");
        must(keeps_files || account->has_deaths || end != ".tmp", "a file is left");
    }
}

void start_run(Run &next)
{
    end_new_child();
    run = &next;
    next.is_over = false;
    operation = "attach or detach"; // until this program calls
}

// Runs the scenario.
void act(Run &next)
{
    char home[MAX_PATH], now[MAX_PATH];
    GetCurrentDirectoryA(sizeof home, home);
    support::say("\f");
    start_run(next);
    void *frames[62];
    frames_below = CaptureStackBackTrace(0, 62, frames, nullptr);
    scenario->act(directory);
    end_new_child();
    GetCurrentDirectoryA(sizeof now, now);
    SetCurrentDirectoryA(home);
    const std::string name = next.how >= ALONE ? gates[next.gate].name : "";
    clear(name == "DeleteFileW" || name == "MoveFileW");
    must(name == "SetCurrentDirectoryW" || strcmp(home, now) == 0, "another current directory");
    must(*next.operation || !(next.reports || next.failures), "a failure without a refusal");
    next.is_over = true;
}

// Makes the steps, for the listed calls.
void plan()
{
    for (size_t gate = 0; gate < gates.size(); ++gate) {
        for (uint64_t site : gates[gate].sites) {
            for (How how : {ALONE, ONWARDS, BEFORE, AFTER}) {
                if ((how >= BEFORE) != account->has_deaths ||
                    (how >= BEFORE && gates[gate].rule->only_asks))
                    continue;
                Run &step = account->plan[account->steps++];
                step.gate = static_cast<int>(gate);
                step.site = site;
                step.how = how;
            }
        }
    }
}

// What is in use between runs.
std::vector<LONG> used_before;
size_t handles_before;

// What is left after a run. Threads that end may take their time.
const char *left_over()
{
    static const char *const WHAT[KINDS] = {
        "heap blocks are left",  "critical sections are left", "locks are held",   "texts are left",
        "thread slots are left", "libraries are left",         "searches are left"};
    const char *left = nullptr;
    for (int tries = 0; tries < 1000; ++tries) {
        left = support::live_handle_count(HANDLES) > handles_before ? "handles are left" : nullptr;
        for (int kind = 0; kind < KINDS; ++kind) {
            const int of_a_stopped_thread = kind == BLOCKS ? 2 : kind == SECTIONS ? 1 : 0;
            const LONG more = used[kind] - used_before[kind]; // less of blocks: a kept text may go
            if (more > of_a_stopped_thread * stopped_threads || (more < 0 && kind != BLOCKS))
                left = WHAT[kind];
        }
        if (!left)
            break;
        Sleep(20);
    }
    return left;
}

// Makes a step and, after the last refusal of an import, a run that has to pass.
void make(Run &step)
{
    if (step.how == ONWARDS && !(&step)[-1].has_later)
        step.is_over = true; // it would be the same
    else
        act(step);
    Run again = {};
    if ((&step)[1].gate != step.gate)
        act(again);
    run = &step;
    must(!*again.fault, again.fault);
}

void watch_operations()
{
    HMODULE program = GetModuleHandleA(nullptr);
    for (const support::Import &import : support::imports_of(program)) {
        MEMORY_BASIC_INFORMATION memory = {};
        VirtualQuery(*import.slot, &memory, sizeof memory);
        if (import.dll != "thr.dll" || !(memory.Protect & 0xf0))
            continue; // another library's, or data
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
}

// The arguments: scenario, its folder, the account.
ROLE(sweep)
{
    install_gates();
    watch_operations();
    support::Gate patience(
        "Sleep", +[](DWORD) { SwitchToThread(); });
    support::Gate assertion("_wassert", [](const Call &call) {
        const std::wstring text = call.arg<wchar_t *>(0), file = call.arg<wchar_t *>(1);
        tell(std::string(file.begin(), file.end()), std::string(text.begin(), text.end()));
        return call.go_on();
    });
    _dup2(1, 2);
    scenario = &scenarios[std::stoi(args[0])];
    directory = args[1];
    account = shared_account(args[2]);
    thr_set_report_func(report_hook);
    thr_set_debug_func(
        [](const char *, const char *format, va_list values) {
            char message[65536];
            vsnprintf(message, sizeof message, format, values);
            tell("debug", message);
        },
        0);
    atexit([] { start_run(*new Run()); }); // a coverage build writes its counters after this
    if (account->plan[account->next].is_first) {
        act(account->plan[account->next++]);
        return 0;
    }
    account->first.how = account->steps == 0 ? LISTING : NOTHING;
    act(account->first);
    if (account->steps == 0)
        plan();
    used_before.assign(used, used + KINDS);
    handles_before = support::live_handle_count(HANDLES);
    stopped_threads = 0;
    while (account->next < account->steps) {
        Run &step = account->plan[account->next++];
        make(step);
        // A start's first block is the C runtime's, for the list of what is to be done at the end.
        const bool keeps_block =
            scenario->name == std::string("start_up") && gates[step.gate].name == "malloc";
        const char *left = keeps_block ? nullptr : left_over();
        must(!left, left);
        step.is_first = step.how != ONWARDS && !*step.operation;
        account->next -= step.is_first;
        if (step.is_first || *step.fault || keeps_block)
            break; // to the next process
    }
    return 0;
}

} // namespace

void report_hook(const char *message, const char *, const char *file, int)
{
    tell(file, message);
}

Account *shared_account(const std::string &name)
{
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        sizeof(Account), name.c_str());
    return static_cast<Account *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
}

// The row of a table that has a function's name; null: none.
template <class Row, size_t SIZE> const Row *row_of(const Row (&rows)[SIZE], std::string name)
{
    name = " " + name + " ";
    auto *row = std::find_if(rows, rows + SIZE,
                             [&](const Row &each) { return strstr(each.functions, name.c_str()); });
    return row == rows + SIZE ? nullptr : row;
}

void install_gates()
{
    HMODULE library = support::thr_module();
    std::set<std::pair<HMODULE, std::string>> seen;
    for (HMODULE module : {library, GetModuleHandleA("libstdc++-6.dll")}) {
        for (const support::Import &import : support::imports_of(module)) {
            const std::string name = support::plain_name(import.function.c_str());
            const Rule *rule = module == library ? row_of(RULES, name) : nullptr;
            const Count *counted = row_of(COUNTS, name);
            if (!(rule || counted) || !seen.insert({module, name}).second)
                continue;
            gates.push_back({name, rule, counted, nullptr, {}});
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
    const std::string name = plain ? plain : symbol;
    return name.substr(0, name.find('('));
}
