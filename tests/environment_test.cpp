// Environment variables and the process-wide handlers.
#include "thr/thr.h"

#include "support/import_patch.h"

#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

namespace
{

TEST(Environment, IsSetAndPrependedTo)
{
    const char VARIABLE[] = "THR_TEST_VARIABLE";
    const std::string NONE = "(not set)";
    const struct {
        const char *before, *entry;
        int result;
        std::string after;
    } cases[] = {{"X;Y", "W", 0, "W;X;Y"},
                 {nullptr, "a=b; c \"d\"", 0, "a=b; c \"d\""},
                 {"X", "", 0, ";X"},
                 {"", "", 0, NONE},
                 {"X", nullptr, -1, "X"}};
    for (auto &c : cases) {
        EXPECT_EQ(thr_setenv(VARIABLE, c.before), 0);
        EXPECT_EQ(thr_prepend_env(VARIABLE, c.entry), c.result);
        const char *value = getenv(VARIABLE);
        EXPECT_EQ(value ? value : NONE, c.after);
    }
    thr_setenv(VARIABLE, nullptr);
}

// --- handlers -----------------------------------------------------------------------------------

// A handler that is told by its number, and never called.
THR_HANDLER numbered(uintptr_t number)
{
    return reinterpret_cast<THR_HANDLER>(number);
}

TEST(Handlers, AreTheHostsOwn)
{
    THR_HANDLER before = thr_set_new_handler(numbered(1));
    EXPECT_EQ(std::get_new_handler(), numbered(1));
    EXPECT_EQ(thr_set_new_handler(before), numbered(1));
    before = thr_set_terminate_handler(numbered(1));
    EXPECT_EQ(std::get_terminate(), numbered(1));
    EXPECT_EQ(thr_set_terminate_handler(before), numbered(1));
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

TEST(Handlers, ThreadsThatSwapAtOnceGetWhatTheyReplaced)
{
    const std::pair<const char *, decltype(&thr_set_new_handler)> SETTERS[] = {
        {"_ZSt15set_new_handlerPFvvE", thr_set_new_handler},
        {"_ZSt13set_terminatePFvvE", thr_set_terminate_handler}};
    for (auto &[import, set] : SETTERS) {
        support::ImportPatch patch(import, &careless_set);
        place = numbered(0);
        std::atomic<uintptr_t> missing{0}; // the sum of what was set, less what was given back
        std::vector<std::thread> threads;
        for (uintptr_t start : {10000, 20000, 30000}) {
            threads.emplace_back([&missing, set = set, start] {
                for (uintptr_t number = start; number < start + 2000; ++number)
                    missing += number - reinterpret_cast<uintptr_t>(set(numbered(number)));
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(numbered(missing), place.load()) << import << ": the last one is still there";
    }
}

} // namespace
