#include "support/child.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>

namespace support
{

namespace
{

const UINT KILLED_EXIT_CODE = 197;

std::map<std::string, RoleFunc> &roles()
{
    static std::map<std::string, RoleFunc> registered;
    return registered;
}

// Quotes an argument the way the C runtime reads it: backslashes count only before a quote.
std::string quoted(const std::string &arg)
{
    std::string text = "\"";
    size_t backslashes = 0;
    for (char c : arg) {
        if (c == '"')
            text.append(backslashes + 1, '\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        text += c;
    }
    return text.append(backslashes, '\\') + '"';
}

// A pipe of which the child's end alone is inheritable.
void make_pipe(HANDLE &read_end, HANDLE &write_end, HANDLE &childs_end)
{
    if (!CreatePipe(&read_end, &write_end, nullptr, 0) ||
        !SetHandleInformation(childs_end, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT))
        throw std::runtime_error("no pipe for a child process");
}

HANDLE inheritable_stderr()
{
    HANDLE process = GetCurrentProcess();
    HANDLE copy = nullptr;
    DuplicateHandle(process, GetStdHandle(STD_ERROR_HANDLE), process, &copy, 0, TRUE,
                    DUPLICATE_SAME_ACCESS);
    return copy;
}

// Under load the start of a process is refused now and then.
PROCESS_INFORMATION start(const std::string &command, STARTUPINFOA &startup)
{
    PROCESS_INFORMATION process = {};
    for (int tries = 0; tries < 5; ++tries) {
        std::string line = command; // the call may write into it
        if (CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                           &startup, &process))
            return process;
        Sleep(200);
    }
    throw std::runtime_error("can't start " + command);
}

} // namespace

RoleRegistration::RoleRegistration(const char *name, RoleFunc func)
{
    roles()[name] = func;
}

int run_role(const std::string &name, const RoleArgs &args)
{
    return roles().at(name)(args);
}

void say(const std::string &line)
{
    puts(line.c_str());
    fflush(stdout);
}

std::optional<std::string> hear()
{
    std::string line;
    if (!std::getline(std::cin, line))
        return std::nullopt;
    return line;
}

std::string own_program()
{
    return _pgmptr;
}

std::string fixture(const std::string &name)
{
    return own_program().substr(0, own_program().rfind('\\')) + "\\fixtures\\" + name;
}

std::string role_command(const std::string &role, const RoleArgs &args, const std::string &program)
{
    std::string command = quoted(program) + " --role " + quoted(role);
    for (const std::string &arg : args)
        command += " " + quoted(arg);
    return command;
}

Child::Child(const std::string &role, const RoleArgs &args, const std::string &program)
    : m_process(), m_stdin(nullptr), m_stdout(nullptr)
{
    // One start at a time: no child inherits the ends meant for another one.
    static std::mutex starting;
    std::lock_guard<std::mutex> lock(starting);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    make_pipe(startup.hStdInput, m_stdin, startup.hStdInput);
    make_pipe(m_stdout, startup.hStdOutput, startup.hStdOutput);
    startup.hStdError = inheritable_stderr();
    m_process = start(role_command(role, args, program), startup);
    for (HANDLE handle : {startup.hStdInput, startup.hStdOutput, startup.hStdError})
        CloseHandle(handle);
}

Child::~Child()
{
    close_stdin();
    if (!wait(100))
        kill();
    for (HANDLE handle : {m_stdin, m_stdout, m_process.hThread, m_process.hProcess})
        CloseHandle(handle);
}

std::optional<std::string> Child::read_line(DWORD timeout_ms)
{
    const ULONGLONG deadline = GetTickCount64() + timeout_ms;
    size_t end;
    while ((end = m_unread.find('\n')) == std::string::npos) {
        char bytes[4096];
        DWORD count = 0;
        if (!PeekNamedPipe(m_stdout, nullptr, 0, nullptr, &count, nullptr) ||
            (count == 0 && GetTickCount64() >= deadline))
            return std::nullopt; // or the child closed its end
        if (count == 0)
            Sleep(1);
        else if (ReadFile(m_stdout, bytes, sizeof bytes, &count, nullptr))
            m_unread.append(bytes, count);
    }
    std::string line = m_unread.substr(0, end);
    m_unread.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

bool Child::write_line(const std::string &line)
{
    std::string bytes = line + "\n";
    DWORD written = 0;
    return WriteFile(m_stdin, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
           written == bytes.size();
}

void Child::close_stdin()
{
    CloseHandle(m_stdin);
    m_stdin = nullptr;
}

void Child::kill()
{
    TerminateProcess(m_process.hProcess, KILLED_EXIT_CODE);
    WaitForSingleObject(m_process.hProcess, PATIENCE_MS);
}

std::optional<int> Child::wait(DWORD timeout_ms)
{
    DWORD code = 0;
    if (WaitForSingleObject(m_process.hProcess, timeout_ms) != WAIT_OBJECT_0 ||
        !GetExitCodeProcess(m_process.hProcess, &code))
        return std::nullopt;
    return static_cast<int>(code);
}

} // namespace support
