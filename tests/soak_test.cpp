// A soak of the interprocess locks: processes that lock and die at random. --gtest_repeat=N makes
// it longer, with --gtest_shuffle each round makes other choices, and --gtest_random_seed repeats
// them.
// scripts/soak.sh runs it so.
#include "support/test.h"

#include <filesystem>
#include <random>

using namespace support;

namespace
{

enum { WORKERS = 4, KILLED = 197 }; // the status of who was ended by Child::kill()

// Beside a lock its holder has mutexes of the system, which takes them from whoever dies: a reader
// the one of its worker, others all. One that somebody lets go by himself had two holders.
class Witness
{
public:
    Witness(const std::string &lock, int first, int last)
    {
        for (int i = first; i <= last; ++i) {
            HANDLE mutex = CreateMutexA(nullptr, FALSE, (lock + std::to_string(i)).c_str());
            if (WaitForSingleObject(mutex, 0) == WAIT_TIMEOUT &&
                WaitForSingleObject(mutex, PATIENCE_MS) != WAIT_ABANDONED) {
                fputs("two processes hold a lock that excludes them\n", stderr);
                fflush(stderr); // whoever tells it may be ended next
                TerminateProcess(GetCurrentProcess(), 1);
            }
            m_mutexes.push_back(mutex);
        }
    }
    ~Witness()
    {
        for (HANDLE mutex : m_mutexes) {
            ReleaseMutex(mutex);
            CloseHandle(mutex);
        }
    }

private:
    std::vector<HANDLE> m_mutexes;
};

// The arguments: its number, the directory, whose semaphore is in "rw", a seed.
ROLE(works)
{
    const int own = std::stoi(args[0]);
    const std::string name = args[1].substr(args[1].rfind('\\') + 1);
    std::mt19937 random(std::stoul(args[2]));
    THR_IP_MUTEX_OBJ mutex((args[1] + "\\soak").c_str());
    THR_IP_READ_WRITE_SEMAPHORE sem((args[1] + "\\rw\\soak").c_str());
    for (int round = 0; round < 30; ++round) {
        const bool is_tried = random() % 2;
        const char *const lock = std::array{"mutex", "read", "write"}[random() % 3];
        const bool reads = *lock == 'r', writes = *lock == 'w';
        bool has_it = true;
        if (is_tried)
            has_it = reads ? sem.try_read_lock() : writes ? sem.try_write_lock() : mutex.try_lock();
        else
            reads ? sem.read_lock() : writes ? sem.write_lock() : (void)mutex.lock();
        if (!has_it)
            continue;
        std::optional<Witness> witness(std::in_place, name + (reads || writes ? "rw" : "mutex"),
                                       reads ? own : 0, reads ? own : WORKERS - 1);
        if (random() % 100 == 0)
            TerminateProcess(GetCurrentProcess(), KILLED);
        if (random() % 4 == 0) // long enough for one that does not wait as it should to come in
            Sleep(random() % 64);
        witness.reset();
        reads ? sem.read_unlock() : writes ? sem.write_unlock() : mutex.unlock();
    }
    return 0;
}

TEST(Soak, ProcessesThatDieAtRandomExcludeEachOther)
{
    ScratchDir scratch;
    std::filesystem::create_directory(scratch.file("rw"));
    std::atomic<int> ends = 0, kills = 0;
    auto employ = [&](int number) {
        std::mt19937 random(testing::UnitTest::GetInstance()->random_seed() * WORKERS + number);
        for (int i = 0; i < 4; ++i) {
            Child worker("works",
                         {std::to_string(number), scratch.path(), std::to_string(random())});
            const bool shall_die = random() % 2;
            std::optional<int> status = worker.wait(shall_die ? random() % 2000 : PATIENCE_MS);
            if (!status && shall_die) {
                worker.kill();
                status = worker.wait();
            }
            ++(status == KILLED ? kills : ends);
            EXPECT_TRUE(status == KILLED || status == 0) << status.value_or(STILL_ACTIVE);
        }
    };
    std::vector<std::thread> employers;
    for (int number = 0; number < WORKERS; ++number)
        employers.emplace_back(employ, number);
    for (std::thread &employer : employers)
        employer.join();
    EXPECT_GT(kills, 0);
    // A worker that dies while a file has another name, to be removed, leaves that.
    for (const auto &entry : std::filesystem::recursive_directory_iterator(scratch.path()))
        EXPECT_NE(entry.path().extension(), ".flock");
    printf("%d workers ended, %d kills survived, seed %d\n", int(ends), int(kills),
           testing::UnitTest::GetInstance()->random_seed());
}

} // namespace
