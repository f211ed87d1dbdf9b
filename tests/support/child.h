// Scenes of several processes. A test file registers roles, and a test starts this same program
// again in one of them:
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
#ifndef THR_TESTS_CHILD_H
#define THR_TESTS_CHILD_H

#include <optional>
#include <string>
#include <vector>

#include <windows.h>

namespace support
{

// The longest that anything waits for a child: far more than it ever needs.
const DWORD PATIENCE_MS = 20000;

using RoleArgs = std::vector<std::string>;
using RoleFunc = int (*)(const RoleArgs &args);

struct RoleRegistration {
    RoleRegistration(const char *name, RoleFunc func);
};

// Defines and registers a role: the body gets `args` and returns the process's exit code.
#define ROLE(name)                                                                                 \
    static int role_##name(const ::support::RoleArgs &args);                                       \
    static const ::support::RoleRegistration registered_role_##name(#name, &role_##name);          \
    static int role_##name([[maybe_unused]] const ::support::RoleArgs &args)

// In a role: writes a line to standard output at once.
void say(const std::string &line);

// In a role: reads a line from standard input; nothing at its end.
std::optional<std::string> hear();

// The absolute path of this test program.
std::string own_program();

// That of a file in the folder `fixtures` beside it: what tests load, start and read.
std::string fixture(const std::string &name);

// The command line that starts `program`, this test program by default, in a role: for tests of
// the library's own process creation.
std::string role_command(const std::string &role, const RoleArgs &args = {},
                         const std::string &program = own_program());

// A process in a role, started with plain Win32 calls. It inherits every inheritable handle of this
// process, and its standard error.
class Child
{
public:
    // Throws when the process can't be started, after a few tries.
    explicit Child(const std::string &role, const RoleArgs &args = {},
                   const std::string &program = own_program());
    // Lets the process end by itself at the end of its input; ends one that does not at once.
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // The next line of the child's standard output, without its line break. Nothing when the child
    // closed it or took too long.
    std::optional<std::string> read_line(DWORD timeout_ms = PATIENCE_MS);

    // Writes a line to the child's standard input; false when the child has gone.
    bool write_line(const std::string &line);

    // The child reads the end of its standard input.
    void close_stdin();

    // Ends the process the hard way, and waits until it has ended.
    void kill();

    // The exit code; nothing when the child still runs after that time.
    std::optional<int> wait(DWORD timeout_ms = PATIENCE_MS);

    DWORD pid() const { return m_process.dwProcessId; }
    HANDLE handle() const { return m_process.hProcess; }

private:
    PROCESS_INFORMATION m_process;
    HANDLE m_stdin;
    HANDLE m_stdout;
    std::string m_unread;
};

// For main(): runs the role of that name.
int run_role(const std::string &name, const RoleArgs &args);

} // namespace support

#endif
