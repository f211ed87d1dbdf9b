#include "thr/thr.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace support;

namespace
{

using Messages = std::vector<std::string>;

const char CREATE[] = "CreateThread(0, stack_size, thr_thread_begin, info, 0, 0)";
const char CLOSE[] = "CloseHandle(thread_id->m_thread_handle)";
const char WAIT[] = "WaitForSingleObject(thread_id->m_thread_handle, INFINITE)==WAIT_OBJECT_0";
const char TERMINATE[] = "TerminateThread(thread_id->m_thread_handle, 0)";

// The ways to give an id up: what they report, and the call before the closing of the handle.
struct GiveUp {
    void (*call)(THR_THREAD_ID);
    const char *action, *first_call;
};

const GiveUp GIVE_UPS[] = {
    {[](THR_THREAD_ID id) { thr_thread_wait(id); }, "shut down a thread", WAIT},
    {thr_thread_detach, "detach a thread", nullptr},
    {thr_thread_terminate_and_possibly_crash, "terminate a thread", TERMINATE}};

void *as_value(intptr_t number)
{
    return reinterpret_cast<void *>(number);
}

template <class Condition> bool eventually(Condition condition)
{
    for (DWORD ms = 0; ms < PATIENCE_MS && !condition(); ++ms)
        Sleep(1);
    return condition();
}

// A thread function stops here until the test lets it go on.
struct Gate {
    std::atomic<bool> has_arrived{false}, is_open{false};
    THR_THREAD_ID self = nullptr; // as the thread sees it

    void pass()
    {
        self = thr_thread_self();
        has_arrived = true;
        eventually([this] { return is_open.load(); });
    }
    bool arrived()
    {
        return eventually([this] { return has_arrived.load(); });
    }
};

void *pass_and_return_42(void *gate)
{
    static_cast<Gate *>(gate)->pass();
    return as_value(42);
}

void *pass_and_exit_7(void *gate)
{
    static_cast<Gate *>(gate)->pass();
    thr_thread_exit(as_value(7));
}

void *echo(void *arg)
{
    return arg;
}

void *echo_by_exit(void *arg)
{
    thr_thread_exit(arg);
}

// What the library allocates and frees while this stands. Freed blocks are kept, filled with a
// pattern, so that a second release shows, and so does a write after the release.
class Heap
{
public:
    ~Heap()
    {
        for (auto &[address, block] : s_blocks) {
            if (block.is_freed)
                free(address);
        }
        s_blocks.clear();
        s_wrong_frees = 0;
    }
    size_t live() const
    {
        Lock lock;
        return std::count_if(s_blocks.begin(), s_blocks.end(),
                             [](const auto &entry) { return !entry.second.is_freed; });
    }
    // Whether that block was freed, filled with zeros.
    bool was_zeroed(void *address) const
    {
        Lock lock;
        auto entry = s_blocks.find(address);
        return entry != s_blocks.end() && entry->second.was_zeroed;
    }
    // Frees of what was no live block, and freed blocks that were written to.
    size_t faults() const
    {
        Lock lock;
        return s_wrong_frees +
               std::count_if(s_blocks.begin(), s_blocks.end(), [](const auto &entry) {
                   return entry.second.is_freed && !is_filled(entry, 0xDD);
               });
    }

private:
    struct Block {
        size_t size;
        bool is_freed, was_zeroed;
    };
    using Blocks = std::map<void *, Block>;
    // Opens no handle, unlike std::mutex here.
    struct Lock {
        Lock() { AcquireSRWLockExclusive(&s_lock); }
        ~Lock() { ReleaseSRWLockExclusive(&s_lock); }
    };

    static bool is_filled(const Blocks::value_type &entry, unsigned char byte)
    {
        auto *bytes = static_cast<unsigned char *>(entry.first);
        return std::count(bytes, bytes + entry.second.size, byte) == int64_t(entry.second.size);
    }
    static void *kept_calloc(size_t count, size_t size)
    {
        Lock lock;
        void *address = calloc(count, size);
        s_blocks[address] = {count * size, false, false};
        return address;
    }
    static void *kept_malloc(size_t size) { return memset(kept_calloc(1, size), 0xA5, size); }
    static void kept_free(void *address)
    {
        Lock lock;
        auto entry = s_blocks.find(address);
        if (entry == s_blocks.end() || entry->second.is_freed) {
            ++s_wrong_frees;
            return;
        }
        entry->second.was_zeroed = is_filled(*entry, 0);
        entry->second.is_freed = true;
        memset(address, 0xDD, entry->second.size);
    }

    inline static SRWLOCK s_lock = SRWLOCK_INIT;
    inline static Blocks s_blocks;
    inline static size_t s_wrong_frees;
    ImportPatch m_patches[3] = {
        {"malloc", &kept_malloc}, {"calloc", &kept_calloc}, {"free", &kept_free}};
};

// --- a thread's life ----------------------------------------------------------------------------

struct Creation {
    bool is_plain; // no attributes, flags or thread-id output
    SIZE_T stack_size;
    LPTHREAD_START_ROUTINE start;
    HANDLE thread; // a copy
};

Creation creation;

HANDLE WINAPI recorded_create_thread(SECURITY_ATTRIBUTES *attributes, SIZE_T stack_size,
                                     LPTHREAD_START_ROUTINE start, void *argument, DWORD flags,
                                     DWORD *id)
{
    HANDLE thread = CreateThread(attributes, stack_size, start, argument, flags, id);
    creation = {!attributes && !flags && !id, stack_size, start, nullptr};
    DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &creation.thread, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    return thread;
}

TEST(Thread, RunsAndGivesItsValue)
{
    struct {
        THR_THREAD_FUNC func;
        intptr_t value;
        uint32_t stack_size;
    } cases[] = {{pass_and_return_42, 42, 0},
                 {pass_and_exit_7, 7, 256 * 1024},
                 {pass_and_return_42, 42, 8 * 1024 * 1024}};
    ImportPatch patch("CreateThread", &recorded_create_thread);
    thr_thread_set_stack_size(12345); // no effect
    for (const auto &c : cases) {
        Gate gate;
        THR_THREAD_ID id = thr_thread_create(c.func, &gate, c.stack_size);
        ASSERT_TRUE(gate.arrived());
        EXPECT_EQ(gate.self, id);
        EXPECT_TRUE(creation.is_plain);
        EXPECT_EQ(creation.stack_size, c.stack_size);
        EXPECT_EQ(thr_thread_is_running(id), 1);
        gate.is_open = true;
        EXPECT_TRUE(eventually([&] { return thr_thread_is_running(id) == 0; }));
        EXPECT_EQ(thr_thread_wait(id), as_value(c.value));
        DWORD exit_code = 1;
        EXPECT_TRUE(GetExitCodeThread(creation.thread, &exit_code));
        EXPECT_EQ(exit_code, 0u);
        CloseHandle(creation.thread);
    }
}

TEST(Thread, SelfIsTheMainIdOrNullOnOtherThreadsThanTheLibrarys)
{
    THR_THREAD_ID self = THR_THREAD_MAIN_ID;
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(thr_thread_self(), self);
    std::thread([&] { self = thr_thread_self(); }).join();
    EXPECT_EQ(self, nullptr);
    EXPECT_EQ(thr_thread_is_running(THR_THREAD_MAIN_ID), 1);
}

// --- the record's release -----------------------------------------------------------------------

// A thread in the middle of its function.
struct Scene {
    Heap heap;
    Gate gate;
    ImportPatch patch{"CreateThread", &recorded_create_thread};
    THR_THREAD_ID id;

    explicit Scene(THR_THREAD_FUNC func) : id(thr_thread_create(func, &gate, 0))
    {
        EXPECT_TRUE(gate.arrived());
        expect_kept();
    }
    ~Scene() { CloseHandle(creation.thread); }
    // To its very end: a thread that is terminated on its way out can leave one of
    // the platform's own locks behind.
    void end_the_thread()
    {
        gate.is_open = true;
        EXPECT_EQ(WaitForSingleObject(creation.thread, PATIENCE_MS), WAIT_OBJECT_0);
        EXPECT_EQ(thr_thread_is_running(id), 0);
    }
    void expect_kept() { EXPECT_EQ(heap.live(), 2u) << "the record and its mutex"; }
    void expect_released()
    {
        EXPECT_EQ(heap.live(), 0u);
        EXPECT_TRUE(heap.was_zeroed(id));
        EXPECT_EQ(heap.faults(), 0u);
    }
    // The thread has its record to the end, and releases it then.
    void expect_released_by_the_thread()
    {
        expect_kept();
        gate.is_open = true;
        EXPECT_TRUE(eventually([&] { return heap.live() == 0; }));
        expect_released();
    }
};

TEST(ThreadRecord, IsReleasedByTheSecondOfItsTwoUsers)
{
    const size_t handles = live_handle_count();
    for (THR_THREAD_FUNC func : {pass_and_return_42, pass_and_exit_7}) {
        for (const GiveUp &give_up : GIVE_UPS) {
            Scene scene(func);
            scene.end_the_thread();
            scene.expect_kept();
            give_up.call(scene.id);
            scene.expect_released();
        }
        {
            Scene scene(func);
            thr_thread_detach(scene.id);
            scene.expect_released_by_the_thread();
        }
        Scene scene(func);
        thr_thread_terminate_and_possibly_crash(scene.id);
        scene.gate.is_open = true; // nobody comes to the end any more
        scene.expect_kept();
        EXPECT_EQ(scene.heap.faults(), 0u);
    }
    EXPECT_EQ(live_handle_count(), handles);
}

// One of the threads that start others and give some of them up while they end.
struct Host {
    unsigned seed;
    int rounds;
    int wrong_values = 0;

    static void *run(void *arg)
    {
        Host &host = *static_cast<Host *>(arg);
        std::minstd_rand random(host.seed);
        for (intptr_t round = 1; round <= host.rounds; ++round) {
            THR_THREAD_FUNC func = random() % 2 ? echo : echo_by_exit;
            THR_THREAD_ID id = thr_thread_create(func, as_value(round), 0);
            for (unsigned yields = random() % 4; yields > 0; --yields)
                Sleep(0);
            if (random() % 2)
                thr_thread_detach(id);
            else
                host.wrong_values += thr_thread_wait(id) != as_value(round);
        }
        return nullptr;
    }
};

TEST(ThreadRecord, IsReleasedExactlyOnceUnderLoad)
{
    const unsigned seed = std::random_device()();
    printf("seed %u\n", seed);
    size_t handles = 0;
    for (int rounds : {50, 750}) { // the first time some are opened for good
        handles = live_handle_count();
        Heap heap;
        Host hosts[] = {{seed, rounds}, {seed + 1, rounds}, {seed + 2, rounds}, {seed + 3, rounds}};
        std::vector<THR_THREAD_ID> ids;
        for (Host &host : hosts)
            ids.push_back(thr_thread_create(Host::run, &host, 0));
        for (THR_THREAD_ID id : ids)
            thr_thread_wait(id);
        for (const Host &host : hosts)
            EXPECT_EQ(host.wrong_values, 0);
        EXPECT_TRUE(eventually([&] { return heap.live() == 0; }));
        EXPECT_EQ(heap.faults(), 0u);
    }
    EXPECT_EQ(live_handle_count(), handles);
}

// --- refused calls ------------------------------------------------------------------------------

HANDLE WINAPI refused_create_thread(SECURITY_ATTRIBUTES *, SIZE_T, LPTHREAD_START_ROUTINE, void *,
                                    DWORD, DWORD *)
{
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

// Closes all the same, so that nothing is left open.
BOOL WINAPI refused_close(HANDLE handle)
{
    CloseHandle(handle);
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

BOOL WINAPI refused_terminate(HANDLE, DWORD)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

DWORD wait_result;

DWORD WINAPI refused_wait(HANDLE, DWORD)
{
    SetLastError(ERROR_NOT_SUPPORTED);
    return wait_result;
}

TEST(ThreadRefusal, OfStartAndCloseIsReportedAndTheRecordReleased)
{
    ReportRecorder reports;
    for (const GiveUp &give_up : GIVE_UPS) {
        SCOPED_TRACE(give_up.action);
        {
            Heap heap;
            ImportPatch patch("CreateThread", &refused_create_thread);
            THR_THREAD_ID id = thr_thread_create(echo, as_value(1), 0);
            std::vector<Report> taken = reports.take();
            ASSERT_EQ(taken.size(), 1u);
            EXPECT_EQ(taken[0].message,
                      os_failure_text("create a thread", CREATE, ERROR_NOT_ENOUGH_MEMORY));
            EXPECT_EQ(taken[0].file, "thr/thr_thread.cpp");
            if (give_up.first_call == WAIT)
                EXPECT_EQ(thr_thread_wait(id), nullptr);
            else
                give_up.call(id);
            Messages expected;
            for (const char *call : {give_up.first_call, CLOSE}) {
                if (call)
                    expected.push_back(os_failure_text(give_up.action, call, ERROR_INVALID_HANDLE));
            }
            EXPECT_EQ(reports.take_messages(), expected);
            EXPECT_EQ(heap.live() + heap.faults(), 0u);
        }
        Scene scene(pass_and_return_42);
        scene.end_the_thread();
        ImportPatch patch("CloseHandle", &refused_close);
        give_up.call(scene.id);
        EXPECT_EQ(reports.take_messages(),
                  Messages{os_failure_text(give_up.action, CLOSE, ERROR_ACCESS_DENIED)});
        scene.expect_released();
    }
}

TEST(ThreadRefusal, OfTheWaitLeavesTheRecordToAThreadThatStillRuns)
{
    const size_t handles = live_handle_count();
    ReportRecorder reports;
    for (THR_THREAD_FUNC func : {pass_and_return_42, pass_and_exit_7}) {
        for (DWORD result : {WAIT_FAILED, DWORD(WAIT_TIMEOUT), DWORD(WAIT_ABANDONED)}) {
            for (bool is_finished : {false, true}) {
                Scene scene(func);
                if (is_finished)
                    scene.end_the_thread();
                ImportPatch patch("WaitForSingleObject", &refused_wait);
                wait_result = result;
                const intptr_t value = func == pass_and_return_42 ? 42 : 7;
                EXPECT_EQ(thr_thread_wait(scene.id), as_value(is_finished ? value : 0));
                EXPECT_EQ(
                    reports.take_messages(),
                    Messages{os_failure_text("shut down a thread", WAIT, ERROR_NOT_SUPPORTED)});
                if (is_finished)
                    scene.expect_released();
                else
                    scene.expect_released_by_the_thread();
            }
        }
        Scene scene(func);
        ImportPatch patch("TerminateThread", &refused_terminate);
        thr_thread_terminate_and_possibly_crash(scene.id);
        EXPECT_EQ(reports.take_messages(),
                  Messages{os_failure_text("terminate a thread", TERMINATE, ERROR_ACCESS_DENIED)});
        scene.expect_released_by_the_thread();
    }
    EXPECT_EQ(live_handle_count(), handles);
}

void *call_directly(THR_THREAD_FUNC func, void *arg)
{
    return func(arg);
}

TEST(ThreadDeathTest, InternalErrors)
{
    for (const GiveUp &give_up : GIVE_UPS)
        EXPECT_INTERNAL_ERROR(give_up.call(nullptr), "thread_id", "thr_thread");
    EXPECT_INTERNAL_ERROR(
        {
            RefusedMalloc refused;
            thr_thread_create(echo, nullptr, 0);
        },
        "info", "thr_thread");
    EXPECT_INTERNAL_ERROR(
        {
            ImportPatch patch("CreateThread", &recorded_create_thread);
            thr_thread_wait(thr_thread_create(echo, nullptr, 0));
            creation.start(nullptr);
        },
        "info != 0", "thr_thread");
    EXPECT_INTERNAL_ERROR(
        {
            THR_THREAD_WRAPPER next = call_directly;
            thr_thread_set_next_wrapper_func(call_directly, &next);
        },
        "*next_wrapper_func_ptr == 0", "thr_thread");
}

// --- wrappers -----------------------------------------------------------------------------------

// A wrapper stays for the life of the process, so the chain is built in a process of its own. It
// says a letter for what runs, and the value that comes out.
THR_THREAD_WRAPPER next_of_a, next_of_b;
std::string story;

void *wrapper_a(THR_THREAD_FUNC func, void *arg)
{
    story += 'A';
    void *value = next_of_a(func, arg);
    story += 'a';
    return value;
}

void *wrapper_b(THR_THREAD_FUNC func, void *arg)
{
    story += 'B';
    void *value = next_of_b(func, arg);
    story += 'b';
    return value;
}

void *tell_and_echo(void *arg)
{
    story += thr_thread_self() ? 'f' : '0';
    return arg;
}

void say_story(void *value)
{
    say(story + std::to_string(reinterpret_cast<intptr_t>(value)));
    story.clear();
}

ROLE(wrapper_chain)
{
    Gate gates[2];
    THR_THREAD_ID first = thr_thread_create(pass_and_return_42, &gates[0], 0);
    gates[0].arrived();
    thr_thread_set_next_wrapper_func(wrapper_a, &next_of_a);
    THR_THREAD_ID second = thr_thread_create(pass_and_return_42, &gates[1], 0);
    gates[1].arrived();
    thr_thread_set_next_wrapper_func(wrapper_b, &next_of_b);
    gates[0].is_open = true;
    say_story(thr_thread_wait(first));
    gates[1].is_open = true;
    say_story(thr_thread_wait(second));
    say_story(thr_thread_wait(thr_thread_create(tell_and_echo, as_value(5), 0)));
    say_story(thr_thread_wait(thr_thread_create(echo_by_exit, as_value(6), 0)));
    std::thread([] { say_story(thr_thread_wrapper(tell_and_echo, as_value(7))); }).join();
    say_story(thr_thread_wrapper(tell_and_echo, as_value(8)));
    return 0;
}

TEST(ThreadWrapper, ChainRunsInTheOrderOfRegistration)
{
    Child child("wrapper_chain");
    // Started before the registrations; between them, with A's beginning told by then; after them:
    // to its end, to thr_thread_exit(); on a foreign thread and on the main thread.
    for (const char *line : {"A42", "a42", "ABfba5", "AB6", "AB0ba7", "ABfba8"})
        EXPECT_EQ(child.read_line(), line);
    EXPECT_EQ(child.wait(), 0);
}

} // namespace
