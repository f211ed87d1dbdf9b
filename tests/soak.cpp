// A soak: soak SECONDS [SEED]. Worker processes lock a directory's interprocess mutex and semaphore,
// run threads, load and pipe, and die at random, also while they hold a lock. Whoever gets a lock
// looks whether anybody else has it. At the end nothing may have been violated, and neither handles
// nor heap blocks may have grown with the work. scripts/soak.sh runs it.
#include "refusal_sweep/gates.h"
#include "support/handles.h"

#include "thr/thr_classes.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include <windows.h>

namespace
{

enum { WORKERS = 4, HANDLES = 256, KILLED = 77 };
enum Hold : LONG { NOTHING, MUTEX, READ, WRITE };

// Of all processes. A worker has a slot.
struct Shared {
    volatile LONG must_stop;
    volatile LONG locks;
    volatile LONG operations;
    volatile LONG children;
    volatile LONG violations;
    struct Slot {
        volatile LONG state; // 4 for each worker that has died in it, and the present one's hold
        LONG measured_operations; // read after its end
        LONG grown_handles;       // the most in that time
        LONG grown_blocks;
    } slots[WORKERS];
};
Shared *shared;
std::mt19937 randomness;

bool chance(unsigned one_in)
{
    return randomness() % one_in == 0;
}

void violation(const char *what)
{
    InterlockedIncrement(&shared->violations);
    fprintf(stderr, "soak: %s\n", what);
}

// What is in use now: heap blocks of the library and the C++ runtime, and handles.
struct InUse {
    LONG blocks = used.blocks;
    LONG handles = static_cast<LONG>(support::live_handle_count(HANDLES));
};

// --- a worker -----------------------------------------------------------------------------------

bool excludes(LONG mine, LONG other)
{
    return (mine == MUTEX && other == MUTEX) || (mine == READ && other == WRITE) ||
           (mine == WRITE && (other == READ || other == WRITE));
}

// Marks the slot as a holder and looks at the others. One who seems to hold the lock has to be dead,
// which the parent finds out soon.
void check_hold(int own, Hold hold)
{
    volatile LONG &state = shared->slots[own].state;
    const LONG idle = state;
    InterlockedExchange(&state, idle + hold);
    InterlockedIncrement(&shared->locks);
    for (int i = 0; i < WORKERS; ++i) {
        const volatile LONG &other = shared->slots[i].state;
        const LONG seen = other;
        if (i == own || !excludes(hold, seen % 4))
            continue;
        for (int tries = 0; tries < 2000 && other / 4 == seen / 4; ++tries)
            Sleep(5);
        if (other / 4 == seen / 4)
            violation("two processes hold a lock that excludes them");
    }
    if (chance(300))
        TerminateProcess(GetCurrentProcess(), KILLED);
    if (chance(4))
        Sleep(0);
    InterlockedExchange(&state, idle);
}

void *add_under_locks(void *argument)
{
    auto *objects = static_cast<std::pair<THR_READ_WRITE_SEMAPHORE, int> *>(argument);
    for (int i = 0; i < 20; ++i) {
        THR_SCOPED_WRITE_LOCK guard(objects->first);
        ++objects->second;
    }
    return argument;
}

void run_threads()
{
    std::pair<THR_READ_WRITE_SEMAPHORE, int> objects;
    THR_THREAD_ID threads[3];
    for (THR_THREAD_ID &thread : threads)
        thread = thr_thread_create(add_under_locks, &objects, 0);
    for (THR_THREAD_ID thread : threads)
        thr_thread_wait(thread);
    if (objects.second != 60)
        violation("threads lost an addition");
}

void load()
{
    void *library = thr_drl_load("version");
    if (!library || !thr_drl_find_function(library, "VerQueryValueA"))
        violation("a library is not loaded");
    thr_drl_unload(library);
}

void pipe()
{
    THR_NAMED_PIPE server(("thr-soak-" + std::to_string(GetCurrentProcessId())).c_str());
    if (!server.create())
        return violation("no pipe");
    THR_NAMED_PIPE client(server.get_name());
    char text[8] = "";
    if (!client.open() || !server.connect() || server.write("soak", 5) != 5 ||
        client.read(text, sizeof text) != 5 || strcmp(text, "soak") != 0)
        violation("a message is lost");
    client.close();
    server.remove();
}

// Starts this program with a word that it prints, and reads it.
void start_child(const std::string &program)
{
    std::string command = "\"" + program + "\" word";
    void *out = nullptr;
    void *job = nullptr;
    void *process = thr_process_create_and_save_job(command.data(), nullptr, &out, nullptr, nullptr,
                                                    nullptr, &job);
    char text[64];
    uint32_t count = 0;
    uint32_t total = 0;
    while (process && thr_process_read(out, text, sizeof text, &count) == 0)
        total += count;
    thr_process_status status = {};
    if (process && (thr_process_wait(process, &status, 0) <= 0 || status.exit_code || total < 4))
        violation("a child's word or end is lost");
    InterlockedExchangeAdd(&shared->children, process != nullptr);
    thr_process_close_pipe(out);
    thr_process_close_handle(job);
}

// Takes down what has come to be in use meanwhile. A process keeps one text from its first renaming
// of a lock file, whenever that is.
void measure(int slot, const InUse &before, LONG operations)
{
    const InUse now;
    Shared::Slot &to = shared->slots[slot];
    to.grown_blocks = std::max(to.grown_blocks, now.blocks - before.blocks - 1);
    to.grown_handles = std::max(to.grown_handles, now.handles - before.handles);
    to.measured_operations += operations;
}

int work(int own, const std::string &directory, const std::string &program)
{
    THR_IP_MUTEX_OBJ mutex((directory + "/soak").c_str());
    THR_IP_READ_WRITE_SEMAPHORE semaphore((directory + "/rw/soak").c_str());
    auto one_operation = [&](unsigned kind) {
        if (kind < 6) {
            THR_IP_SCOPED_MUTEX guard(&mutex);
            guard.was_lock_successful() ? check_hold(own, MUTEX) : violation("no mutex");
        } else if (kind < 12) {
            semaphore.read_lock();
            check_hold(own, READ);
            semaphore.read_unlock();
        } else if (kind < 14) {
            semaphore.write_lock();
            check_hold(own, WRITE);
            semaphore.write_unlock();
        } else if (kind < 15 && semaphore.try_write_lock()) {
            check_hold(own, WRITE);
            semaphore.write_unlock();
        } else if (kind < 16 && mutex.try_lock()) {
            check_hold(own, MUTEX);
            mutex.unlock();
        } else if (kind == 16) {
            run_threads();
        } else if (kind == 17) {
            load();
        } else if (kind == 18) {
            pipe();
        } else if (kind == 19 && chance(4)) {
            start_child(program);
        }
        InterlockedIncrement(&shared->operations);
    };
    for (unsigned kind = 0; kind < 20; ++kind)
        one_operation(kind);
    start_child(program);
    const InUse before;
    for (int round = 0; round < 30 && !shared->must_stop; ++round) {
        for (int i = 0; i < 10; ++i)
            one_operation(randomness() % 20);
        measure(own, before, 10);
    }
    return 0;
}

// --- the parent ---------------------------------------------------------------------------------

struct Soak {
    std::string program;
    std::string mapping;
    std::string directory;
    int started = 0;
    int killed = 0;
    LONG measured_operations = 0;
    LONG grown_handles = 0;
    LONG grown_blocks = 0;
    void *workers[WORKERS] = {};

    void start(int slot)
    {
        std::string command = "\"" + program + "\" work " + std::to_string(slot) + " " + mapping +
                              " " + std::to_string(randomness()) + " \"" + directory + "\"";
        void *job = nullptr;
        workers[slot] = thr_process_create_and_save_job(command.data(), nullptr, nullptr, nullptr,
                                                        nullptr, nullptr, &job);
        started += workers[slot] != nullptr;
        thr_process_close_handle(job);
    }

    // Sees whether a worker has ended.
    void look_after(int slot)
    {
        thr_process_status status;
        if (!workers[slot] || thr_process_wait(workers[slot], &status, 1) == 0)
            return;
        workers[slot] = nullptr;
        killed += status.exit_code == KILLED;
        if (status.exit_code != 0 && status.exit_code != KILLED)
            violation(("a worker ended with status " + std::to_string(status.exit_code)).c_str());
        Shared::Slot &ended = shared->slots[slot];
        measured_operations += ended.measured_operations;
        grown_handles += ended.grown_handles;
        grown_blocks += ended.grown_blocks;
        ended.measured_operations = ended.grown_handles = ended.grown_blocks = 0;
        InterlockedExchange(&ended.state, (ended.state / 4 + 1) * 4);
    }

    void run(DWORD seconds)
    {
        const ULONGLONG end = GetTickCount64() + seconds * 1000;
        while (GetTickCount64() < end) {
            for (int slot = 0; slot < WORKERS; ++slot) {
                look_after(slot);
                if (!workers[slot])
                    start(slot);
            }
            if (chance(30))
                TerminateProcess(workers[randomness() % WORKERS], KILLED);
            thr_msleep(20);
        }
        shared->must_stop = 1;
        for (int tries = 0; tries < 6000 && is_any_running(); ++tries) {
            for (int slot = 0; slot < WORKERS; ++slot)
                look_after(slot);
            thr_msleep(5);
        }
        if (is_any_running())
            violation("a worker does not end");
    }

    bool is_any_running() const
    {
        return std::any_of(std::begin(workers), std::end(workers), [](void *w) { return w; });
    }
};

bool map(const std::string &name)
{
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        sizeof *shared, name.c_str());
    shared = static_cast<Shared *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
    return shared != nullptr;
}

// A new directory for the lock files, and one in it for the semaphore's.
int soak(const std::string &program, DWORD seconds, unsigned seed)
{
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    Soak soak = {program, "thr-soak-" + std::to_string(GetCurrentProcessId()), temp};
    soak.directory += soak.mapping;
    std::string inner = soak.directory + "\\rw";
    if (!map(soak.mapping) || !CreateDirectoryA(soak.directory.c_str(), nullptr) ||
        !CreateDirectoryA(inner.c_str(), nullptr))
        return 2;
    printf("seed %u\n", seed);
    fflush(stdout);
    randomness.seed(seed);
    thr_process_set_inherit_handles(1); // a worker's violations are told on our standard error
    start_child(program);
    const InUse before;
    soak.run(seconds);
    measure(0, before, 0);
    soak.grown_handles += shared->slots[0].grown_handles;
    soak.grown_blocks += shared->slots[0].grown_blocks;
    if (!RemoveDirectoryA(inner.c_str()) || !RemoveDirectoryA(soak.directory.c_str()))
        violation("a lock file is left");
    if (soak.grown_handles > 0 || soak.grown_blocks > 0)
        violation("something grows");
    if (!soak.measured_operations || !shared->locks || !shared->children || !soak.killed)
        violation("too short a time to show anything");
    const double thousands = soak.measured_operations / 1000.0;
    printf("%ld operations, %ld locks taken, %d workers and %ld children started, "
           "%d kills survived\n"
           "growth per thousand of %ld measured operations: %.3f handles, %.3f heap blocks; "
           "%ld violations\n",
           shared->operations, shared->locks, soak.started, shared->children, soak.killed,
           soak.measured_operations, soak.grown_handles / thousands, soak.grown_blocks / thousands,
           shared->violations);
    return shared->violations != 0;
}

} // namespace

int main(int argc, char **argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, sizeof program);
    install_gates();
    if (argc == 2 && strcmp(argv[1], "word") == 0)
        return puts("word") < 0;
    if (argc == 6 && strcmp(argv[1], "work") == 0 && map(argv[3])) {
        randomness.seed(strtoul(argv[4], nullptr, 10));
        return work(atoi(argv[2]), argv[5], program);
    }
    if (argc >= 2 && atoi(argv[1]) > 0)
        return soak(program, atoi(argv[1]), argc > 2 ? atoi(argv[2]) : GetTickCount());
    fprintf(stderr, "usage: soak SECONDS [SEED]\n");
    return 2;
}
