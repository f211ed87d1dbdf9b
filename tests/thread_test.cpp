#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
#include <functional>
#include <optional>
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

// What one thread does in the midst of the library, once: before its next lock, after its next
// unlock, between another thread's start and the storing of its handle.
struct Turn {
    std::atomic<DWORD> thread{0};
    std::function<void()> action;

    void give(std::function<void()> next)
    {
        action = next;
        thread = GetCurrentThreadId();
    }
    void take()
    {
        if (thread == GetCurrentThreadId()) {
            thread = 0;
            action();
        }
    }
} before_lock, after_unlock, before_handle;

const uint32_t STACK_SIZE = 8 * 1024 * 1024;

bool refuses_threads;
HANDLE created; // the last thread

HANDLE WINAPI watched_create(SECURITY_ATTRIBUTES *attributes, SIZE_T stack_size,
                             LPTHREAD_START_ROUTINE start, void *argument, DWORD flags, DWORD *id)
{
    EXPECT_EQ(stack_size, STACK_SIZE);
    created = nullptr;
    if (!refuses_threads)
        created = CreateThread(attributes, stack_size, start, argument, flags, id);
    before_handle.take();
    return created;
}

// Where a thread is when its id is given up. In the last two it then ends while the other side is
// just before or after its lock.
enum Place { IN_FUNCTION, BEFORE_LOCK, AFTER_UNLOCK, ENDED, NEVER_RAN, ENDS_BEFORE, ENDS_AFTER };

struct Life {
    const Place place = IN_FUNCTION;
    THR_THREAD_ID self = nullptr; // as the thread sees it
    HANDLE thread = nullptr;      // the test's own
    std::atomic<bool> has_arrived{false}, may_go_on{false};

    void stop()
    {
        has_arrived = true;
        eventually([this] { return may_go_on.load(); });
    }
    void await_arrival()
    {
        EXPECT_TRUE(eventually([this] { return has_arrived.load(); }));
    }
    void end() // to its very end
    {
        may_go_on = true;
        EXPECT_EQ(WaitForSingleObject(thread, PATIENCE_MS), WAIT_OBJECT_0);
        CloseHandle(thread);
        thread = nullptr;
    }
};

void *live(void *arg)
{
    Life &life = *static_cast<Life *>(arg);
    life.self = thr_thread_self();
    life.thread = OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId());
    auto stop_at_end = [&life] {
        EXPECT_EQ(thr_thread_self(), life.place == AFTER_UNLOCK ? nullptr : life.self);
        life.stop();
    };
    if (life.place == BEFORE_LOCK)
        before_lock.give(stop_at_end);
    else if (life.place == AFTER_UNLOCK)
        after_unlock.give(stop_at_end);
    else
        life.stop();
    return as_value(42);
}

void *live_and_exit(void *life)
{
    thr_thread_exit(live(life));
}

enum Ending { WAIT, TERMINATE, DETACH, REFUSED_WAIT };

void *give_up(THR_THREAD_ID id, Ending ending)
{
    std::optional<ImportPatch> patch;
    if (ending == REFUSED_WAIT)
        patch.emplace(
            "WaitForSingleObject", +[](HANDLE, DWORD) { return WAIT_ABANDONED; });
    if (ending == WAIT || ending == REFUSED_WAIT)
        return thr_thread_wait(id);
    (ending == DETACH ? thr_thread_detach : thr_thread_terminate_and_possibly_crash)(id);
    return nullptr;
}

void live_through(Ending ending, Place place, THR_THREAD_FUNC func)
{
    Heap heap;
    ReportRecorder reports;
    Life life{place};
    refuses_threads = place == NEVER_RAN;
    THR_THREAD_ID id = thr_thread_create(func, &life, STACK_SIZE);
    if (!refuses_threads) {
        life.await_arrival();
        EXPECT_EQ(life.self, id);
    }
    if (place == ENDED)
        life.end();
    else if (place == ENDS_BEFORE)
        before_lock.give([&] { life.end(); });
    else if (place == ENDS_AFTER)
        after_unlock.give([&] { life.end(); });
    const bool is_finished = place == AFTER_UNLOCK || place == ENDED || place == NEVER_RAN;
    EXPECT_EQ(thr_thread_is_running(id), !is_finished);
    EXPECT_EQ(live_blocks, 2) << "the record and its mutex";
    life.may_go_on = ending == WAIT;
    const void *value = give_up(id, ending);
    const bool has_value =
        ending == WAIT || (ending == REFUSED_WAIT && (is_finished || place == ENDS_BEFORE));
    EXPECT_EQ(value, as_value(has_value && !refuses_threads ? 42 : 0));
    EXPECT_EQ(GetThreadId(created), 0u) << "closed; the value may be another thing's by now";
    const bool is_released = is_finished || ending == WAIT || place >= ENDS_BEFORE;
    EXPECT_EQ(live_blocks, is_released ? 0 : 2);
    if (life.thread)
        life.end();
    EXPECT_EQ(live_blocks, !is_released && ending == TERMINATE ? 2 : 0) << "at its end";
}

TEST(Thread, IsReleasedExactlyOnceHoweverItEnds)
{
    auto enter = +[](CRITICAL_SECTION *section) {
        before_lock.take();
        EnterCriticalSection(section);
    };
    auto leave = +[](CRITICAL_SECTION *section) {
        LeaveCriticalSection(section);
        after_unlock.take();
    };
    ImportPatch patches[] = {{"CreateThread", &watched_create},
                             {"EnterCriticalSection", enter},
                             {"LeaveCriticalSection", leave}};
    for (Ending ending : {WAIT, TERMINATE, DETACH, REFUSED_WAIT}) {
        for (int place = IN_FUNCTION; place <= ENDS_AFTER; ++place) {
            if (place >= ENDS_BEFORE && ending <= TERMINATE)
                continue; // these take no lock
            SCOPED_TRACE(testing::Message() << "ending " << ending << ", place " << place);
            live_through(ending, static_cast<Place>(place), live);
            live_through(ending, static_cast<Place>(place), live_and_exit);
        }
    }
}

std::atomic<bool> is_waiting_or_done;

TEST(Thread, MayBeGivenUpBeforeItsCreatorHasTheHandle)
{
    auto sleep = +[](DWORD milliseconds) {
        is_waiting_or_done = true;
        Sleep(milliseconds);
    };
    ImportPatch patches[] = {{"CreateThread", &watched_create}, {"Sleep", sleep}};
    refuses_threads = false;
    for (Ending ending : {WAIT, TERMINATE, DETACH}) {
        SCOPED_TRACE(ending);
        Heap heap;
        ReportRecorder reports;
        Life life;
        std::thread other;
        is_waiting_or_done = false;
        before_handle.give([&] {
            life.await_arrival();
            other = std::thread([&] {
                give_up(life.self, ending);
                is_waiting_or_done = true;
            });
            EXPECT_TRUE(eventually([] { return is_waiting_or_done.load(); }));
        });
        thr_thread_create(live, &life, STACK_SIZE);
        life.may_go_on = ending != TERMINATE;
        other.join();
        life.end();
        EXPECT_TRUE(reports.take().empty());
        EXPECT_EQ(GetThreadId(created), 0u);
        EXPECT_EQ(live_blocks, ending == TERMINATE ? 2 : 0);
    }
}

// --- wrappers -----------------------------------------------------------------------------------

// A wrapper stays for the life of the process, so the chain is built in a process of its own. The
// story has a letter for what runs, and the value that comes out.
THR_THREAD_WRAPPER *next_of; // has a page of its own
std::string story;

template <int index> void *wrapper(THR_THREAD_FUNC func, void *arg)
{
    story += "AB"[index];
    void *value = next_of[index](func, arg);
    story += "ab"[index];
    return value;
}

void *tell(void *arg)
{
    story += thr_thread_self() ? 'f' : '0';
    return arg;
}

void *end_with(void *arg)
{
    thr_thread_exit(arg);
}

void tell_value(void *value)
{
    story += std::to_string(reinterpret_cast<intptr_t>(value)) + " ";
}

// Runs the chain in the moment before a registration fills the wrapper's slot.
LONG CALLBACK run_before_write(EXCEPTION_POINTERS *exception)
{
    DWORD before = 0;
    if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_ACCESS_VIOLATION)
        VirtualProtect(next_of, 1, PAGE_READWRITE, &before);
    if (before != PAGE_READONLY)
        return EXCEPTION_CONTINUE_SEARCH;
    tell_value(thr_thread_wrapper(tell, as_value(1)));
    return EXCEPTION_CONTINUE_EXECUTION;
}

void build_chain()
{
    AddVectoredExceptionHandler(1, run_before_write);
    next_of = static_cast<THR_THREAD_WRAPPER *>(
        VirtualAlloc(nullptr, 1, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    for (int index : {0, 1}) {
        DWORD before;
        VirtualProtect(next_of, 1, PAGE_READONLY, &before);
        thr_thread_set_next_wrapper_func(index ? wrapper<1> : wrapper<0>, &next_of[index]);
    }
    tell_value(thr_thread_wait(thr_thread_create(tell, as_value(5), 0)));
    tell_value(thr_thread_wait(thr_thread_create(end_with, as_value(6), 0)));
    std::thread([] { tell_value(thr_thread_wrapper(tell, as_value(7))); }).join();
    fputs(story.c_str(), stderr);
    thr_thread_set_next_wrapper_func(wrapper<0>, next_of);
}

TEST(ThreadWrapperDeathTest, ChainRunsInTheOrderOfRegistrationAndIsWholeAtAnyTime)
{
    // During the registrations; after them, to a thread's end and to thr_thread_exit(); on a
    // foreign thread; and a wrapper that is registered again.
    EXPECT_EXIT(build_chain(), testing::ExitedWithCode(-1),
                "^f1 Afa1 ABfba5 AB6 AB0ba7 Internal Error.*\n\\*next_wrapper_func_ptr == 0\n$");
}

// A worker's report ends the process although an object of the host waits for that worker then.
void report_on_a_worker_that_is_joined_at_exit()
{
    static THR_THREAD_ID worker;
    atexit([] { thr_thread_wait(worker); });
    auto break_precondition = [](void *) -> void * {
        worker = thr_thread_self();
        thr_mutex_lock(nullptr);
        return nullptr;
    };
    thr_thread_create(break_precondition, nullptr, 0);
    Sleep(PATIENCE_MS);
    TerminateProcess(GetCurrentProcess(), 3);
}

TEST(ThreadDeathTest, EndsTheProcessOnAForeignThreadAndWhenItWaitsForItself)
{
    EXPECT_INTERNAL_ERROR(std::thread(end_with, nullptr).join(), "info != 0", "thr_thread");
    EXPECT_EXIT(report_on_a_worker_that_is_joined_at_exit(), testing::ExitedWithCode(-1),
                "\nthread_id != thr_thread_self\\(\\)\n$");
}

// --- variables, time, processors, names ---------------------------------------------------------

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
std::vector<std::string> names_seen;

// The host's. It answers no exception, and the runtime's own handler does not get to know this one.
LONG CALLBACK see_name(EXCEPTION_POINTERS *exception)
{
    EXCEPTION_RECORD &record = *exception->ExceptionRecord;
    if (record.ExceptionCode == NAMING_CODE) {
        EXPECT_TRUE(record.ExceptionFlags == 0 && record.NumberParameters == 3);
        EXPECT_EQ(record.ExceptionInformation[0], 0x1000u) << "whole";
        EXPECT_EQ(record.ExceptionInformation[2], 0xFFFFFFFFu) << "the id, and above it the flags";
        names_seen.emplace_back(reinterpret_cast<char *>(record.ExceptionInformation[1]));
        record.ExceptionCode = NAMING_CODE ^ 1;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

__attribute__((noinline)) void dirty_the_stack()
{
    volatile char dirt[4096];
    for (volatile char &byte : dirt)
        byte = -1;
}

TEST(Rename, RaisesTheNamingRecordForTheHostToSee)
{
    void *handler = AddVectoredExceptionHandler(1, see_name);
    dirty_the_stack();
    thr_rename_thread("worker of the test");
    RemoveVectoredExceptionHandler(handler);
    EXPECT_EQ(names_seen, std::vector<std::string>{"worker of the test"});
}

} // namespace
