// Environment variables and the process-wide handlers.
#include "thr/thr.h"

#include "support/child.h"
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

ROLE(shows_value)
{
    say(value_in_this_process());
    return 0;
}

TEST(Environment, HostAndChildrenSeeWhatIsSetAndPrepended)
{
    const std::string long_entry(20000, 'e');
    const struct {
        const char *before, *entry;
        int result;
        std::string after;
    } cases[] = {{"X;Y", "W", 0, "W;X;Y"},
                 {nullptr, "a=b; c \"d\"", 0, "a=b; c \"d\""},
                 {"X", "", 0, ";X"},
                 {"", "", 0, NONE},
                 {"X", nullptr, -1, "X"},
                 {"", nullptr, -1, NONE},
                 {"X", long_entry.c_str(), 0, long_entry + ";X"}};
    for (auto &c : cases) {
        EXPECT_EQ(thr_setenv(VARIABLE, c.before), 0);
        EXPECT_EQ(thr_prepend_env(VARIABLE, c.entry), c.result);
        EXPECT_EQ(value_in_this_process(), c.after);
        EXPECT_EQ(Child("shows_value").read_line(), c.after);
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
    const uintptr_t THREADS = 3, SWAPS = 2000, ALL = THREADS * SWAPS;
    for (auto set : {thr_set_new_handler, thr_set_terminate_handler}) {
        const char *setter = set == thr_set_new_handler ? "set_new_handler" : "set_terminate";
        std::string import_name; // decorated, as the compiler has it
        for (const Import &import : imports_of(thr_module())) {
            if (import.function.find(setter) != std::string::npos)
                import_name = import.function;
        }
        ImportPatch patch(import_name.c_str(), &careless_set);
        place = numbered(0);
        std::vector<std::atomic<int>> replaced(ALL + 1); // how many times, by number
        std::vector<std::thread> threads;
        for (uintptr_t t = 0; t < THREADS; ++t) {
            threads.emplace_back([&, set, t] {
                for (uintptr_t i = 1; i <= SWAPS; ++i)
                    ++replaced[reinterpret_cast<uintptr_t>(set(numbered(t * SWAPS + i)))];
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        ++replaced[reinterpret_cast<uintptr_t>(place.load())]; // the last one is still there
        size_t wrong = 0;
        for (auto &times : replaced)
            wrong += times != 1;
        EXPECT_EQ(wrong, 0u) << setter;
    }
}

} // namespace
