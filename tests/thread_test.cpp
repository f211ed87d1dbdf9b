#include "thr/thr.h"

#include "support/child.h"
#include "support/handles.h"
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

using Messages = std::vector<std::string>;

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
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &gate.thread, 0,
                    FALSE, DUPLICATE_SAME_ACCESS);
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

std::atomic<int> live_blocks, wrong_frees;

void *page_calloc(size_t count, size_t size)
{
    ++live_blocks;
    return VirtualAlloc(nullptr, count * size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
}

void *page_malloc(size_t size)
{
    return page_calloc(1, size);
}

void page_free(void *page)
{
    DWORD protection = 0;
    VirtualProtect(page, 1, PAGE_NOACCESS, &protection);
    wrong_frees += protection != PAGE_READWRITE;
    --live_blocks;
}

// Counts what the library allocates and frees while this stands. A freed block keeps its page,
// which nobody may touch any more: a second release shows, and any other use ends the program.
struct Heap {
    ImportPatch patches[3] = {
        {"malloc", &page_malloc}, {"calloc", &page_calloc}, {"free", &page_free}};

    Heap() { live_blocks = wrong_frees = 0; }
};

// --- one thread's life --------------------------------------------------------------------------

const char CREATE[] = "CreateThread(0, stack_size, thr_thread_begin, info, 0, 0)";
const char CLOSE[] = "CloseHandle(thread_id->m_thread_handle)";
const char WAIT[] = "WaitForSingleObject(thread_id->m_thread_handle, INFINITE)==WAIT_OBJECT_0";
const char TERMINATE[] = "TerminateThread(thread_id->m_thread_handle, 0)";

const uint32_t STACK_SIZE = 8 * 1024 * 1024;

const char *refused_call;
DWORD refused_wait_result;

bool is_refused(const char *call)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return call == refused_call;
}

HANDLE WINAPI create_thread(SECURITY_ATTRIBUTES *attributes, SIZE_T stack_size,
                            LPTHREAD_START_ROUTINE start, void *argument, DWORD flags, DWORD *id)
{
    EXPECT_EQ(stack_size, STACK_SIZE);
    return is_refused(CREATE) ? nullptr
                              : CreateThread(attributes, stack_size, start, argument, flags, id);
}

BOOL WINAPI terminate_thread(HANDLE thread, DWORD code)
{
    return !is_refused(TERMINATE) && TerminateThread(thread, code);
}

DWORD WINAPI wait_for(HANDLE handle, DWORD limit)
{
    return is_refused(WAIT) ? refused_wait_result : WaitForSingleObject(handle, limit);
}

enum State { NEVER_STARTED, RUNNING, FINISHED };

struct Ending {
    const char *action; // what gives the id up
    const char *refused_call;
    State state;
    std::vector<const char *> reported;
};

const char SHUT_DOWN[] = "shut down a thread";
const char DETACH[] = "detach a thread";
const char END[] = "terminate a thread";

const Ending ENDINGS[] = {{SHUT_DOWN, nullptr, FINISHED, {}},
                          {SHUT_DOWN, WAIT, FINISHED, {WAIT}},
                          {SHUT_DOWN, WAIT, RUNNING, {WAIT}},
                          {SHUT_DOWN, CREATE, NEVER_STARTED, {WAIT, CLOSE}},
                          {DETACH, nullptr, FINISHED, {}},
                          {DETACH, nullptr, RUNNING, {}},
                          {DETACH, CREATE, NEVER_STARTED, {CLOSE}},
                          {END, nullptr, FINISHED, {}},
                          {END, nullptr, RUNNING, {}},
                          {END, TERMINATE, RUNNING, {TERMINATE}},
                          {END, CREATE, NEVER_STARTED, {TERMINATE, CLOSE}}};

// Lets a thread live and end that way.
void live_through(const Ending &ending, THR_THREAD_FUNC func)
{
    ReportRecorder reports;
    Heap heap;
    Gate gate;
    refused_call = ending.refused_call;
    THR_THREAD_ID id = thr_thread_create(func, &gate, STACK_SIZE);
    Messages expected;
    if (ending.state == NEVER_STARTED) {
        expected.push_back(os_failure_text("create a thread", CREATE, ERROR_ACCESS_DENIED));
    } else {
        EXPECT_TRUE(eventually([&] { return gate.has_arrived.load(); }));
        EXPECT_EQ(gate.self, id);
        EXPECT_EQ(thr_thread_is_running(id), 1);
    }
    if (ending.state == FINISHED) {
        // To its very end: a thread that is terminated on its way out can leave one of the
        // platform's own locks behind.
        gate.is_open = true;
        EXPECT_EQ(WaitForSingleObject(gate.thread, PATIENCE_MS), WAIT_OBJECT_0);
        EXPECT_EQ(thr_thread_is_running(id), 0);
    }
    EXPECT_EQ(live_blocks, 2) << "the record and its mutex";
    if (ending.action == SHUT_DOWN)
        EXPECT_EQ(thr_thread_wait(id), ending.state == FINISHED ? as_value(42) : nullptr);
    else
        (ending.action == DETACH ? thr_thread_detach : thr_thread_terminate_and_possibly_crash)(id);
    EXPECT_EQ(live_blocks, ending.state == RUNNING ? 2 : 0);
    gate.is_open = true; // a thread that still runs releases both at its end
    const bool is_killed = ending.action == END && ending.state == RUNNING && !ending.refused_call;
    EXPECT_TRUE(is_killed || eventually([] { return live_blocks == 0; }));
    EXPECT_EQ(wrong_frees, 0);
    const DWORD code = ending.state == NEVER_STARTED ? ERROR_INVALID_HANDLE : ERROR_ACCESS_DENIED;
    for (const char *call : ending.reported)
        expected.push_back(os_failure_text(ending.action, call, code));
    EXPECT_EQ(reports.take_messages(), expected);
}

TEST(Thread, IsReleasedExactlyOnceHoweverItEnds)
{
    ImportPatch patches[] = {{"CreateThread", &create_thread},
                             {"TerminateThread", &terminate_thread},
                             {"WaitForSingleObject", &wait_for}};
    size_t handles = 0;
    for (DWORD result : {WAIT_FAILED, DWORD(WAIT_ABANDONED)}) {
        handles = live_handle_count(); // the first time some are opened for good
        refused_wait_result = result;
        for (const Ending &ending : ENDINGS) {
            SCOPED_TRACE(&ending - ENDINGS);
            live_through(ending, pass);
            live_through(ending, pass_and_exit);
        }
    }
    EXPECT_EQ(live_handle_count(), handles);
}

// --- under load ---------------------------------------------------------------------------------

// Starts threads and gives them up while they end. Returns how many gave a wrong value.
int start_many(int rounds, unsigned seed)
{
    int wrong_values = 0;
    std::minstd_rand random(seed);
    for (intptr_t round = 1; round <= rounds; ++round) {
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

// Lets the other side in where a flag that is set too late would show.
void WINAPI yielding_leave(CRITICAL_SECTION *section)
{
    LeaveCriticalSection(section);
    SwitchToThread();
}

TEST(Thread, IsReleasedExactlyOnceUnderLoad)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    ImportPatch patch("LeaveCriticalSection", &yielding_leave);
    size_t handles = 0;
    for (int rounds : {50, 750}) { // the first time some are opened for good
        handles = live_handle_count();
        Heap heap;
        std::atomic<int> wrong_values(0);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] { wrong_values += start_many(rounds, seed + i); });
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(wrong_values, 0);
        EXPECT_TRUE(eventually([] { return live_blocks == 0; }));
        EXPECT_EQ(wrong_frees, 0);
    }
    EXPECT_EQ(live_handle_count(), handles);
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
    RefusedMalloc refused;
    EXPECT_INTERNAL_ERROR(thr_thread_create(echo, nullptr, 0), "info", "thr_thread");
}

} // namespace
