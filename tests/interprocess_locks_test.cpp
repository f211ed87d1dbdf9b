// The interprocess mutex and read-write semaphore of thr.dll, among real processes.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_classes.h"

#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

using support::Child;
using support::ScratchDir;

namespace
{

// --- processes that obey ------------------------------------------------------------------------

struct Locks {
    THR_IP_MUTEX mutex;
    THR_IP_RW_SEM sem;
};

// What a process can be ordered to do, and the answer.
const std::map<std::string, int (*)(Locks)> ORDERS = {
    {"lock", [](Locks of) { return thr_ip_mutex_lock(of.mutex); }},
    {"try_lock", [](Locks of) { return thr_ip_mutex_try_lock(of.mutex); }},
    {"end_lock", [](Locks of) { return thr_ip_mutex_unlock(of.mutex), 1; }},
    {"read", [](Locks of) { return thr_ip_rw_sem_read_lock(of.sem), 1; }},
    {"try_read", [](Locks of) { return thr_ip_rw_sem_read_try_lock(of.sem); }},
    {"end_read", [](Locks of) { return thr_ip_rw_sem_read_unlock(of.sem), 1; }},
    {"write", [](Locks of) { return thr_ip_rw_sem_write_lock(of.sem), 1; }},
    {"try_write", [](Locks of) { return thr_ip_rw_sem_write_try_lock(of.sem); }},
    {"end_write", [](Locks of) { return thr_ip_rw_sem_write_unlock(of.sem), 1; }},
    {"destroy", [](Locks of) {
         thr_ip_rw_sem_destroy(of.sem);
         thr_ip_mutex_destroy(of.mutex);
         return 1;
     }}};

// Obeys the orders of a line one after the other, and says their answers, or the internal error
// that ends it.
ROLE(obeys)
{
    // No Windows enters a directory that is so long, but Wine does.
    auto enter = [](LPCWSTR d) { return wcslen(d) < 260 ? SetCurrentDirectoryW(d) : FALSE; };
    support::ImportPatch patch("SetCurrentDirectoryW", +enter);
    thr_set_report_func(
        [](const char *message, const char *, const char *, int) { support::say(message); });
    const char *path = args[0].c_str();
    const Locks locks = {thr_ip_mutex_create(path), thr_ip_rw_sem_create(path)};
    while (auto orders = support::hear()) {
        std::string answers, order;
        for (std::istringstream words(*orders); words >> order;)
            answers += std::to_string(ORDERS.at(order)(locks));
        support::say(answers);
    }
    return 0;
}

const char WAITS[] = "...";

struct Step {
    std::string who;     // a process, started when it is first named
    std::string orders;  // a line; or "kill", or nothing: it hears the answers to its last line
    std::string answers; // without spaces; WAITS when there are none yet
};

// A directory whose path is longer than Windows once allowed, and processes that use the mutex and
// the semaphore "db" in it. "Neighbour" is one that uses "other" there, and "Critical" one that
// uses "db.cri", whose mutex is the atomic lock of the semaphore "db".
class Stage
{
public:
    Stage()
    {
        m_directory = L"\\\\?\\" + m_scratch.wide_path();
        while (m_directory.size() < 300)
            CreateDirectoryW((m_directory += L"\\with spaces").c_str(), nullptr);
    }
    std::wstring path(const std::wstring &name) { return m_directory + L"\\" + name; }
    bool has(const std::wstring &name)
    {
        return GetFileAttributesW(path(name).c_str()) != INVALID_FILE_ATTRIBUTES;
    }
    void play(const std::vector<Step> &steps)
    {
        if (testing::Test::HasFatalFailure())
            return; // what a former scene left would hold this one up
        for (const auto &[who, orders, answers] : steps) {
            Child &child = process(who);
            const std::wstring own = L"db." + std::to_wstring(child.pid());
            if (orders == "kill")
                child.kill();
            else if (!orders.empty())
                child.write_line(orders);
            // Goes on when a writer has announced itself.
            for (DWORD ms = 0; orders == "write" && !has(own + L".wtr.flock"); ms++)
                Sleep(ms < support::PATIENCE_MS ? 1 : throw std::runtime_error("no writer file"));
            const DWORD patience = answers == WAITS ? 50 : support::PATIENCE_MS;
            ASSERT_EQ(child.read_line(patience).value_or(WAITS), answers) << who << " " << orders;
        }
    }
    Child &process(const std::string &who)
    {
        std::unique_ptr<Child> &child = m_processes[who];
        if (!child) {
            const wchar_t *name = who == "Neighbour" ? L"other" : L"db";
            const std::wstring file = path(who == "Critical" ? L"db.cri" : name).substr(4);
            child.reset(new Child("obeys", {std::string(file.begin(), file.end())}));
        }
        return *child;
    }

private:
    ScratchDir m_scratch;
    std::wstring m_directory; // begins with the four characters of a long path
    std::map<std::string, std::unique_ptr<Child>> m_processes;
};

TEST(IpLocks, CountWhatARecordHolds)
{
    Stage stage;
    for (std::string kind : {"lock", "read", "write"}) {
        const std::string end = "end_" + kind, other = kind == "lock" ? "lock" : "write";
        for (std::string first : {kind, "try_" + kind}) {
            for (std::string second : {kind, "try_" + kind}) {
                SCOPED_TRACE(first + " " + second);
                stage.play({{"A", first + " " + second + " " + end, "111"},
                            {"B", "try_" + other, "0"},
                            {"A", end, "1"},
                            {"B", "try_" + other + " end_" + other, "11"}});
            }
        }
    }
}

TEST(IpLocks, BrokenPreconditionsAreInternalErrors)
{
    for (const auto &[order, obey] : ORDERS) {
        if (order.find("lock") != order.npos)
            EXPECT_INTERNAL_ERROR(obey({}), "mutex != 0", "thr_interprocess_mutex");
        else
            EXPECT_INTERNAL_ERROR(obey({}), "sem", "thr_interprocess_rw_sem");
    }
    EXPECT_INTERNAL_ERROR(thr_ip_mutex_destroy(nullptr), "mutex != 0", "thr_interprocess_mutex");
    for (const char *no_path : {static_cast<const char *>(nullptr), ""}) {
        const char text[] = "filepath && *filepath";
        EXPECT_INTERNAL_ERROR(thr_ip_mutex_create(no_path), text, "thr_interprocess_mutex");
        EXPECT_INTERNAL_ERROR(thr_ip_rw_sem_create(no_path), text, "thr_interprocess_rw_sem");
    }
    Stage().play({{"A", "end_lock", "mutex->m_ref_count > 0"},
                  {"B", "end_read", "sem->m_readers_ref_count > 0"},
                  {"C", "write end_write end_write", "sem->m_writers_ref_count > 0"},
                  // These two would wait for themselves.
                  {"D", "read write", "sem->m_readers_ref_count == 0"},
                  {"E", "write read", "sem->m_writers_ref_count == 0"}});
}

// --- mutex --------------------------------------------------------------------------------------

TEST(IpMutex, PassesFromAKilledHolderToAWaitingLock)
{
    Stage().play({{"A", "lock lock end_lock", "111"},
                  {"B", "lock", WAITS},
                  {"A", "kill", WAITS},
                  {"B", "", "1"},
                  {"B", "lock", "1"},
                  {"C", "try_lock", "0"},
                  {"B", "destroy", "1"},
                  {"C", "try_lock", "1"}});
}

TEST(IpMutex, WithoutADirectoryIsNotGood)
{
    ScratchDir scratch;
    const std::string directory = scratch.file("d"), path = directory + "/db";
    THR_IP_MUTEX_OBJ bad(path.c_str());
    CreateDirectoryA(directory.c_str(), nullptr);
    THR_IP_MUTEX_OBJ good(path.c_str());
    EXPECT_TRUE(good.lock());
    good.unlock();
    RemoveDirectoryA(directory.c_str());
    EXPECT_FALSE(good.lock()) << "the directory has gone: no other holder to wait for";
    EXPECT_FALSE(bad.lock() || bad.try_lock());
    EXPECT_FALSE(THR_IP_SCOPED_MUTEX(&bad).was_lock_successful());
    THR_IP_MUTEX record = thr_ip_mutex_create("no such/db");
    EXPECT_FALSE(thr_ip_mutex_is_good(record));
    thr_ip_mutex_destroy(record);
}

TEST(IpMutex, GuardsHandTheirLockOver)
{
    using Guard = THR_IP_SCOPED_MUTEX;
    ScratchDir scratch;
    const std::string path_a = scratch.file("a"), path_b = scratch.file("b");
    auto is_free = [](const std::string &path) {
        return THR_IP_MUTEX_OBJ(path.c_str()).try_lock();
    };
    THR_IP_MUTEX_OBJ a(path_a.c_str()), b(path_b.c_str());
    EXPECT_FALSE(Guard(nullptr).was_lock_successful());
    Guard outer(&a);
    {
        Guard inner(std::move(outer));
        EXPECT_TRUE(inner.was_lock_successful());
        EXPECT_TRUE(Guard(&a).was_lock_successful()) << "the same record: counted";
        EXPECT_FALSE(outer.was_lock_successful() || is_free(path_a));
    }
    EXPECT_TRUE(is_free(path_a)) << "the new owner unlocked";
    outer = Guard(&a);
    EXPECT_TRUE(outer.was_lock_successful()) << "an empty guard can be used again";
    Guard other(&b);
    outer = std::move(other);
    EXPECT_TRUE(is_free(path_a)) << "its own lock goes first";
    EXPECT_FALSE(is_free(path_b) || other.was_lock_successful());
    Guard &same = outer;
    outer = std::move(same);
    EXPECT_FALSE(outer.was_lock_successful()) << "assigned to itself";
    EXPECT_TRUE(is_free(path_b));
}

// --- semaphore ----------------------------------------------------------------------------------

TEST(IpRwSem, ServesReadersTogetherAndWritersBeforeLaterReaders)
{
    Stage stage;
    // Left over by processes that have ended: in nobody's way.
    for (const wchar_t *file : {L"a.1.rdr.flock", L"z.1.rdr.flock", L"c.2.wtr.flock"})
        CloseHandle(CreateFileW(stage.path(file).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0,
                                nullptr));
    stage.play({{"A", "read", "1"},
                {"Neighbour", "read", "1"},
                {"L", "try_write try_read try_write end_read", "0101"},
                {"W", "write", WAITS},
                {"L", "try_write try_read", "00"}});
    EXPECT_FALSE(stage.has(L"z.1.rdr.flock") || stage.has(L"c.2.wtr.flock"));
    EXPECT_TRUE(stage.has(L"db." + std::to_wstring(stage.process("A").pid()) + L".rdr.flock"));
    stage.play({{"L", "read", WAITS},
                {"A", "end_read", "1"},
                {"W", "", WAITS}, // whichever semaphore in the directory it is that is read
                {"Neighbour", "end_read", "1"},
                {"W", "", "1"},
                {"Neighbour", "try_read", "0"},
                {"L", "", WAITS},
                {"W", "try_read end_write", "01"},
                {"L", "", "1"},
                {"L", "end_read", "1"},
                {"Critical", "lock", "1"},
                {"A", "try_read", WAITS},
                {"Critical", "kill", WAITS},
                {"A", "", "1"}});
}

TEST(IpRwSem, PassesOnWhatAnEndedProcessOrADestroyedRecordHeldOrAnnounced)
{
    Stage().play({{"K", "read", "1"},
                  {"A", "write", WAITS},
                  {"R", "try_read", "0"},
                  {"A", "kill", WAITS},
                  {"R", "read read", "11"},
                  {"W", "write", WAITS},
                  {"K", "kill", WAITS},
                  {"W", "", WAITS},
                  {"R", "destroy", "1"},
                  {"W", "", "1"},
                  {"X", "write", WAITS},
                  {"L", "read", WAITS},
                  {"W", "kill", WAITS},
                  {"X", "", "1"},
                  {"X", "write", "1"},
                  {"L", "", WAITS},
                  {"X", "destroy", "1"},
                  {"L", "", "1"}});
}

TEST(IpRwSem, WithoutADirectoryThrows)
{
    const char path[] = "no such/\"db\"";
    EXPECT_THROW(THR_IP_READ_WRITE_SEMAPHORE{path},
                 VELKORA_EXCEPTION_DETAIL::PASS_THROUGH_CONSTRUCTOR);
    std::string caught;
    try {
        THR_IP_READ_WRITE_SEMAPHORE sem(path);
    } catch (const std::exception &) {
        caught = "not by its own type";
    } catch (VELKORA_EXCEPTION e) { // by value, so it is copied
        caught = e.get_errc().get_error_message()[0].m_text;
    }
    EXPECT_EQ(caught, "Failed to create file lock on \"no such/\"db\"\"");
}

// --- under load ---------------------------------------------------------------------------------

// Reads and counts up the number in a file until that has gone, and says each number that it gave.
// Ends with 1 when somebody wrote meanwhile.
ROLE(counts)
{
    THR_IP_READ_WRITE_SEMAPHORE sem(args[0].c_str());
    std::mt19937 random(std::stoul(args[1]));
    auto number_in_file = [&] {
        int number = 0;
        std::ifstream(args[0]) >> number;
        return number;
    };
    support::say("started");
    for (int number = -1; number != 0;) {
        const bool writes = random() % 2;
        writes ? sem.write_lock() : sem.read_lock();
        number = number_in_file();
        const bool counts = writes && number != 0;
        if (counts)
            std::fstream(args[0]) << ++number; // at once: the file is never empty
        Sleep(random() % 16);
        if (number_in_file() != number)
            return 1;
        writes ? sem.write_unlock() : sem.read_unlock();
        if (counts)
            support::say(std::to_string(number));
    }
    return 0;
}

TEST(IpRwSem, KeepsAFileWholeWhileProcessesAreKilled)
{
    const unsigned seed = std::random_device()(), KILLS = 12, START = 1000;
    std::mt19937 random(seed);
    ScratchDir scratch;
    const std::string path = scratch.file("db");
    std::ofstream(path) << START;
    std::vector<std::unique_ptr<Child>> children; // the first four run, the others were killed
    for (unsigned i = 0; i < 4 + KILLS; i++) {
        children.emplace_back(new Child("counts", {path, std::to_string(random())}));
        EXPECT_EQ(children.back()->read_line(), "started");
        if (i >= 4) {
            children.back().swap(children[random() % 4]);
            children.back()->kill();
        }
    }
    unsigned last = 0;
    THR_IP_READ_WRITE_SEMAPHORE sem(path.c_str());
    sem.write_lock();
    std::ifstream(path) >> last;
    EXPECT_TRUE(DeleteFileA(path.c_str()));
    sem.write_unlock();
    std::set<std::string> told;
    for (auto &child : children) {
        EXPECT_NE(child->wait().value_or(1), 1) << "it hangs, or was disturbed";
        while (auto number = child->read_line())
            EXPECT_TRUE(told.insert(*number).second) << *number << " again";
    }
    const size_t given = last - START;
    std::cout << "seed " << seed << ": " << told.size() << " of " << given << " told\n";
    EXPECT_TRUE(told.size() > 10 && told.size() <= given && given - told.size() <= KILLS);
    EXPECT_TRUE(RemoveDirectoryA(scratch.path().c_str())) << "a lock file was left behind";
}

} // namespace
