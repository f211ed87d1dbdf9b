#include "support/test.h"

using namespace support;

namespace
{

// --- one thread's life --------------------------------------------------------------------------

// Where a thread is when its id is given up: so early that its creator has no handle, in its
// function, in a step of its end, nowhere; or it ends while the other side is just before or after
// its lock.
enum Place { EARLY, RUNS, LOCKS, LOCKED, UNLOCKED, ENDED, NEVER_RAN, ENDS_BEFORE, ENDS_AFTER };

// How, and by place what comes of it: the value and release at once, release at once, release at
// the thread's end, or never. What is '-' would wait for a lock that is held, or takes none.
enum Ending { WAIT, TERMINATE, DETACH, REFUSED_WAIT, REFUSED_TERMINATE };
const char *const OUTCOMES[] = {"vvv-vv0--", "nnnn000--", "eee-00000", "eee-vv0v0", "eee-00000"};

struct Life {
    const Ending ending;
    const Place place;
    const bool exits;             // by thr_thread_exit()
    THR_THREAD_ID self = nullptr; // as the thread sees it
    HANDLE thread = nullptr;      // the test's own
    HANDLE created = nullptr;     // the library's
    void *value = nullptr;
    std::thread other{};
    std::atomic<DWORD> os_id{0};
    std::atomic<bool> has_arrived{false}, may_go_on{false}, gives_up{false}, is_given_up{false};

    Gate allocations{"malloc"}, releases{"free"}, sleep{"Sleep"};
    Gate wait{Refusal{"WaitForSingleObject", ending == REFUSED_WAIT ? 1 : 0, WAIT_ABANDONED, 0}};
    Gate terminate{Refusal{"TerminateThread", ending == REFUSED_TERMINATE ? 1 : 0, FALSE, 5}};
    Gate create{"CreateThread", [this](const Call &call) { return start(call); }};
    Gate enter{"EnterCriticalSection", [this](const Call &call) {
                   meet(LOCKS, ENDS_BEFORE);
                   call.go_on();
                   meet(LOCKED, LOCKED);
                   return 0;
               }};
    Gate leave{"LeaveCriticalSection", [this](const Call &call) {
                   call.go_on();
                   meet(UNLOCKED, ENDS_AFTER);
                   return 0;
               }};

    LONG blocks() const { return allocations.calls() - releases.calls(); }

    // Early, another thread gives the id up, or waits for the creator.
    intptr_t start(const Call &call)
    {
        EXPECT_TRUE(call.args[1] == 8 << 20 && call.arg<DWORD>(4) == 0) << "the stack and no flags";
        if (place != NEVER_RAN)
            created = reinterpret_cast<HANDLE>(call.go_on());
        if (place == EARLY) {
            EXPECT_TRUE(eventually([this] { return has_arrived.load(); }));
            other = std::thread([this] { give_up(self); });
            EXPECT_TRUE(eventually([this] { return sleep.calls() || is_given_up; }));
        }
        return reinterpret_cast<intptr_t>(created);
    }
    // The thread stops at its place, or comes to its very end at that of who gives it up.
    void meet(Place of_thread, Place of_other)
    {
        if (GetCurrentThreadId() != os_id) {
            if (place == of_other && gives_up && thread)
                end();
        } else if (place == of_thread && !has_arrived) {
            EXPECT_EQ(thr_thread_self(), of_thread == UNLOCKED ? nullptr : self);
            stop();
        }
    }
    void stop()
    {
        has_arrived = true;
        EXPECT_TRUE(eventually([this] { return may_go_on.load(); }));
    }
    void end()
    {
        may_go_on = true;
        EXPECT_EQ(WaitForSingleObject(thread, PATIENCE_MS), WAIT_OBJECT_0);
        CloseHandle(std::exchange(thread, nullptr));
    }
    void *live()
    {
        self = thr_thread_self();
        os_id = GetCurrentThreadId();
        thread = OpenThread(SYNCHRONIZE, FALSE, os_id);
        if (place != LOCKS && place != LOCKED && place != UNLOCKED)
            stop();
        if (exits)
            thr_thread_exit(this);
        return this;
    }
    void give_up(THR_THREAD_ID id)
    {
        gives_up = true;
        if (ending == DETACH)
            thr_thread_detach(id);
        else if (ending == TERMINATE || ending == REFUSED_TERMINATE)
            thr_thread_terminate_and_possibly_crash(id);
        else
            value = thr_thread_wait(id);
        is_given_up = true;
    }
    void run()
    {
        auto func = [](void *life) { return static_cast<Life *>(life)->live(); };
        THR_THREAD_ID id = thr_thread_create(func, this, 8 << 20);
        const bool has_run = place != NEVER_RAN;
        EXPECT_TRUE(!has_run || (eventually([this] { return has_arrived.load(); }) && self == id));
        if (place == ENDED)
            end();
        const bool is_finished = place >= UNLOCKED && place <= NEVER_RAN;
        EXPECT_TRUE(place == EARLY || thr_thread_is_running(id) == !is_finished);
        EXPECT_TRUE(place == EARLY || blocks() == 2) << "the record and its mutex";
        may_go_on = ending == WAIT;
        place == EARLY ? other.join() : give_up(id);
        const char outcome = OUTCOMES[ending][place];
        EXPECT_EQ(value, outcome == 'v' ? this : nullptr);
        EXPECT_EQ(blocks(), outcome == 'v' || outcome == '0' ? 0 : 2);
        EXPECT_EQ(GetThreadId(created), 0u) << "closed; may be another thing's by now";
        if (thread)
            end();
        EXPECT_EQ(blocks(), outcome == 'n' ? 2 : 0);
    }
};

TEST(Thread, IsReleasedExactlyOnceHoweverItEnds)
{
    thr_set_report_func([](auto...) {}); // what is refused is told
    for (int i = 0; i < 5 * 9 * 2 && !HasFailure(); i++) {
        const int ending = i / 18, place = i / 2 % 9;
        SCOPED_TRACE(testing::Message() << "ending " << ending << ", place " << place);
        if (OUTCOMES[ending][place] != '-')
            Life{Ending(ending), Place(place), i % 2 == 0}.run();
    }
}

// --- wrappers -----------------------------------------------------------------------------------

// A wrapper stays for the life of the process, so the chain is built in a process of its own. The
// story has a letter for what runs.
THR_THREAD_WRAPPER *next_of; // has a page of its own
std::string story;

template <int index> void *wrapper(THR_THREAD_FUNC func, void *arg)
{
    story += "AB"[index];
    return next_of[index](func, arg);
}

void *tell(void *arg)
{
    story += 'f';
    return arg;
}

void build_chain()
{
    // Runs the chain in the moment before a registration fills the wrapper's slot.
    AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS *exception) -> LONG {
        DWORD before = 0;
        if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_ACCESS_VIOLATION)
            VirtualProtect(next_of, 1, PAGE_READWRITE, &before);
        if (before != PAGE_READONLY)
            return EXCEPTION_CONTINUE_SEARCH;
        thr_thread_wrapper(tell, nullptr);
        return EXCEPTION_CONTINUE_EXECUTION;
    });
    next_of = static_cast<THR_THREAD_WRAPPER *>(
        VirtualAlloc(nullptr, 1, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    for (THR_THREAD_WRAPPER added : {wrapper<0>, wrapper<1>}) {
        DWORD before;
        VirtualProtect(next_of, 1, PAGE_READONLY, &before);
        thr_thread_set_next_wrapper_func(added, &next_of[added == wrapper<1>]);
    }
    thr_thread_wait(thr_thread_create(tell, nullptr, 0));
    fputs(story.c_str(), stderr);
    thr_thread_set_next_wrapper_func(wrapper<0>, next_of);
}

// Its function is done then, and its id that of none.
void wait_for_itself_at_its_end()
{
    static THR_THREAD_ID self;
    Gate end("ExitThread", [](const Call &) { return thr_thread_wait(self) ? 1 : 0; });
    auto func = [](void *) -> void * {
        self = thr_thread_self();
        thr_thread_exit(nullptr);
    };
    (void)thr_thread_create(func, nullptr, 0);
    Sleep(PATIENCE_MS);
}

TEST(ThreadDeathTest, WrappersRunInTheirOrderAndAreWholeAtAnyTime)
{
    // During the two registrations, and after them; and a wrapper that is registered again.
    EXPECT_EXIT(build_chain(), testing::ExitedWithCode(-1),
                "^fAfABfInternal Error.*\n\\*next_wrapper_func_ptr == 0\n$");
}

TEST(ThreadDeathTest, WaitingForItselfOrForTheMainThreadEndsTheProcess)
{
    const std::string own = "thread_id != thr_thread_self()";
    EXPECT_INTERNAL_ERROR(thr_thread_exit(nullptr), "mutex != 0", "thr_mutex");
    EXPECT_INTERNAL_ERROR(thr_thread_wait(THR_THREAD_MAIN_ID), own, "thr_thread");
    EXPECT_INTERNAL_ERROR(wait_for_itself_at_its_end(), own, "thr_thread");
    EXPECT_EXIT(std::thread(thr_thread_wait, THR_THREAD_MAIN_ID).join(),
                testing::ExitedWithCode(-1), "could not shut down a thread");
}

// --- the system, names --------------------------------------------------------------------------

TEST(System, IsAskedForTimeProcessorsAndVariables)
{
    std::vector<intptr_t> asked;
    auto note = [&](const Call &call) {
        asked.push_back(call.arg<DWORD>(0));
        return intptr_t(0xFFFFFFF7);
    };
    auto processors = [&](const Call &call) {
        *call.arg<DWORD_PTR *>(1) = 6;
        return *call.arg<DWORD_PTR *>(2) = 15; // of the system
    };
    auto set = [&](const Call &call) {
        asked.insert(asked.end(), call.args, call.args + 2);
        return TRUE;
    };
    Gate gates[] = {Gate("Sleep", note), Gate("GetTickCount", note),
                    Gate("GetProcessAffinityMask", processors), Gate("SetThreadAffinityMask", set),
                    Gate(Refusal{"TlsAlloc", 1, intptr_t(TLS_OUT_OF_INDEXES), 8})};
    thr_sleep(3);
    thr_sleep(4294968);
    thr_msleep(7);
    thr_set_thread_affinity_mask(10);
    const intptr_t current = reinterpret_cast<intptr_t>(GetCurrentThread());
    EXPECT_EQ(asked, (std::vector<intptr_t>{3000, 704, 7, current, 2}));
    EXPECT_EQ(thr_get_cpu_affinity_mask(), 6u);
    EXPECT_EQ(thr_get_tick_count(), 0xFFFFFFF7);
    EXPECT_EQ(thr_getpid(), static_cast<int>(GetCurrentProcessId()));
    THR_THREAD_VAR variable = 5000; // which is none
    EXPECT_EQ(thr_thread_var_set(&variable, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(thr_thread_var_destroy(&variable), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(thr_thread_var_init(&variable), 8);
    EXPECT_TRUE(thr_thread_var_init(&variable) == 0 && thr_thread_var_set(&variable, &asked) == 0);
    EXPECT_EQ(thr_thread_var_destroy(&variable), 0);
}

TEST(Rename, RaisesTheNamingRecordForTheHostToSee)
{
    // The host's answers no exception, and the runtime's own handler does not get to know this one.
    static std::string seen;
    void *handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS *exception) -> LONG {
        EXCEPTION_RECORD &record = *exception->ExceptionRecord;
        if (record.ExceptionCode == 0x406D1388) {
            const ULONG_PTR *words = record.ExceptionInformation; // type, name, id with flags
            EXPECT_TRUE(record.ExceptionFlags == 0 && record.NumberParameters == 3 &&
                        words[0] == 0x1000 && words[2] == 0xFFFFFFFF);
            seen += reinterpret_cast<const char *>(words[1]);
            record.ExceptionCode = 1;
        }
        return EXCEPTION_CONTINUE_SEARCH;
    });
    thr_rename_thread("worker of the test");
    RemoveVectoredExceptionHandler(handler);
    EXPECT_EQ(seen, "worker of the test");
}

} // namespace
