#include "support/test.h"

using namespace support;

namespace
{

void *as_value(intptr_t number)
{
    return reinterpret_cast<void *>(number);
}

bool eventually(const std::atomic<bool> &condition)
{
    const ULONGLONG deadline = GetTickCount64() + PATIENCE_MS;
    while (!condition && GetTickCount64() < deadline)
        Sleep(1);
    return condition;
}

// --- one thread's life --------------------------------------------------------------------------

// Where a thread is when its id is given up: in its function, in two steps of its end, at its end;
// it has none; it is so early that its creator has no handle; or it ends while the other side is
// just before or after its lock.
enum Place { RUNS, BEFORE_LOCK, AFTER_UNLOCK, ENDED, NEVER_RAN, EARLY, ENDS_BEFORE, ENDS_AFTER };

enum Ending { WAIT, TERMINATE, DETACH, REFUSED_WAIT };

struct Life {
    const Ending ending = WAIT;
    const Place place = RUNS;
    THR_THREAD_ID self = nullptr; // as the thread sees it
    HANDLE thread = nullptr;      // the test's own
    HANDLE created = nullptr;     // the library's
    void *value = nullptr;
    std::thread other{};
    std::atomic<DWORD> os_id{0};
    std::atomic<bool> has_arrived{false}, may_go_on{false}, is_given_up{false}, has_moved{false};

    void stop()
    {
        has_arrived = true;
        eventually(may_go_on);
    }
    void end() // to its very end
    {
        DWORD status = 1;
        may_go_on = true;
        EXPECT_EQ(WaitForSingleObject(thread, PATIENCE_MS), WAIT_OBJECT_0);
        EXPECT_TRUE(GetExitCodeThread(thread, &status) && status == 0);
        CloseHandle(std::exchange(thread, nullptr));
    }
    void give_up(THR_THREAD_ID given)
    {
        Gate gate(Refusal{"WaitForSingleObject", ending == REFUSED_WAIT ? EVERY : 0, WAIT_ABANDONED,
                          ERROR_SUCCESS});
        is_given_up = true;
        if (ending == TERMINATE)
            thr_thread_terminate_and_possibly_crash(given);
        else if (ending == DETACH)
            thr_thread_detach(given);
        else
            value = thr_thread_wait(given);
        has_moved = true;
    }
} * life;

// Early, another thread gives the id up, or waits for the creator.
intptr_t create_thread(const Call &call)
{
    EXPECT_TRUE(call.args[1] == 8 << 20 && call.arg<DWORD>(4) == 0) << "the stack and no flags";
    if (life->place != NEVER_RAN)
        life->created = reinterpret_cast<HANDLE>(call.go_on());
    if (life->place == EARLY) {
        EXPECT_TRUE(eventually(life->has_arrived));
        life->other = std::thread([] { life->give_up(life->self); });
        EXPECT_TRUE(eventually(life->has_moved));
    }
    return reinterpret_cast<intptr_t>(life->created);
}

// Before a lock or after an unlock, of the thread or of who gives it up.
void at_section(Place of_thread, Place of_other)
{
    if (GetCurrentThreadId() != life->os_id) {
        if (life->place == of_other && life->is_given_up && life->thread)
            life->end();
    } else if (life->place == of_thread && !life->has_arrived) {
        EXPECT_EQ(thr_thread_self(), of_thread == AFTER_UNLOCK ? nullptr : life->self);
        life->stop();
    }
}

void *live(void *)
{
    life->self = thr_thread_self();
    life->os_id = GetCurrentThreadId();
    life->thread = OpenThread(SYNCHRONIZE | THREAD_QUERY_INFORMATION, FALSE, life->os_id);
    if (life->place != BEFORE_LOCK && life->place != AFTER_UNLOCK)
        life->stop();
    return as_value(42);
}

void *live_and_exit(void *)
{
    thr_thread_exit(live(nullptr));
}

void live_through(Ending ending, Place place, THR_THREAD_FUNC func)
{
    Gate allocations("malloc"), releases("free");
    auto blocks = [&] { return allocations.calls() - releases.calls(); };
    Recorder reports;
    Life lived{ending, place};
    life = &lived;
    THR_THREAD_ID id = thr_thread_create(func, nullptr, 8 << 20);
    const bool has_run = place != NEVER_RAN;
    EXPECT_TRUE(!has_run || (eventually(life->has_arrived) && life->self == id));
    if (place == ENDED)
        life->end();
    const bool is_finished = place == AFTER_UNLOCK || place == ENDED || !has_run;
    EXPECT_TRUE(place == EARLY || thr_thread_is_running(id) == !is_finished);
    EXPECT_TRUE(place == EARLY || blocks() == 2) << "the record and its mutex";
    life->may_go_on = ending == WAIT;
    if (place == EARLY)
        life->other.join();
    else
        life->give_up(id);
    const bool has_value =
        ending == WAIT || (ending == REFUSED_WAIT && (is_finished || place == ENDS_BEFORE));
    EXPECT_EQ(life->value, as_value(has_value && has_run ? 42 : 0));
    EXPECT_EQ(GetThreadId(life->created), 0u) << "closed; may be another thing's by now";
    const bool is_released = is_finished || ending == WAIT || place >= ENDS_BEFORE;
    EXPECT_EQ(blocks(), is_released ? 0 : 2);
    if (life->thread)
        life->end();
    EXPECT_EQ(blocks(), !is_released && ending == TERMINATE ? 2 : 0) << "at its end";
    // whether an ended thread can be terminated is the system's choice
    const bool is_refused = ending == REFUSED_WAIT || !has_run;
    EXPECT_TRUE(reports.take().empty() != is_refused || ending == TERMINATE);
}

TEST(Thread, IsReleasedExactlyOnceHoweverItEnds)
{
    auto enter = [](const Call &call) {
        at_section(BEFORE_LOCK, ENDS_BEFORE);
        return call.go_on();
    };
    auto leave = [](const Call &call) {
        call.go_on();
        at_section(AFTER_UNLOCK, ENDS_AFTER);
        return intptr_t(0);
    };
    auto sleep = [](const Call &call) {
        life->has_moved = true;
        return call.go_on();
    };
    Gate gates[] = {Gate("CreateThread", create_thread), Gate("EnterCriticalSection", enter),
                    Gate("LeaveCriticalSection", leave), Gate("Sleep", sleep)};
    for (Ending ending : {WAIT, TERMINATE, DETACH, REFUSED_WAIT}) {
        for (Place place :
             {RUNS, BEFORE_LOCK, AFTER_UNLOCK, ENDED, NEVER_RAN, EARLY, ENDS_BEFORE, ENDS_AFTER}) {
            if (HasFailure() || (place >= ENDS_BEFORE && ending <= TERMINATE))
                continue; // the first two take no lock
            SCOPED_TRACE(testing::Message() << "ending " << ending << ", place " << place);
            live_through(ending, place, live);
            live_through(ending, place, live_and_exit);
        }
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
    auto end_with = [](void *arg) -> void * { thr_thread_exit(arg); };
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
    (void)thr_thread_create(break_precondition, nullptr, 0);
    Sleep(PATIENCE_MS);
    TerminateProcess(GetCurrentProcess(), 3);
}

TEST(ThreadDeathTest, ThatEndsTheMainThreadOrWaitsForItselfEndsTheProcess)
{
    EXPECT_INTERNAL_ERROR(thr_thread_exit(nullptr), "mutex != 0", "thr_mutex");
    EXPECT_EXIT(report_on_a_worker_that_is_joined_at_exit(), testing::ExitedWithCode(-1),
                "\nthread_id != thr_thread_self\\(\\)\n$");
}

// --- the system, names --------------------------------------------------------------------------

TEST(System, IsAskedForTimeAndProcessors)
{
    std::vector<DWORD> asked;
    auto note = [&](const Call &call) {
        asked.push_back(call.arg<DWORD>(0));
        return intptr_t(0xFFFFFFF7);
    };
    Gate gates[] = {Gate("Sleep", note), Gate("GetTickCount", note)};
    thr_sleep(3);
    thr_sleep(4294968);
    thr_msleep(7);
    EXPECT_EQ(asked, (std::vector<DWORD>{3000, 704, 7}));
    EXPECT_EQ(thr_get_tick_count(), 0xFFFFFFF7);
    EXPECT_EQ(thr_getpid(), static_cast<int>(GetCurrentProcessId()));
    DWORD_PTR all = 0, system = 0;
    EXPECT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &all, &system));
    EXPECT_EQ(thr_get_cpu_affinity_mask(), all);
    Gate affinity("SetThreadAffinityMask", [&](const Call &call) {
        EXPECT_EQ(call.arg<HANDLE>(0), GetCurrentThread());
        EXPECT_EQ(call.arg<DWORD_PTR>(1), all & (0 - all));
        return 1;
    });
    thr_set_thread_affinity_mask((all & (0 - all)) | ~all);
    EXPECT_EQ(affinity.calls(), 1);
}

std::string name_seen;

// The host's. It answers no exception, and the runtime's own handler does not get to know this one.
LONG CALLBACK see_name(EXCEPTION_POINTERS *exception)
{
    EXCEPTION_RECORD &record = *exception->ExceptionRecord;
    if (record.ExceptionCode == 0x406D1388) {
        EXPECT_TRUE(record.ExceptionFlags == 0 && record.NumberParameters == 3);
        EXPECT_EQ(record.ExceptionInformation[0], 0x1000u) << "whole";
        EXPECT_EQ(record.ExceptionInformation[2], 0xFFFFFFFFu) << "the id, and above it the flags";
        name_seen += reinterpret_cast<char *>(record.ExceptionInformation[1]);
        record.ExceptionCode = 1;
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
    EXPECT_EQ(name_seen, "worker of the test");
}

} // namespace
