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
enum Ending { WAIT, TERMINATE, DETACH, REFUSED_WAIT, ENDINGS };
const char *const OUTCOMES[] = {"vvv-vv0--", "nnnn000--", "eee-00000", "eee-vv0v0"};

struct Life {
    const Ending ending;
    const Place place;
    const bool exits;                           // by thr_thread_exit()
    THR_THREAD_ID self = nullptr;               // as the thread sees it
    HANDLE created = nullptr, thread = nullptr; // the library's, and the test's own
    void *value = nullptr;
    std::thread other{};
    std::atomic<DWORD> os_id{0};
    std::atomic<bool> has_arrived{false}, may_go_on{false}, is_given_up{false};

    Gate allocations{"malloc"}, releases{"free"}, sleep{"Sleep"};
    Gate wait{Refusal{"WaitForSingleObject", ending == REFUSED_WAIT ? 1 : 0, WAIT_ABANDONED, 0}};
    Gate create{"CreateThread", [this](const Call &call) { return start(call); }};
    Gate enter{"EnterCriticalSection", [this](const Call &call) {
                   meet(LOCKS, ENDS_BEFORE);
                   return call.go_on();
               }};
    Gate leave{"LeaveCriticalSection", [this](const Call &call) {
                   meet(LOCKED, LOCKED);
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
            if (place == of_other && thread)
                end();
        } else if (place == of_thread && !has_arrived) {
            EXPECT_EQ(thr_thread_self(), of_thread == LOCKS ? self : nullptr);
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
        if (ending == DETACH)
            thr_thread_detach(id);
        else if (ending == TERMINATE)
            thr_thread_terminate_and_possibly_crash(id);
        else
            value = thr_thread_wait(id);
        is_given_up = true;
    }
    void run()
    {
        auto func = [](void *life) { return static_cast<Life *>(life)->live(); };
        THR_THREAD_ID id = thr_thread_create(func, this, 8 << 20);
        EXPECT_TRUE(place == NEVER_RAN ||
                    (eventually([this] { return has_arrived.load(); }) && self == id));
        if (place == ENDED)
            end();
        const bool is_running = place < LOCKED || place > NEVER_RAN;
        EXPECT_TRUE(place == EARLY || thr_thread_is_running(id) == is_running);
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
    for (int i = 0; i < ENDINGS * 9 * 2 && !HasFailure(); i++) {
        const int ending = i / 18, place = i / 2 % 9;
        SCOPED_TRACE(testing::Message() << "ending " << ending << ", place " << place);
        if (OUTCOMES[ending][place] != '-')
            Life{Ending(ending), Place(place), i % 2 == 0}.run();
    }
}

// --- wrappers -----------------------------------------------------------------------------------

// A wrapper stays for the life of the process, so the chain is built in a process of its own. Each
// part of it writes its letter.
THR_THREAD_WRAPPER next_of[2];

template <int index> void *wrapper(THR_THREAD_FUNC func, void *arg)
{
    fputc("AB"[index], stderr);
    return next_of[index](func, arg);
}

void build_chain()
{
    auto func = [](void *arg) {
        fputc('f', stderr);
        return arg;
    };
    thr_thread_set_next_wrapper_func(wrapper<0>, &next_of[0]);
    thr_thread_set_next_wrapper_func(wrapper<1>, &next_of[1]);
    thr_thread_wait(thr_thread_create(func, nullptr, 0));
    thr_thread_wrapper(func, nullptr);
    // Where a wrapper's own slot is also the one that leads to it, what is written last stays.
    next_of[1] = nullptr;
    thr_thread_set_next_wrapper_func(wrapper<0>, &next_of[1]);
    fputs(next_of[1] == wrapper<0> ? "linked last " : "linked before it is whole ", stderr);
    thr_thread_set_next_wrapper_func(wrapper<0>, &next_of[1]);
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
    thr_thread_wait(thr_thread_create(func, nullptr, 0));
}

TEST(ThreadDeathTest, WrappersRunInTheirOrderAndAreWholeAtAnyTime)
{
    EXPECT_EXIT(build_chain(), testing::ExitedWithCode(-1),
                "^ABfABflinked last Internal Error.*\n\\*next_wrapper_func_ptr == 0\n$");
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

TEST(System, IsAskedForTimeProcessorsVariablesAndNames)
{
    std::vector<intptr_t> asked;
    Gate sleep("Sleep", [&](const Call &call) { return asked.emplace_back(call.arg<DWORD>(0)); });
    Gate set("SetThreadAffinityMask",
             [&](const Call &call) { return asked.emplace_back(call.args[1]); });
    Gate processors("GetProcessAffinityMask", [](const Call &call) {
        *call.arg<DWORD_PTR *>(1) = 6ull << 32;
        return *call.arg<DWORD_PTR *>(2) = 15ull << 32; // of the system
    });
    Gate ticks(Refusal{"GetTickCount", EVERY, 0xFFFFFFF7, 0});
    Gate slots(Refusal{"TlsAlloc", EVERY, intptr_t(TLS_OUT_OF_INDEXES), 8});
    Gate raised("RaiseException", [&](const Call &call) {
        const auto *words = call.arg<const ULONG_PTR *>(3); // type, name, id with flags
        asked.insert(asked.end(), {call.arg<DWORD>(0), call.arg<DWORD>(1), call.arg<DWORD>(2),
                                   intptr_t(words[0]), intptr_t(words[2])});
        EXPECT_STREQ(reinterpret_cast<const char *>(words[1]), "worker");
        RaiseException(1, 0, 0, nullptr); // the runtime would answer the naming itself
        return 0;
    });
    thr_sleep(4294968);
    thr_msleep(7);
    thr_set_thread_affinity_mask(10ull << 32);
    thr_rename_thread("worker");
    EXPECT_EQ(asked,
              (std::vector<intptr_t>{704, 7, 2ll << 32, 0x406D1388, 0, 3, 0x1000, 0xFFFFFFFF}));
    EXPECT_EQ(thr_get_cpu_affinity_mask(), 6ull << 32);
    EXPECT_EQ(thr_get_tick_count(), 0xFFFFFFF7);
    EXPECT_EQ(thr_getpid(), static_cast<int>(GetCurrentProcessId()));
    THR_THREAD_VAR variable = 5000; // which is none
    EXPECT_EQ(thr_thread_var_set(&variable, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(thr_thread_var_destroy(&variable), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(thr_thread_var_init(&variable), 8);
}

} // namespace
