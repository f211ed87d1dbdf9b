#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace support;

namespace
{

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
    HANDLE thread = nullptr;      // the test's own

    ~Gate() { CloseHandle(thread); }
};

void *pass(void *arg)
{
    Gate &gate = *static_cast<Gate *>(arg);
    gate.self = thr_thread_self();
    gate.thread = OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId());
    gate.has_arrived = true;
    eventually([&] { return gate.is_open.load(); });
    return as_value(42);
}

void *pass_and_exit(void *gate)
{
    thr_thread_exit(pass(gate));
}

void *echo(void *arg)
{
    return arg;
}

void *echo_by_exit(void *arg)
{
    thr_thread_exit(arg);
}

std::atomic<int> live_blocks;

void *page_calloc(size_t count, size_t size)
{
    ++live_blocks;
    return VirtualAlloc(nullptr, count * size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
}

void page_free(void *page)
{
    DWORD protection;
    VirtualProtect(page, 1, PAGE_NOACCESS, &protection);
    --live_blocks;
}

// Counts the library's blocks while this stands. A freed block keeps its page, which nobody may
// touch any more: any use of it, also a second release of a record, ends the program.
struct Heap {
    ImportPatch patches[3] = {{"malloc", +[](size_t size) { return page_calloc(1, size); }},
                              {"calloc", &page_calloc},
                              {"free", &page_free}};

    Heap() { live_blocks = 0; }
};

// --- one thread's life --------------------------------------------------------------------------

const uint32_t STACK_SIZE = 8 * 1024 * 1024;

HANDLE WINAPI checked_create(SECURITY_ATTRIBUTES *attributes, SIZE_T stack_size,
                             LPTHREAD_START_ROUTINE start, void *argument, DWORD flags, DWORD *id)
{
    EXPECT_EQ(stack_size, STACK_SIZE);
    return CreateThread(attributes, stack_size, start, argument, flags, id);
}

// How an id is given up.
enum Ending { WAIT, REFUSED_WAIT, DETACH, TERMINATE };

// Starts a thread and gives it up, at its end or while it runs.
void live_through(Ending ending, bool is_finished, THR_THREAD_FUNC func)
{
    Heap heap;
    Gate gate;
    THR_THREAD_ID id = thr_thread_create(func, &gate, STACK_SIZE);
    EXPECT_TRUE(eventually([&] { return gate.has_arrived.load(); }));
    EXPECT_EQ(gate.self, id);
    EXPECT_EQ(thr_thread_is_running(id), 1);
    gate.is_open = is_finished || ending == WAIT;
    if (is_finished) {
        // To its very end: a thread that is terminated on its way out can leave one of the
        // platform's own locks behind.
        EXPECT_EQ(WaitForSingleObject(gate.thread, PATIENCE_MS), WAIT_OBJECT_0);
        EXPECT_EQ(thr_thread_is_running(id), 0);
    }
    EXPECT_EQ(live_blocks, 2) << "the record and its mutex";
    if (ending == WAIT) {
        EXPECT_EQ(thr_thread_wait(id), as_value(42));
    } else if (ending == REFUSED_WAIT) {
        ReportRecorder reports;
        ImportPatch patch(
            "WaitForSingleObject", +[](HANDLE, DWORD) { return WAIT_ABANDONED; });
        EXPECT_EQ(thr_thread_wait(id), is_finished ? as_value(42) : nullptr);
        EXPECT_EQ(reports.take().size(), 1u);
    } else {
        (ending == DETACH ? thr_thread_detach : thr_thread_terminate_and_possibly_crash)(id);
    }
    EXPECT_EQ(live_blocks, is_finished || ending == WAIT ? 0 : 2);
    gate.is_open = true; // a thread that still runs releases both at its end, a killed one never
    const bool is_killed = ending == TERMINATE && !is_finished;
    EXPECT_TRUE(is_killed || eventually([] { return live_blocks == 0; }));
}

TEST(Thread, IsReleasedExactlyOnceHoweverItEnds)
{
    ImportPatch patch("CreateThread", &checked_create);
    for (Ending ending : {WAIT, REFUSED_WAIT, DETACH, TERMINATE}) {
        for (bool is_finished : {true, false}) {
            SCOPED_TRACE(testing::Message() << "ending " << ending << ", finished " << is_finished);
            live_through(ending, is_finished, pass);
            live_through(ending, is_finished, pass_and_exit);
        }
    }
}

// --- under load ---------------------------------------------------------------------------------

// Starts threads and gives them up while they end. Returns how many gave a wrong value.
int start_many(unsigned seed)
{
    int wrong_values = 0;
    std::minstd_rand random(seed);
    for (intptr_t round = 1; round <= 750; ++round) {
        THR_THREAD_FUNC func = random() % 2 ? echo : echo_by_exit;
        THR_THREAD_ID id = thr_thread_create(func, as_value(round), 0);
        for (unsigned yields = random() % 4; yields > 0; --yields)
            Sleep(0);
        if (random() % 2)
            thr_thread_detach(id);
        else
            wrong_values += thr_thread_wait(id) != as_value(round);
    }
    return wrong_values;
}

// Lets the other side in where a flag that is set too late, or without the lock, would show.
void WINAPI yielding_leave(CRITICAL_SECTION *section)
{
    SwitchToThread();
    LeaveCriticalSection(section);
    SwitchToThread();
}

TEST(Thread, IsReleasedExactlyOnceUnderLoad)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    ImportPatch patch("LeaveCriticalSection", &yielding_leave);
    Heap heap;
    std::atomic<int> wrong_values(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] { wrong_values += start_many(seed + i); });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong_values, 0);
    EXPECT_TRUE(eventually([] { return live_blocks == 0; }));
}

// --- wrappers -----------------------------------------------------------------------------------

// A wrapper stays for the life of the process, so the chain is built in a process of its own. It
// says a letter for what runs, and the value that comes out.
THR_THREAD_WRAPPER next_of[2];
std::string story;

template <int index> void *wrapper(THR_THREAD_FUNC func, void *arg)
{
    story += "AB"[index];
    void *value = next_of[index](func, arg);
    story += "ab"[index];
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
    Gate gate;
    THR_THREAD_ID first = thr_thread_create(pass, &gate, 0);
    eventually([&] { return gate.has_arrived.load(); });
    thr_thread_set_next_wrapper_func(wrapper<0>, &next_of[0]);
    thr_thread_set_next_wrapper_func(wrapper<1>, &next_of[1]);
    gate.is_open = true;
    say_story(thr_thread_wait(first));
    say_story(thr_thread_wait(thr_thread_create(tell_and_echo, as_value(5), 0)));
    say_story(thr_thread_wait(thr_thread_create(echo_by_exit, as_value(6), 0)));
    std::thread([] { say_story(thr_thread_wrapper(tell_and_echo, as_value(7))); }).join();
    return 0;
}

TEST(ThreadWrapper, ChainRunsInTheOrderOfRegistration)
{
    Child child("wrapper_chain");
    // Started before the registrations; after them, to its end and to thr_thread_exit(); on a
    // foreign thread.
    for (const char *line : {"42", "ABfba5", "AB6", "AB0ba7"})
        EXPECT_EQ(child.read_line(), line);
    EXPECT_EQ(child.wait(), 0);
}

TEST(ThreadDeathTest, InternalErrors)
{
    EXPECT_INTERNAL_ERROR(thr_thread_wait(nullptr), "thread_id", "thr_thread");
    for (auto *give_up : {thr_thread_detach, thr_thread_terminate_and_possibly_crash})
        EXPECT_INTERNAL_ERROR(give_up(nullptr), "thread_id", "thr_thread");
    EXPECT_INTERNAL_ERROR(std::thread(echo_by_exit, nullptr).join(), "info != 0", "thr_thread");
    next_of[0] = wrapper<1>;
    EXPECT_INTERNAL_ERROR(thr_thread_set_next_wrapper_func(wrapper<0>, &next_of[0]),
                          "*next_wrapper_func_ptr == 0", "thr_thread");
}

// --- variables, time, processors, names ---------------------------------------------------------

DWORD WINAPI refused_tls_alloc()
{
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return TLS_OUT_OF_INDEXES;
}

TEST(ThreadVar, EachThreadHasItsOwnValue)
{
    THR_THREAD_VAR var;
    int value, other_value;
    ASSERT_EQ(thr_thread_var_init(&var), 0);
    EXPECT_EQ(thr_thread_var_set(&var, &value), 0);
    std::thread([&] {
        EXPECT_EQ(thr_thread_var_get(&var), nullptr);
        EXPECT_EQ(thr_thread_var_set(&var, &other_value), 0);
    }).join();
    EXPECT_EQ(thr_thread_var_get(&var), &value);
    EXPECT_EQ(thr_thread_var_destroy(&var), 0);
    ImportPatch patch("TlsAlloc", &refused_tls_alloc);
    EXPECT_EQ(thr_thread_var_init(&var), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(thr_thread_var_destroy(&var), ERROR_INVALID_PARAMETER) << "no variable";
}

std::vector<DWORD> sleeps;

TEST(System, TimeIsComputedIn32Bits)
{
    const DWORD before = GetTickCount();
    const uint32_t ticks = thr_get_tick_count();
    EXPECT_LE(ticks - before, GetTickCount() - before);
    ImportPatch patch(
        "Sleep", +[](DWORD milliseconds) { sleeps.push_back(milliseconds); });
    thr_sleep(3);
    thr_sleep(4294968);
    thr_msleep(7);
    EXPECT_EQ(sleeps, (std::vector<DWORD>{3000, 704, 7}));
}

TEST(Affinity, KeepsTheThreadOnTheProcessorsInside)
{
    DWORD_PTR all = 0, system = 0;
    ASSERT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &all, &system));
    const DWORD_PTR lowest = all & (0 - all);
    EXPECT_EQ(thr_get_cpu_affinity_mask(), all);
    std::thread([&] {
        thr_set_thread_affinity_mask(lowest | ~all);
        EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), lowest);
    }).join();
    EXPECT_INTERNAL_ERROR(thr_set_thread_affinity_mask(~all), "affinity_mask != 0", "thr_thread");
}

const DWORD NAMING_CODE = 0x406D1388;

std::string raised_name;

// In the middle of the library's own raise, another thread of the host raises the same code.
void WINAPI raise_beside_another_thread(DWORD code, DWORD flags, DWORD count,
                                        const ULONG_PTR *arguments)
{
    EXPECT_TRUE(code == NAMING_CODE && flags == 0 && count == 3);
    EXPECT_EQ(arguments[0] & 0xFFFFFFFF, 0x1000u);
    EXPECT_EQ(arguments[2], 0xFFFFFFFFu) << "the id in the lower half, flags in the upper";
    raised_name = reinterpret_cast<const char *>(arguments[1]);
    std::thread([] { RaiseException(NAMING_CODE, 0, 0, nullptr); }).join();
    RaiseException(code, flags, count, arguments);
}

std::atomic<int> seen_by_host;

LONG CALLBACK host_handler(EXCEPTION_POINTERS *exception)
{
    if (exception->ExceptionRecord->ExceptionCode != NAMING_CODE)
        return EXCEPTION_CONTINUE_SEARCH;
    ++seen_by_host;
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST(Rename, RaisesTheNamingRecordAndLeavesTheHostsExceptionsToTheHost)
{
    void *handler = AddVectoredExceptionHandler(1, host_handler);
    ImportPatch patch("RaiseException", &raise_beside_another_thread);
    thr_rename_thread("worker of the test");
    EXPECT_EQ(raised_name, "worker of the test");
    EXPECT_EQ(seen_by_host, 1) << "the other thread's, and not the library's own";
    RaiseException(NAMING_CODE, 0, 0, nullptr);
    EXPECT_EQ(seen_by_host, 2) << "after the call every exception is the host's";
    RemoveVectoredExceptionHandler(handler);
}

} // namespace
