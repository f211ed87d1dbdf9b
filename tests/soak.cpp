// A soak: soak SECONDS [SEED]. Worker processes lock a directory's interprocess mutex and
// semaphore and die at random, also while they hold a lock. Whoever gets a lock looks whether
// anybody else has it. At the end nothing may have been violated, and neither handles nor heap
// blocks may have grown with the work. scripts/soak.sh runs it.
#include "support/test.h"

#include <filesystem>
#include <random>

namespace
{

enum { WORKERS = 4, HANDLES = 256, KILLED = 197 }; // the last one is given by Child::kill()
enum Hold : LONG64 { NOTHING, MUTEX, READ, WRITE };

// Of all processes. A worker has a slot.
struct Shared {
    volatile LONG must_stop;
    volatile LONG locks;
    volatile LONG kills;
    volatile LONG violations;
    // The upper half counts the workers that have ended in the slot, the lower one is the present
    // one's steps, times four, and its hold.
    volatile LONG64 states[WORKERS];
};
Shared *shared;
std::string directory; // for the lock files; the semaphore's are in "rw" below it

void join(const std::string &path)
{
    directory = path;
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        sizeof *shared, path.substr(path.rfind('\\') + 1).c_str());
    shared = static_cast<Shared *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
}

bool violation(const std::string &what)
{
    InterlockedIncrement(&shared->violations);
    fprintf(stderr, "soak: %s\n", what.c_str());
    fflush(stderr); // whoever tells it may be ended next
    return false;
}

// --- a worker -----------------------------------------------------------------------------------

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
        const LONG64 others = seen % 4;
        if (i == own || others == NOTHING || (hold == MUTEX) != (others == MUTEX) ||
            (hold == READ && others == READ))
            continue; // each may have its own
        for (int tries = 0; tries < 2000 && other == seen; ++tries) {
            Sleep(5);
            step(own, hold); // it may be looking at us
        }
        if (other >> 32 == seen >> 32)
            violation("two processes hold a lock that excludes them");
    }
}

// The arguments: the slot, the directory, a seed.
ROLE(work)
{
    const int own = std::stoi(args[0]);
    join(args[1]);
    std::mt19937 random(std::stoul(args[2]));
    support::Gate allocations("malloc"), releases("free");
    THR_IP_MUTEX_OBJ mutex((directory + "\\soak").c_str());
    THR_IP_READ_WRITE_SEMAPHORE sem((directory + "\\rw\\soak").c_str());
    const std::pair<Hold, std::function<bool()>> locks[] = {
        {MUTEX, [&] { return mutex.lock() || violation("no mutex"); }},
        {MUTEX, [&] { return mutex.try_lock(); }},
        {READ, [&] { return sem.read_lock(), true; }},
        {READ, [&] { return sem.try_read_lock(); }},
        {WRITE, [&] { return sem.write_lock(), true; }},
        {WRITE, [&] { return sem.try_write_lock(); }},
    };
    LONG blocks = 0;
    size_t handles = 0;
    for (int round = 0; round < 300 && !shared->must_stop; ++round) {
        const auto &[hold, lock] = locks[(round < 6 ? round : random()) % 6];
        if (lock()) {
            check_hold(own, hold);
            if (random() % 300 == 0)
                TerminateProcess(GetCurrentProcess(), KILLED);
            if (random() % 4 == 0) // long enough for one that does not wait as it should to come in
                Sleep(random() % 64);
            step(own, NOTHING);
            hold == MUTEX ? mutex.unlock() : hold == READ ? sem.read_unlock() : sem.write_unlock();
        }
        const LONG present = allocations.calls() - releases.calls();
        if (round == 10) {
            blocks = present + 1; // a text stays from the first renaming of a lock file
            handles = support::live_handle_count(HANDLES);
        } else if (round > 10 && round % 10 == 0 &&
                   (present > blocks || support::live_handle_count(HANDLES) > handles)) {
            return violation("something grows");
        }
    }
    return 0;
}

// --- the parent ---------------------------------------------------------------------------------

// Starts one worker after the other in a slot, and ends some.
void employ(int slot, unsigned seed)
{
    std::mt19937 random(seed + slot);
    while (!shared->must_stop) {
        support::Child worker("work", {std::to_string(slot), directory, std::to_string(random())});
        const bool shall_die = random() % 2;
        int status = worker.wait(shall_die ? random() % 2000 : 60000).value_or(STILL_ACTIVE);
        if (shall_die && status == STILL_ACTIVE) {
            worker.kill();
            status = KILLED;
        }
        if (status != 0 && status != KILLED)
            violation("a worker's status is " + std::to_string(status)); // 259: it does not end
        volatile LONG64 &state = shared->states[slot];
        InterlockedExchange64(&state, ((state >> 32) + 1) << 32);
        InterlockedExchangeAdd(&shared->kills, status == KILLED);
    }
}

int soak(DWORD seconds, unsigned seed)
{
    join(std::filesystem::temp_directory_path().string() + "thr-soak-" +
         std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directories(directory + "\\rw");
    printf("seed %u\n", seed);
    fflush(stdout);
    std::vector<std::thread> employers;
    for (int slot = 0; slot < WORKERS; ++slot)
        employers.emplace_back(employ, slot, seed);
    Sleep(seconds * 1000);
    shared->must_stop = 1;
    for (std::thread &employer : employers)
        employer.join();
    // A worker that dies while a file has another name, to be removed, leaves that.
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.path().extension() == ".flock")
            violation("a lock file is left");
    }
    std::filesystem::remove_all(directory);
    if (!shared->locks || !shared->kills)
        violation("too short a time to show anything");
    printf("%ld locks taken, %ld kills survived; %ld violations\n", shared->locks, shared->kills,
           shared->violations);
    return shared->violations != 0;
}

} // namespace

int main(int argc, char **argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    if (argc >= 3 && strcmp(argv[1], "--role") == 0)
        return support::roles().at(argv[2])({argv + 3, argv + argc});
    if (argc >= 2 && atoi(argv[1]) > 0)
        return soak(atoi(argv[1]), argc > 2 ? atoi(argv[2]) : GetTickCount());
    fprintf(stderr, "usage: soak SECONDS [SEED]\n");
    return 2;
}
