#include "run.h"

#include "support/test.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string_view>

#include <cxxabi.h>
#include <io.h>

using support::Call;

struct Rule {
    const char *functions;                  // each name between blanks
    enum { ANSWERS, RELEASES, THROWS } way; // a release does its work all the same
    intptr_t answer;
    bool only_asks;
};

// What functions take, as their answer or, where they have none, as their argument, the last one
// gives back.
struct Count {
    const char *functions, *left;
};

// Never released: calls pass the gates until the process has gone.
std::deque<SweepGate> &gates = *new std::deque<SweepGate>;
Run *run = new Run();

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
     Rule::ANSWERS, 0, true},
    {" AssignProcessToJobObject ConnectNamedPipe CreateEventA CreateJobObjectA CreateMutexA "
     "CreatePipe CreateProcessA CreateThread DeleteFileW DisconnectNamedPipe DuplicateHandle "
     "FlushFileBuffers GetCurrentDirectoryW LoadLibraryA MoveFileW OpenJobObjectA OpenProcess "
     "PeekMessageA PulseEvent ReadFile RegisterWindowMessageA RemoveDirectoryW ResetEvent "
     "SetCurrentDirectoryW SetDllDirectoryA SetEvent SetInformationJobObject SetPriorityClass "
     "SetThreadAffinityMask TerminateProcess TerminateThread TlsSetValue WaitNamedPipeA WriteFile ",
     Rule::ANSWERS, 0, false},
    {" FindFirstFileW GetFileAttributesW GetStdHandle _fstat64 _time64 ", Rule::ANSWERS, -1, true},
    {" CreateFileA CreateFileW CreateNamedPipeA ResumeThread TlsAlloc WaitForSingleObject "
     "_open_osfhandle _putenv _wputenv system ",
     Rule::ANSWERS, -1, false},
    {" CloseHandle FindClose FreeLibrary ReleaseMutex TlsFree ", Rule::RELEASES, 0, false},
    {" _close ", Rule::RELEASES, -1, false},
    {" operator new ", Rule::THROWS, 0, true},
};

enum { BLOCKS, ENTERED, SECTIONS, HANDLES = 7, KINDS };
const Count COUNTS[KINDS] = {
    {" malloc free ", "heap blocks are left"},
    {" EnterCriticalSection TryEnterCriticalSection LeaveCriticalSection ", "locks are held"},
    {" InitializeCriticalSection DeleteCriticalSection ", "critical sections are left"},
    {" FormatMessageA LocalFree ", "texts are left"},
    {" TlsAlloc TlsFree ", "thread slots are left"},
    {" LoadLibraryA FreeLibrary ", "libraries are left"},
    {" FindFirstFileW FindClose ", "searches are left"},
    {"", "handles are left"}}; // counted between runs

volatile LONG used[KINDS]; // by the library; of the heap's blocks by the C++ runtime, too

void count(const SweepGate &gate, const Call &call, intptr_t answer)
{
    if (!gate.count ||
        (gate.name == "FormatMessageA" && !(call.arg<DWORD>(0) & FORMAT_MESSAGE_ALLOCATE_BUFFER)))
        return;
    const char *place = strstr(gate.count->functions, gate.name.c_str());
    const bool gives_back = place[gate.name.size() + 1] == '\0';
    const bool is_void =
        gate.name == "EnterCriticalSection" || gate.name == "InitializeCriticalSection";
    const intptr_t object = is_void || gives_back ? call.args[0] : answer;
    if (object && static_cast<LONG>(object) != -1)
        InterlockedExchangeAdd(&used[gate.count - COUNTS], gives_back ? -1 : 1);
}

// What of the library this program's first thread called last.
const char *volatile operation;
const DWORD first_thread = GetCurrentThreadId();

// Tells calls of an import apart, in any process: by the operation and the place, or also by the
// functions between, and those of the scenario.
uint64_t site_of(const SweepGate &gate, const Call &call, const char *by)
{
    const DWORD error = GetLastError();
    void *frames[62], *module;
    const int count = CaptureStackBackTrace(0, 62, frames, nullptr);
    int i = std::find(frames, frames + count, call.caller) - frames;
    must(i < count, "the stack can't be read");
    uint64_t site = std::hash<std::string_view>()(by);
    for (const int end = std::min(i + (gate.only_asks ? 1 : 6), count); i < end; ++i) {
        if (RtlPcToFileHeader(frames[i], &module))
            site = site * 1099511628211u + reinterpret_cast<uintptr_t>(frames[i]) -
                   reinterpret_cast<uintptr_t>(module);
    }
    SetLastError(error);
    return site;
}

// The last one that the library started. It may be suspended, and nobody else know of it.
HANDLE new_child;

void die()
{
    TerminateProcess(new_child, 1);
    TerminateProcess(GetCurrentProcess(), DIED);
}

intptr_t refuse(const SweepGate &gate, const Call &call)
{
    if (gate.rule->way == Rule::THROWS)
        throw std::bad_alloc();
    if (gate.rule->way == Rule::RELEASES)
        count(gate, call, call.go_on());
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return gate.rule->answer;
}

// A call stands at a gate. The last error stays the call's.
intptr_t pass(SweepGate &gate, const Call &call)
{
    const bool is_here = run->how >= ALONE && gate.number == run->place.first;
    const bool is_later = is_here && *run->operation;
    bool is_it = false;
    if (gate.rule && (run->how == LISTING || (is_here && !is_later))) {
        static std::mutex mutex;
        std::lock_guard<std::mutex> guard(mutex);
        const char *by = GetCurrentThreadId() == first_thread ? operation : "a thread";
        const Place place(gate.number, site_of(gate, call, by));
        if (run->how == LISTING)
            run->calls.at(run->calls_listed++) = place;
        is_it = is_here && !*run->operation && place == run->place;
        if (is_it)
            strcpy(run->operation, by);
    }
    run->has_later = run->has_later || is_later;
    if (is_it && run->how == BEFORE)
        die();
    if ((is_it && run->how <= ONWARDS) || (is_later && run->how == ONWARDS))
        return refuse(gate, call);
    const intptr_t answer = call.go_on();
    count(gate, call, answer);
    if (gate.name == "CreateProcessA" && answer)
        new_child = call.arg<PROCESS_INFORMATION *>(9)->hProcess;
    // Who makes several at once, in arguments, has made one of a pipe's two inheritable.
    DWORD flags = 0;
    if ((gate.name.find("Create") == 0 || gate.name.find("Open") == 0) && answer > 1 &&
        GetHandleInformation(reinterpret_cast<HANDLE>(answer), &flags))
        must(!(flags & HANDLE_FLAG_INHERIT), "children inherit a handle");
    if (is_it && run->how == AFTER)
        die();
    return answer;
}

// --- runs ---------------------------------------------------------------------------------------

const Scenario *scenario;
std::string directory;

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
        must(keeps_files || run->has_deaths || end != ".tmp", "a file is left");
    }
}

// Runs the scenario.
void act()
{
    char home[MAX_PATH], now[MAX_PATH];
    GetCurrentDirectoryA(sizeof home, home);
    operation = "attach or detach"; // until this program calls
    scenario->act(directory);
    const std::string name = run->how >= ALONE ? gates[run->place.first].name : "";
    GetCurrentDirectoryA(sizeof now, now);
    SetCurrentDirectoryA(home);
    must(name == "SetCurrentDirectoryW" || strcmp(home, now) == 0, "another current directory");
    clear(name == "DeleteFileW" || name == "MoveFileW");
    must(*run->operation || !(run->reports || run->failures), "a failure without a refusal");
}

LONG used_before[KINDS]; // between runs

void remember_use()
{
    used[HANDLES] = static_cast<LONG>(support::live_handle_count(96)); // more than there are
    std::copy(used, used + KINDS, used_before);
}

// Nothing is left after a run. Threads that end may take their time.
void must_leave_nothing()
{
    const char *left = "";
    for (int tries = 0; tries < 500 && left; ++tries) {
        Sleep(tries == 0 ? 0 : 20);
        used[HANDLES] = static_cast<LONG>(support::live_handle_count(96));
        left = nullptr;
        for (int kind = 0; kind < KINDS; ++kind) {
            const LONG more = used[kind] - used_before[kind];
            // a handle may close late in the first run, and a kept text go
            if (more > 0 || more < (kind == HANDLES ? -9 : kind == BLOCKS ? -1 : 0))
                left = COUNTS[kind].left;
        }
    }
    must(!left, left);
    used_before[HANDLES] = used[HANDLES];
}

void watch_operations()
{
    HMODULE program = GetModuleHandleA(nullptr);
    for (const support::Import &import : support::imports_of(program)) {
        MEMORY_BASIC_INFORMATION memory = {};
        VirtualQuery(*import.slot, &memory, sizeof memory);
        if (import.dll != "thr.dll" || !(memory.Protect & 0xf0))
            continue; // another library's, or data
        const std::string &name = *new std::string(name_in_source(import.function.data()));
        new support::Gate(
            import.function.data(),
            [&name](const Call &call) {
                if (GetCurrentThreadId() == first_thread)
                    operation = name.c_str();
                return call.go_on();
            },
            program);
    }
}

// The arguments: the scenario, its folder, the name of what is shared with the parent.
ROLE(sweep)
{
    install_gates();
    watch_operations();
    support::Gate patience(
        "Sleep", +[](DWORD) { SwitchToThread(); });
    _dup2(1, 2);
    scenario = &scenarios[std::stoi(args[0])];
    directory = args[1];
    run = shared_run(args[2]);
    thr_set_report_func(tell);
    thr_set_debug_func(
        [](const char *, const char *format, va_list values) {
            char message[65536];
            vsnprintf(message, sizeof message, format, values);
            tell(message, "", "debug", 0);
        },
        0);
    atexit([] { run = new Run(); }); // a coverage build writes its counters after this
    for (bool is_first = true; support::hear(); is_first = false) {
        act();
        // A start's first block is the C runtime's, for the list of what is to be done at the end:
        // the library's locks are on it.
        const bool keeps_block = scenario->name == std::string("start_up") && run->how >= ALONE &&
                                 gates[run->place.first].name == "malloc";
        for (int kind : {BLOCKS, SECTIONS})
            used_before[kind] = keeps_block ? LONG(used[kind]) : used_before[kind];
        is_first ? remember_use() : must_leave_nothing();
        run->is_over = true;
        support::say("\f");
    }
    return 0;
}

} // namespace

// A message's first line up to what it quotes, and of an OS failure's details the call and code.
// No lock is held, but a semaphore's own or that of a thread in its last step.
void tell(const char *told, const char *, const char *file, int)
{
    const std::string message = told, from = file;
    must(used[ENTERED] == 0 || from == "thr/thr_event.cpp" || from == "thr/thr_thread.cpp",
         "a report under a lock");
    std::string text = from + ": " + message.substr(0, message.find_first_of("\r\n\""));
    std::smatch details;
    if (std::regex_search(message, details, std::regex("API: (.*)\n.*OS code: (\\S+)")))
        text += ": " + details[1].str() + ", code " + details[2].str();
    strncat(run->told, (text + "\n").c_str(), sizeof run->told - strlen(run->told) - 1);
    InterlockedIncrement(&run->reports);
}

Run *shared_run(const std::string &name)
{
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        sizeof(Run), name.c_str());
    return static_cast<Run *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
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
            const std::string name = support::plain_name(import.function.data());
            const Rule *rule = module == library ? row_of(RULES, name) : nullptr;
            const Count *counted = row_of(COUNTS, name);
            if (!(rule || counted) || !seen.insert({module, name}).second)
                continue;
            gates.push_back({int(gates.size()), name, rule, counted, rule && rule->only_asks, {}});
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
