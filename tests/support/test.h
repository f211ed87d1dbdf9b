// What the test programs share: scenes of several processes and threads, the texts that are
// expected, folders for files, and what the library has open.
#ifndef THR_TESTS_TEST_H
#define THR_TESTS_TEST_H

#include "support/gates.h"

#include "thr/thr_classes.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace support
{

// The longest that anything is waited for: far more than it ever needs.
const DWORD PATIENCE_MS = 20000;

// Whether it comes to be so, as long as the patience lasts.
bool eventually(const std::function<bool()> &condition);

// Starts a process, and tries again when that is refused, as it is under load now and then.
bool start_in_some_tries(const std::function<bool()> &start);

// From now on a write or read past the end of a heap block or of a freed block crashes the process,
// whether it is the library's, the C++ runtime's or the test program's. A write right before a
// block, or up to 15 bytes behind one whose end is not its page's, ends the process when the block
// is freed. Blocks that are older stay as they are, and may be freed; none may be reallocated.
void guard_heap();

// --- processes in roles -------------------------------------------------------------------------

// A test file has roles, and a test starts this same program again in one of them:
//
//     ROLE(holds_lock)
//     {
//         take_lock(args[0]);
//         support::say("locked");
//         support::hear(); // until the parent says go on, or has gone
//         return 0;
//     }
//
//     support::Child child("holds_lock", {path});
//     ASSERT_EQ(child.read_line(), "locked");
//     child.write_line("go on");
//     EXPECT_EQ(child.wait(), 0);
using RoleArgs = std::vector<std::string>;
using RoleFunc = int (*)(const RoleArgs &args);

std::map<std::string, RoleFunc> &roles(); // by their names

// Defines a role: the body gets `args` and returns the process's exit code.
#define ROLE(name)                                                                                 \
    static int role_##name(const ::support::RoleArgs &args);                                       \
    [[maybe_unused]] static const auto registered_role_##name = ::support::roles()[#name] =        \
        &role_##name;                                                                              \
    static int role_##name([[maybe_unused]] const ::support::RoleArgs &args)

// In a role: writes a line to standard output at once.
void say(const std::string &line);

// In a role: reads a line from standard input; nothing at its end.
std::optional<std::string> hear();

// The path of a file in the folder `fixtures` beside this program: what tests read.
std::string fixture(const std::string &name);

// The command line that starts this test program in a role. No word ends with a backslash.
std::string role_command(const std::string &role, const RoleArgs &args = {});

// --- scenes of several processes or threads -----------------------------------------------------

// What an order gave: a number, or a text.
struct Answer : std::string {
    Answer(int number) : std::string(std::to_string(number)) {}
    Answer(const std::string &text) : std::string(text) {}
};

// What can be ordered. An order may take words that follow it.
using Orders = std::map<std::string, std::function<Answer(std::istream &words)>>;

// Obeys the orders of a line one after the other, and returns their answers.
std::string obey(const Orders &orders, const std::string &line);

// Writes a line to a pipe, unless nobody reads that any more.
void put_line(HANDLE pipe, const std::string &line);

// The next line of a pipe, of which `unread` was read already. Nothing when it is closed or the
// line takes too long.
std::optional<std::string> take_line(HANDLE pipe, std::string &unread);

// A process in a role, started with plain Win32 calls, or a thread: it reads lines and says lines.
// A process inherits every inheritable handle of this one, and its standard error.
class Child
{
public:
    // Throws when the process can't be started, after a few tries.
    explicit Child(const std::string &role, const RoleArgs &args = {});

    // A thread that obeys a line at a time, and is gone when there is none for long. One that waits
    // for good holds up nobody.
    explicit Child(const Orders &orders);

    // Lets the process end by itself at the end of its input; ends one that does not at once.
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // The next line that it said, without its line break. Nothing when it closed its output or took
    // too long.
    std::optional<std::string> read_line() { return take_line(m_stdout, m_unread); }

    // Writes a line to its input, unless it has gone.
    void write_line(const std::string &line) { put_line(m_stdin, line); }

    // The child reads the end of its standard input.
    void close_stdin() { CloseHandle(std::exchange(m_stdin, nullptr)); }

    // Ends the process the hard way, and waits until it has ended.
    void kill();

    // The exit code; nothing when the child still runs after that time.
    std::optional<int> wait(DWORD timeout_ms = PATIENCE_MS);

    DWORD pid() const { return m_process.dwProcessId; }

private:
    PROCESS_INFORMATION m_process = {};
    HANDLE m_stdin;
    HANDLE m_stdout;
    std::string m_unread;
};

// Says a line as such a thread, and as nobody else.
void say_as_thread(const std::string &line);

// Processes and threads that obey. The order "kill" ends a process; one that has ended answers
// "ended STATUS".
class Scene
{
public:
    explicit Scene(std::function<Child *(const std::string &who)> new_child) : m_new(new_child) {}

    // Plays steps, "WHO ORDERS = ANSWERS;", one after the other. Without orders it is the next
    // answer to those before; without "=" the answers come later. Throws at another answer.
    void play(const std::string &steps);

private:
    std::function<Child *(const std::string &who)> m_new;
    std::map<std::string, std::unique_ptr<Child>> m_children;
};

// --- texts --------------------------------------------------------------------------------------

// What the system says to an error code, without its line break.
std::string system_words(DWORD code);

// The regular expression of a text that is meant literally.
std::string literal_regex(const std::string &text);

// Expects `statement` to end the process with the internal error `message` of thr/`file`.cpp,
// printed without a hook.
#define EXPECT_INTERNAL_ERROR(statement, message, file)                                            \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(-1),                                          \
                "^Internal Error: Sub-system: THR, File: thr/" file "\\.cpp, Line: \\d+\n" +       \
                    ::support::literal_regex(message) + "\n$")

// --- files and handles --------------------------------------------------------------------------

// A new empty folder below the system's folder for temporary files, removed with all its content
// at the end of the scope. What can't be removed then, after some tries, fails the test: something
// still holds it open.
class ScratchDir
{
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    // Absolute, backslashes, none at the end; plain ASCII when the system's folder is.
    const std::string &path() const { return m_path; }
    std::string file(const std::string &name) const { return m_path + "\\" + name; }

private:
    std::string m_path;
    std::wstring m_wide_path;
};

// The number of live handles of this process, found by asking for each of the first `bound` handle
// values (4, 8, 12, ...), since not every system here counts them itself. Handle values are given
// out from the lowest up. Some 10 microseconds a value: count before and after a series, not
// around each call, and let the code run once before, for what it opens on first use.
size_t live_handle_count(size_t bound = 512);

} // namespace support

#endif
