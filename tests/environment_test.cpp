// Environment variables and the process-wide handlers.
#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

const char VARIABLE[] = "THR_TEST_VARIABLE";
const std::string NONE = "(not set)";

std::string value_in_this_process()
{
    const char *value = getenv(VARIABLE);
    return value ? value : NONE;
}

ROLE(has_value)
{
    return value_in_this_process() == args[0] ? 0 : 1;
}

// The exit code of a child that looks for the value; -1 when none could be started.
int child_lacks_value(const std::string &value)
{
    std::string command = role_command("has_value", {value});
    void *process = nullptr;
    for (int tries = 0; !process && tries < 5; ++tries) // refused now and then, under load
        process = thr_process_create(command.data(), nullptr, nullptr, nullptr, nullptr, nullptr);
    thr_process_status status = {-1, -1};
    thr_process_wait(process, &status, 0);
    return status.exit_code;
}

TEST(Environment, HostAndChildrenSeeWhatIsSet)
{
    const struct {
        const char *value;
        std::string seen;
    } cases[] = {{"one", "one"},  {"a=b; c \"d\"", "a=b; c \"d\""},
                 {"", NONE},      {"two", "two"},
                 {nullptr, NONE}, {nullptr, NONE}};
    for (auto &c : cases) {
        EXPECT_EQ(thr_setenv(VARIABLE, c.value), 0);
        EXPECT_EQ(value_in_this_process(), c.seen);
        EXPECT_EQ(child_lacks_value(c.seen), 0) << c.seen;
    }
}

TEST(Environment, PrependPutsAnEntryInFront)
{
    const std::string long_entry(20000, 'e');
    const struct {
        const char *before;
        const char *entry;
        int result;
        std::string after;
    } cases[] = {{"X;Y", "W", 0, "W;X;Y"},
                 {nullptr, "W", 0, "W"},
                 {"X", "", 0, ";X"},
                 {nullptr, "", 0, NONE},
                 {"X", nullptr, -1, "X"},
                 {nullptr, nullptr, -1, NONE},
                 {"X", long_entry.c_str(), 0, long_entry + ";X"}};
    for (auto &c : cases) {
        ASSERT_EQ(thr_setenv(VARIABLE, c.before), 0);
        EXPECT_EQ(thr_prepend_env(VARIABLE, c.entry), c.result);
        EXPECT_EQ(value_in_this_process(), c.after);
    }
    thr_setenv(VARIABLE, nullptr);
}

ROLE(prepends_to_empty)
{
    say("before: " + value_in_this_process());
    thr_prepend_env(VARIABLE, "W");
    say("after: " + value_in_this_process());
    return 0;
}

// The runtime can't set a variable to the empty text, but a process can be started with one.
TEST(Environment, AnEmptyVariableIsSet)
{
    SetEnvironmentVariableA(VARIABLE, "");
    Child child("prepends_to_empty");
    SetEnvironmentVariableA(VARIABLE, nullptr);
    EXPECT_EQ(child.read_line(), "before: ");
    EXPECT_EQ(child.read_line(), "after: W;");
}

std::string text_for_runtime;

int refused_putenv(const char *text)
{
    text_for_runtime = text;
    return -1;
}

TEST(Environment, TheRuntimesRefusalIsTheResult)
{
    ReportRecorder reports;
    ImportPatch patch("_putenv", &refused_putenv);
    EXPECT_EQ(thr_setenv("NAME", "value"), -1);
    EXPECT_EQ(text_for_runtime, "NAME=value");
    EXPECT_EQ(thr_setenv("NAME", nullptr), -1);
    EXPECT_EQ(text_for_runtime, "NAME=");
    EXPECT_EQ(thr_prepend_env("NAME", "v"), -1);
    EXPECT_TRUE(reports.take().empty());
}

TEST(EnvironmentDeathTest, InternalErrors)
{
    EXPECT_INTERNAL_ERROR(thr_setenv(nullptr, "value"), "name != 0", "thr_objects");
    EXPECT_INTERNAL_ERROR(thr_prepend_env(nullptr, nullptr), "name != 0", "thr_objects");
    EXPECT_INTERNAL_ERROR(
        {
            RefusedMalloc refused;
            thr_setenv("NAME", "value");
        },
        "str", "thr_objects");
}

// --- handlers -----------------------------------------------------------------------------------

void never_called() {}

void throw_bad_alloc()
{
    throw std::bad_alloc();
}

void end_with_5()
{
    _exit(5);
}

TEST(Handlers, AreTheHostsOwn)
{
    THR_HANDLER before = std::get_new_handler();
    EXPECT_EQ(thr_set_new_handler(never_called), before);
    EXPECT_EQ(std::get_new_handler(), &never_called);
    EXPECT_EQ(thr_set_new_handler(throw_bad_alloc), &never_called);
    EXPECT_EQ(thr_set_new_handler(before), &throw_bad_alloc);
    EXPECT_EQ(std::get_new_handler(), before);

    before = std::get_terminate();
    EXPECT_EQ(thr_set_terminate_handler(end_with_5), before);
    EXPECT_EQ(std::get_terminate(), &end_with_5);
    EXPECT_EQ(thr_set_terminate_handler(before), &end_with_5);
    EXPECT_EXIT((thr_set_terminate_handler(end_with_5), std::terminate()),
                testing::ExitedWithCode(5), "");
}

// Setters as careless as the runtime's may be: two threads in one at once lose a handler.
std::atomic<THR_HANDLER> place;

THR_HANDLER careless_set(THR_HANDLER handler)
{
    THR_HANDLER previous = place;
    SwitchToThread();
    place = handler;
    return previous;
}

// A handler that is told by its number, and never called.
THR_HANDLER numbered(uintptr_t number)
{
    return reinterpret_cast<THR_HANDLER>(number);
}

TEST(Handlers, ThreadsThatSwapAtOnceGetWhatTheyReplaced)
{
    const size_t THREADS = 3, SWAPS = 2000;
    for (auto set : {thr_set_new_handler, thr_set_terminate_handler}) {
        const char *setter = set == thr_set_new_handler ? "set_new_handler" : "set_terminate";
        std::string import_name; // decorated, as the compiler has it
        for (const Import &import : imports_of(thr_module())) {
            if (import.function.find(setter) != std::string::npos)
                import_name = import.function;
        }
        ImportPatch patch(import_name.c_str(), &careless_set);
        place = numbered(0);
        std::vector<THR_HANDLER> replaced[THREADS];
        std::vector<std::thread> threads;
        for (size_t t = 0; t < THREADS; ++t) {
            threads.emplace_back([&, set, t] {
                for (size_t i = 1; i <= SWAPS; ++i)
                    replaced[t].push_back(set(numbered(t * SWAPS + i)));
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        // Every handler was replaced once, but for the last one, which is still there.
        std::vector<THR_HANDLER> all = {place};
        for (auto &list : replaced)
            all.insert(all.end(), list.begin(), list.end());
        std::sort(all.begin(), all.end(), std::less<THR_HANDLER>());
        ASSERT_EQ(all.size(), THREADS * SWAPS + 1);
        size_t wrong = 0;
        for (size_t i = 0; i < all.size(); ++i)
            wrong += all[i] != numbered(i);
        EXPECT_EQ(wrong, 0u) << setter;
    }
}

} // namespace
