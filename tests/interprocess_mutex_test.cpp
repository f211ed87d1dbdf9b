// The interprocess mutex of thr.dll, among real processes.
#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_classes.h"

#include <fstream>
#include <type_traits>

#include <gtest/gtest.h>

using support::Child;
using support::ImportPatch;
using support::live_handle_count;
using support::ScratchDir;

namespace
{

const char FILE_NAME[] = "thr_interprocess_mutex";

bool there(const std::string &path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string lock_file(const std::string &path)
{
    return path + ".mtx.flock";
}

// Whether somebody else could have the lock now.
bool is_free(const std::string &path)
{
    return THR_IP_MUTEX_OBJ(path.c_str()).try_lock();
}

// The record, for what no caller can bring about.
struct Record {
    bool m_has_name;
    char *m_name;
    void *m_lock_fh;
    int32_t m_ref_count;
};

Record &fields(THR_IP_MUTEX mutex)
{
    return *reinterpret_cast<Record *>(mutex);
}

// --- several processes --------------------------------------------------------------------------

// Locks a number of times and then does what it is told.
ROLE(holds)
{
    THR_IP_MUTEX mutex = thr_ip_mutex_create(args[0].c_str());
    support::say("waiting");
    for (int i = 0; i < std::stoi(args[1]); i++)
        support::say(thr_ip_mutex_lock(mutex) ? "locked" : "refused");
    for (auto order = support::hear(); order; order = support::hear()) {
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

TEST(IpMutex, IsFreeAfterTheLastUnlockOrTheRecordsEnd)
{
    ScratchDir scratch;
    const std::string path = scratch.file("db");
    for (std::vector<std::string> orders :
         {std::vector<std::string>{"unlock", "unlock", "unlock"}, {"destroy"}}) {
        Child holder("holds", {path, "3"});
        expect_lines(holder, {"waiting", "locked", "locked", "locked"});
        for (const std::string &order : orders) {
            EXPECT_TRUE(there(lock_file(path)));
            EXPECT_FALSE(is_free(path));
            holder.write_line(order);
            expect_lines(holder, {"done"});
        }
        EXPECT_FALSE(there(lock_file(path)));
        EXPECT_TRUE(is_free(path));
    }
}

TEST(IpMutex, PassesFromAKilledHolderToAWaitingLock)
{
    ScratchDir scratch;
    const std::string path = scratch.file("db");
    Child holder("holds", {path, "1"});
    expect_lines(holder, {"waiting", "locked"});
    Child waiter("holds", {path, "1"});
    expect_lines(waiter, {"waiting"});
    EXPECT_EQ(waiter.read_line(100), std::nullopt);
    holder.kill();
    expect_lines(waiter, {"locked"});
    EXPECT_FALSE(is_free(path));
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
    const int PROCESSES = 4, TIMES = 15;
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < PROCESSES; i++) {
        children.push_back(
            std::make_unique<Child>("counts", support::RoleArgs{path, std::to_string(TIMES)}));
        ASSERT_EQ(children.back()->read_line(), "ready");
    }
    for (auto &child : children)
        child->write_line("go");
    for (auto &child : children)
        EXPECT_EQ(child->wait(), 0);
    int count = 0;
    std::ifstream(path) >> count;
    EXPECT_EQ(count, PROCESSES * TIMES);
    EXPECT_FALSE(there(lock_file(path)));
}

// --- one process --------------------------------------------------------------------------------

TEST(IpMutex, CountsAndExcludesInOneProcessAndLeavesNoHandle)
{
    ScratchDir scratch;
    const std::string path = scratch.file("db");
    size_t before = 0;
    for (int i = 0; i < 5; i++) {
        THR_IP_MUTEX_OBJ first(path.c_str());
        THR_IP_MUTEX_OBJ second((scratch.path() + "/./db").c_str());
        EXPECT_FALSE(there(lock_file(path))) << "made, but not locked";
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
    THR_IP_MUTEX bad = thr_ip_mutex_create("no such/db");
    EXPECT_FALSE(thr_ip_mutex_is_good(bad));
    EXPECT_EQ(thr_ip_mutex_lock(bad), 0);
    EXPECT_EQ(thr_ip_mutex_try_lock(bad), 0);
    thr_ip_mutex_destroy(bad);
    THR_IP_MUTEX_OBJ bad_obj("no such/db");
    EXPECT_FALSE(THR_IP_SCOPED_MUTEX(&bad_obj).was_lock_successful());
}

TEST(IpMutex, GivesUpOnOtherRefusalsThanAnotherHolder)
{
    ScratchDir scratch;
    const std::string directory = scratch.file("d");
    CreateDirectoryA(directory.c_str(), nullptr);
    THR_IP_MUTEX mutex = thr_ip_mutex_create((directory + "/db").c_str());
    for (DWORD code : {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_ALREADY_EXISTS}) {
        static DWORD error;
        error = code;
        auto refuse = +[](LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
            SetLastError(error);
            return INVALID_HANDLE_VALUE;
        };
        ImportPatch refused("CreateFileW", refuse);
        EXPECT_EQ(thr_ip_mutex_lock(mutex), 0);
        EXPECT_EQ(thr_ip_mutex_try_lock(mutex), 0);
    }
    EXPECT_EQ(thr_ip_mutex_lock(mutex), 1) << "unharmed by the refusals";
    thr_ip_mutex_unlock(mutex);
    RemoveDirectoryA(directory.c_str());
    EXPECT_EQ(thr_ip_mutex_lock(mutex), 0) << "the directory has gone";
    thr_ip_mutex_destroy(mutex);
}

TEST(IpMutex, GuardsHandTheirLockOver)
{
    static_assert(!std::is_copy_constructible_v<THR_IP_SCOPED_MUTEX> &&
                  !std::is_copy_assignable_v<THR_IP_SCOPED_MUTEX> &&
                  !std::is_copy_constructible_v<THR_IP_MUTEX_OBJ> &&
                  !std::is_copy_assignable_v<THR_IP_MUTEX_OBJ>);
    using Guard = THR_IP_SCOPED_MUTEX;
    ScratchDir scratch;
    const std::string path_a = scratch.file("a"), path_b = scratch.file("b");
    THR_IP_MUTEX_OBJ a(path_a.c_str()), b(path_b.c_str());
    EXPECT_FALSE(Guard(nullptr).was_lock_successful());
    {
        Guard outer(&a);
        EXPECT_TRUE(outer.was_lock_successful());
        {
            Guard inner(std::move(outer));
            EXPECT_FALSE(outer.was_lock_successful());
            EXPECT_TRUE(inner.was_lock_successful());
            Guard again(&a); // the same record: counted
            EXPECT_TRUE(again.was_lock_successful());
        }
        EXPECT_TRUE(is_free(path_a)) << "the new owner unlocked";
        outer = Guard(&a);
        EXPECT_TRUE(outer.was_lock_successful()) << "an empty guard can be used again";
        EXPECT_FALSE(is_free(path_a));
        Guard other(&b);
        outer = std::move(other);
        EXPECT_TRUE(is_free(path_a)) << "its own lock goes first";
        EXPECT_FALSE(is_free(path_b));
        EXPECT_TRUE(outer.was_lock_successful());
        EXPECT_FALSE(other.was_lock_successful());
        Guard &same = outer;
        outer = std::move(same);
        EXPECT_FALSE(outer.was_lock_successful()) << "assigned to itself";
        EXPECT_TRUE(is_free(path_b));
        outer = Guard(&b);
    }
    EXPECT_TRUE(is_free(path_b));
}

// --- fatal paths --------------------------------------------------------------------------------

// The mutexes here are never locked, so no file is made.
TEST(IpMutex, BrokenPreconditionsAreInternalErrors)
{
    static auto with_fields = [](void *lock_fh, int count, auto function) {
        THR_IP_MUTEX mutex = thr_ip_mutex_create("db");
        fields(mutex).m_lock_fh = lock_fh;
        fields(mutex).m_ref_count = count;
        function(mutex);
    };
    const std::pair<const char *, void (*)()> cases[] = {
        {"filepath && *filepath", [] { thr_ip_mutex_create(nullptr); }},
        {"filepath && *filepath", [] { THR_IP_MUTEX_OBJ(""); }},
        {"mutex != 0", [] { thr_ip_mutex_lock(nullptr); }},
        {"mutex != 0", [] { thr_ip_mutex_try_lock(nullptr); }},
        {"mutex != 0", [] { thr_ip_mutex_unlock(nullptr); }},
        {"mutex != 0", [] { thr_ip_mutex_destroy(nullptr); }},
        {"mutex->m_ref_count > 0", [] { THR_IP_MUTEX_OBJ("db").unlock(); }},
        {"mutex->m_ref_count > 0", [] { THR_IP_MUTEX_OBJ("no such/db").unlock(); }},
        {"mutex->m_lock_fh != nullptr", [] { with_fields(nullptr, 0, thr_ip_mutex_unlock); }},
        {"mutex->m_lock_fh != nullptr", [] { with_fields(nullptr, 1, thr_ip_mutex_destroy); }},
    };
    for (const auto &[message, broken] : cases)
        EXPECT_INTERNAL_ERROR(broken(), message, FILE_NAME);
}

// Creates a mutex, with the nth allocation refused.
ROLE(creates_without_memory)
{
    static int calls, refused;
    refused = std::stoi(args[0]);
    thr_set_report_func([](const char *message, auto...) { support::say(message); });
    ImportPatch patch(
        "malloc", +[](size_t size) { return ++calls == refused ? nullptr : malloc(size); });
    thr_ip_mutex_create("db");
    support::say("created");
    return 0;
}

TEST(IpMutex, FailedAllocationsAreInternalErrors)
{
    std::vector<std::string> messages;
    do {
        Child child("creates_without_memory", {std::to_string(messages.size() + 1)});
        messages.push_back(child.read_line().value_or("none"));
        EXPECT_EQ(child.wait(), messages.back() == "created" ? 0 : -1);
    } while (messages.back() != "created" && messages.size() < 20);
    // The path, the record and its name come last, after texts that last for a moment.
    ASSERT_GE(messages.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(messages.end() - 4, messages.end()),
              (std::vector<std::string>{"fullpath", "mutex", "mutex", "created"}));
}

TEST(IpMutex, NameThatIsNotThereFailsBoostsAssertion)
{
    auto unlock_nameless = [] {
        thr_set_report_func([](auto...) { fputs("reported", stderr); });
        THR_IP_MUTEX mutex = thr_ip_mutex_create("no such/db");
        fields(mutex).m_ref_count = 1;
        thr_ip_mutex_unlock(mutex);
    };
    EXPECT_EXIT(unlock_nameless(), testing::ExitedWithCode(-1), "^this->is_initialized\\(\\)\n$");
}

} // namespace
