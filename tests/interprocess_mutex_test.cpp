// The interprocess mutex of thr.dll, among real processes.
#include "support/child.h"
#include "support/handles.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_classes.h"

#include <deque>
#include <fstream>
#include <type_traits>

#include <gtest/gtest.h>

using support::Child;
using support::live_handle_count;
using support::ScratchDir;

namespace
{

// Whether there is a lock file; nobody's may stay behind.
bool is_locked(const std::string &path)
{
    return GetFileAttributesA((path + ".mtx.flock").c_str()) != INVALID_FILE_ATTRIBUTES;
}

// Whether somebody else could have the lock now.
bool is_free(const std::string &path)
{
    return THR_IP_MUTEX_OBJ(path.c_str()).try_lock();
}

// --- several processes --------------------------------------------------------------------------

// Locks a number of times and then does what it is told.
ROLE(holds)
{
    THR_IP_MUTEX mutex = thr_ip_mutex_create(args[0].c_str());
    support::say("waiting");
    for (int i = 0; i < std::stoi(args[1]); i++)
        support::say(thr_ip_mutex_lock(mutex) ? "locked" : "refused");
    while (auto order = support::hear()) {
        *order == "unlock" ? thr_ip_mutex_unlock(mutex) : thr_ip_mutex_destroy(mutex);
        support::say("done");
    }
    return 0;
}

void expect_lines(Child &child, std::initializer_list<const char *> lines)
{
    for (const char *line : lines)
        EXPECT_EQ(child.read_line(), line);
}

TEST(IpMutex, PassesFromAKilledHolderToAWaitingLock)
{
    ScratchDir scratch;
    const std::string path = scratch.file("db");
    Child holder("holds", {path, "2"});
    expect_lines(holder, {"waiting", "locked", "locked"});
    holder.write_line("unlock");
    expect_lines(holder, {"done"});
    EXPECT_FALSE(is_free(path)) << "locked once more than unlocked";
    Child waiter("holds", {path, "2"});
    expect_lines(waiter, {"waiting"});
    EXPECT_EQ(waiter.read_line(100), std::nullopt);
    holder.kill();
    expect_lines(waiter, {"locked", "locked"});
    EXPECT_FALSE(is_free(path));
    waiter.write_line("destroy");
    expect_lines(waiter, {"done"});
    EXPECT_TRUE(is_free(path)) << "whatever the count was";
}

// Adds to a number in a file, in steps that another process could come between.
ROLE(counts)
{
    THR_IP_MUTEX_OBJ mutex(args[0].c_str());
    support::say("ready");
    support::hear();
    for (int i = 0; i < std::stoi(args[1]); i++) {
        THR_IP_SCOPED_MUTEX guard(&mutex);
        if (!guard.was_lock_successful())
            return 1;
        int count = 0;
        std::ifstream(args[0]) >> count;
        Sleep(1);
        std::ofstream(args[0]) << count + 1;
    }
    return 0;
}

TEST(IpMutex, ExcludesProcessesFromEachOther)
{
    ScratchDir scratch;
    const std::string path = scratch.file("count");
    std::deque<Child> children;
    for (int i = 0; i < 4; i++)
        expect_lines(children.emplace_back("counts", support::RoleArgs{path, "15"}), {"ready"});
    for (Child &child : children)
        child.write_line("go");
    for (Child &child : children)
        EXPECT_EQ(child.wait(), 0);
    int count = 0;
    std::ifstream(path) >> count;
    EXPECT_EQ(count, 4 * 15);
    EXPECT_FALSE(is_locked(path));
}

// --- one process --------------------------------------------------------------------------------

TEST(IpMutex, CountsAndExcludesInOneProcessAndLeavesNoHandle)
{
    ScratchDir scratch;
    const std::string path = scratch.file("db");
    size_t before = 0;
    for (int i = 0; i < 3; i++) {
        THR_IP_MUTEX_OBJ first(path.c_str()), second((scratch.path() + "/./db").c_str());
        EXPECT_FALSE(is_locked(path));
        EXPECT_TRUE(first.lock());
        EXPECT_TRUE(first.try_lock());
        EXPECT_FALSE(second.try_lock());
        EXPECT_TRUE(is_free(scratch.file("other")));
        first.unlock();
        EXPECT_FALSE(second.try_lock());
        first.unlock();
        EXPECT_TRUE(second.try_lock());
        EXPECT_TRUE(second.lock());
        EXPECT_FALSE(first.try_lock());
        before = i == 0 ? live_handle_count() : before;
    }
    EXPECT_TRUE(is_free(path)) << "its destructor gave up both holds";
    EXPECT_EQ(live_handle_count() + 1, before) << "the one of the lock that was held then";
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
    static_assert(!std::is_copy_constructible_v<THR_IP_SCOPED_MUTEX>);
    using Guard = THR_IP_SCOPED_MUTEX;
    ScratchDir scratch;
    const std::string path_a = scratch.file("a"), path_b = scratch.file("b");
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

// The mutexes here are never locked, so no file is made.
TEST(IpMutex, BrokenPreconditionsAreInternalErrors)
{
    const std::pair<const char *, void (*)()> cases[] = {
        {"filepath && *filepath", [] { THR_IP_MUTEX_OBJ(""); }},
        {"mutex != 0", [] { thr_ip_mutex_lock(nullptr); }},
        {"mutex != 0", [] { thr_ip_mutex_try_lock(nullptr); }},
        {"mutex != 0", [] { thr_ip_mutex_unlock(nullptr); }},
        {"mutex != 0", [] { thr_ip_mutex_destroy(nullptr); }},
        {"mutex->m_ref_count > 0", [] { THR_IP_MUTEX_OBJ("db").unlock(); }},
    };
    for (const auto &[message, broken] : cases)
        EXPECT_INTERNAL_ERROR(broken(), message, "thr_interprocess_mutex");
}

} // namespace
