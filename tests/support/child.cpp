#include "support/test.h"

#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace support
{

static std::map<std::string, RoleFunc> &roles()
{
    static std::map<std::string, RoleFunc> registered;
    return registered;
}

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
    return std::getline(std::cin, line) ? std::optional(line) : std::nullopt;
}

std::string fixture(const std::string &name)
{
    const std::string program = _pgmptr;
    return program.substr(0, program.rfind('\\')) + "\\fixtures\\" + name;
}

std::string role_command(const std::string &role, const RoleArgs &args)
{
    std::string command = "\"" + std::string(_pgmptr) + "\" --role " + role;
    for (const std::string &arg : args)
        command += " \"" + arg + "\"";
    return command;
}

// A pipe of which the child's end alone is inheritable.
static void make_pipe(HANDLE &read_end, HANDLE &write_end, HANDLE &childs_end)
{
    if (!CreatePipe(&read_end, &write_end, nullptr, 0) ||
        !SetHandleInformation(childs_end, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT))
        throw std::runtime_error("no pipe for a child process");
}

Child::Child(const std::string &role, const RoleArgs &args) : m_process()
{
    // One start at a time: no child inherits the ends meant for another one.
    static std::mutex starting;
    std::lock_guard<std::mutex> lock(starting);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    make_pipe(startup.hStdInput, m_stdin, startup.hStdInput);
    make_pipe(m_stdout, startup.hStdOutput, startup.hStdOutput);
    DuplicateHandle(GetCurrentProcess(), GetStdHandle(STD_ERROR_HANDLE), GetCurrentProcess(),
                    &startup.hStdError, 0, TRUE, DUPLICATE_SAME_ACCESS);
    std::string command = role_command(role, args);
    // Under load the start of a process is refused now and then.
    for (int tries = 0; !m_process.hProcess && tries < 5; ++tries) {
        Sleep(tries * 200);
        CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                       &startup, &m_process);
    }
    for (HANDLE handle : {startup.hStdInput, startup.hStdOutput, startup.hStdError})
        CloseHandle(handle);
    if (!m_process.hProcess)
        throw std::runtime_error("can't start " + command);
}

Child::~Child()
{
    close_stdin();
    if (!wait(100))
        kill();
    for (HANDLE handle : {m_stdout, m_process.hThread, m_process.hProcess})
        CloseHandle(handle);
}

std::optional<std::string> Child::read_line()
{
    size_t end = 0;
    auto has_line = [&] {
        char bytes[4096];
        DWORD count = 0;
        const bool is_open = PeekNamedPipe(m_stdout, nullptr, 0, nullptr, &count, nullptr);
        if (count > 0 && ReadFile(m_stdout, bytes, sizeof bytes, &count, nullptr))
            m_unread.append(bytes, count);
        end = m_unread.find('\n');
        return !is_open || end != std::string::npos;
    };
    if (!eventually(has_line) || end == std::string::npos)
        return std::nullopt;
    std::string line = m_unread.substr(0, end);
    m_unread.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

void Child::write_line(const std::string &line)
{
    DWORD written = 0;
    WriteFile(m_stdin, (line + "\n").data(), static_cast<DWORD>(line.size() + 1), &written,
              nullptr);
}

void Child::close_stdin()
{
    CloseHandle(std::exchange(m_stdin, nullptr));
}

void Child::kill()
{
    TerminateProcess(m_process.hProcess, 197);
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
