// A soak: soak SECONDS [SEED]. Worker processes lock a directory's interprocess mutex and
// semaphore, run threads, load and pipe, and die at random, also while they hold a lock. Whoever
// gets a lock looks whether anybody else has it. At the end nothing may have been violated, and
// neither handles nor heap blocks may have grown with the work. scripts/soak.sh runs it.
#include "support/test.h"

#include "refusal_sweep/run.h"

#include <cstdio>
#include <random>

namespace
{

enum { WORKERS = 4, HANDLES = 256, KILLED = 77 };
enum Hold : LONG64 { NOTHING, MUTEX, READ, WRITE };

// Of all processes. A worker has a slot.
struct Shared {
    volatile LONG must_stop;
    volatile LONG locks;
    volatile LONG children;
    volatile LONG violations;
    // The upper half counts the workers that have died in the slot, the lower one is the present
    // one's steps, times four, and its hold.
    volatile LONG64 states[WORKERS];
};
Shared *shared;
std::string program;
std::string directory; // for the lock files; the semaphore's are in "rw" below it
std::mt19937 randomness;

bool chance(unsigned one_in)
{
    return randomness() % one_in == 0;
}

void violation(const std::string &what)
{
    InterlockedIncrement(&shared->violations);
    fprintf(stderr, "soak: %s\n", what.c_str());
    fflush(stderr); // whoever tells it may be ended next
}

// --- a worker -----------------------------------------------------------------------------------

bool excludes(Hold mine, LONG64 other)
{
    return mine == READ ? other == WRITE : other == mine || (mine == WRITE && other == READ);
}

void step(int own, Hold hold)
{
    volatile LONG64 &state = shared->states[own];
    InterlockedExchange64(&state, (state | 3) + 1 + hold);
}

// Marks the slot as a holder and looks at the others. One that shows a hold against ours and then
// takes a step, or stays for good, has the lock as well. One that is dead takes no step, and the
// parent soon counts it.
void check_hold(int own, Hold hold)
{
    step(own, hold);
    InterlockedIncrement(&shared->locks);
    for (int i = 0; i < WORKERS; ++i) {
        const volatile LONG64 &other = shared->states[i];
        const LONG64 seen = other;
        if (i == own || !excludes(hold, seen % 4))
            continue;
        for (int tries = 0; tries < 2000 && other == seen; ++tries) {
            Sleep(5);
            step(own, hold); // it may be looking at us
        }
        if (other >> 32 == seen >> 32)
            violation("two processes hold a lock that excludes them");
    }
    if (chance(300))
        TerminateProcess(GetCurrentProcess(), KILLED);
    if (chance(4)) // long enough for one that does not wait as it should to come in
        Sleep(randomness() % 64);
    step(own, NOTHING);
}

void pipe()
{
    THR_NAMED_PIPE server(("thr-soak-" + std::to_string(GetCurrentProcessId())).c_str());
    THR_NAMED_PIPE client(server.get_name());
    char text[8] = "";
    if (!server.create() || !client.open() || !server.connect() || server.write("soak", 5) != 5 ||
        client.read(text, sizeof text) != 5 || strcmp(text, "soak") != 0)
        violation("a message is lost");
    client.close();
    server.remove();
}

// Starts this program with some words.
void *start(const std::string &words, void **out)
{
    std::string command = "\"" + program + "\" " + words;
    void *job = nullptr;
    void *process = thr_process_create_and_save_job(command.data(), nullptr, out, nullptr, nullptr,
                                                    nullptr, &job);
    thr_process_close_handle(job);
    return process;
}

// A child that prints a word, which is read.
void run_child()
{
    void *out = nullptr;
    void *process = start("word", &out);
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
}

int work(int own)
{
    THR_IP_MUTEX_OBJ mutex((directory + "\\soak").c_str());
    THR_IP_READ_WRITE_SEMAPHORE sem((directory + "\\rw\\soak").c_str());
    const std::pair<Hold, std::function<bool()>> locks[] = {
        {MUTEX, [&] { return mutex.lock() || (violation("no mutex"), false); }},
        {MUTEX, [&] { return mutex.try_lock(); }},
        {READ, [&] { return sem.read_lock(), true; }},
        {READ, [&] { return sem.try_read_lock(); }},
        {WRITE, [&] { return sem.write_lock(), true; }},
        {WRITE, [&] { return sem.try_write_lock(); }},
    };
    auto unlock = [&](Hold hold) {
        hold == MUTEX ? mutex.unlock() : hold == READ ? sem.read_unlock() : sem.write_unlock();
    };
    void (*const others[])() = {
        pipe, [] { chance(4) ? run_child() : pipe(); },
        [] { thr_drl_unload(thr_drl_load("version")); },
        [] { thr_thread_wait(thr_thread_create([](void *arg) { return arg; }, nullptr, 0)); }};
    auto one_operation = [&](unsigned kind) {
        if (kind >= std::size(locks)) {
            others[kind - std::size(locks)]();
        } else if (locks[kind].second()) {
            check_hold(own, locks[kind].first);
            unlock(locks[kind].first);
        }
    };
    const unsigned kinds = std::size(locks) + std::size(others);
    for (unsigned kind = 0; kind < kinds; ++kind)
        one_operation(kind);
    run_child();
    std::this_thread::get_id(); // the runtime opens two handles for a thread that it sees first
    const LONG blocks = used.count[BLOCKS]; // of the library and the C++ runtime
    const size_t handles = support::live_handle_count(HANDLES);
    for (int round = 0; round < 30 && !shared->must_stop; ++round) {
        for (int i = 0; i < 10; ++i)
            one_operation(randomness() % kinds);
        // A process keeps one text from its first renaming of a lock file, whenever that is.
        if (support::live_handle_count(HANDLES) > handles || used.count[BLOCKS] > blocks + 1)
            return violation("something grows"), 0;
    }
    return 0;
}

// --- the parent ---------------------------------------------------------------------------------

struct Soak {
    std::string name;
    int ended = 0;
    int killed = 0;
    void *workers[WORKERS] = {};

    // Sees whether a worker has ended.
    void look_after(int slot)
    {
        thr_process_status status;
        if (!workers[slot] || thr_process_wait(workers[slot], &status, 1) == 0)
            return;
        workers[slot] = nullptr;
        ++ended;
        killed += status.exit_code == KILLED;
        if (status.exit_code != 0 && status.exit_code != KILLED)
            violation("a worker ended with status " + std::to_string(status.exit_code));
        volatile LONG64 &state = shared->states[slot];
        InterlockedExchange64(&state, ((state >> 32) + 1) << 32);
    }

    // False when a worker does not end.
    bool run(DWORD seconds)
    {
        const ULONGLONG end = GetTickCount64() + seconds * 1000;
        for (int running = 1; running > 0; thr_msleep(20)) {
            const ULONGLONG now = GetTickCount64();
            shared->must_stop = now >= end;
            if (now >= end + 60000)
                return false;
            running = 0;
            for (int slot = 0; slot < WORKERS; ++slot) {
                look_after(slot);
                if (!workers[slot] && !shared->must_stop)
                    workers[slot] = start("work " + std::to_string(slot) + " " + name + " " +
                                              std::to_string(randomness()),
                                          nullptr);
                running += workers[slot] != nullptr;
            }
            if (!shared->must_stop && chance(30))
                TerminateProcess(workers[randomness() % WORKERS], KILLED);
        }
        return true;
    }
};

// What the processes of a soak have in common: their memory and their directory.
bool join(const std::string &name)
{
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    directory = temp + name;
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        sizeof *shared, name.c_str());
    shared = static_cast<Shared *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
    return shared != nullptr;
}

int soak(DWORD seconds, unsigned seed)
{
    Soak soak = {"thr-soak-" + std::to_string(GetCurrentProcessId())};
    if (!join(soak.name) || !CreateDirectoryA(directory.c_str(), nullptr) ||
        !CreateDirectoryA((directory + "\\rw").c_str(), nullptr))
        return 2;
    printf("seed %u\n", seed);
    fflush(stdout);
    randomness.seed(seed);
    thr_process_set_inherit_handles(1); // a worker's violations are told on our standard error
    if (!soak.run(seconds))
        violation("a worker does not end");
    if (!RemoveDirectoryA((directory + "\\rw").c_str()) || !RemoveDirectoryA(directory.c_str()))
        violation("a lock file is left");
    if (!shared->locks || !shared->children || !soak.killed)
        violation("too short a time to show anything");
    printf(
        "%ld locks taken, %d workers and %ld children ended, %d kills survived; %ld violations\n",
        shared->locks, soak.ended, shared->children, soak.killed, shared->violations);
    return shared->violations != 0;
}

} // namespace

int main(int argc, char **argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    program = _pgmptr;
    install_gates();
    if (argc == 2 && strcmp(argv[1], "word") == 0)
        return puts("word") < 0;
    if (argc == 5 && strcmp(argv[1], "work") == 0 && join(argv[3])) {
        randomness.seed(strtoul(argv[4], nullptr, 10));
        return work(atoi(argv[2]));
    }
    if (argc >= 2 && atoi(argv[1]) > 0)
        return soak(atoi(argv[1]), argc > 2 ? atoi(argv[2]) : GetTickCount());
    fprintf(stderr, "usage: soak SECONDS [SEED]\n");
    return 2;
}
