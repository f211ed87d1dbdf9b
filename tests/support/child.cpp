#include "support/child.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>

namespace support
{

namespace
{

const UINT KILLED_EXIT_CODE = 197;
const int ROLE_FAILED_EXIT_CODE = 198;

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

void close(HANDLE &handle)
{
    if (handle)
        CloseHandle(handle);
    handle = nullptr;
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
        fprintf(stderr, "the start of a child was refused (%lu), trying again: %s\n",
                GetLastError(), command.c_str());
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
    auto role = roles().find(name);
    if (role == roles().end()) {
        fprintf(stderr, "this program has no role %s\n", name.c_str());
        return ROLE_FAILED_EXIT_CODE;
    }
    try {
        return role->second(args);
    } catch (const std::exception &e) {
        fprintf(stderr, "role %s: %s\n", name.c_str(), e.what());
        return ROLE_FAILED_EXIT_CODE;
    }
}

void say(const std::string &line)
{
    puts(line.c_str());
    fflush(stdout);
}

std::optional<std::string> hear()
{
    std::string line;
    int c = getchar();
    if (c == EOF)
        return std::nullopt;
    for (; c != EOF && c != '\n'; c = getchar())
        line += static_cast<char>(c);
    return line;
}

std::string own_program()
{
    char path[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    if (length == 0 || length == MAX_PATH)
        throw std::runtime_error("the program's own path is not known");
    return path;
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
    close(startup.hStdInput);
    close(startup.hStdOutput);
    close(startup.hStdError);
}

Child::~Child()
{
    if (!wait(0))
        kill();
    close(m_stdin);
    close(m_stdout);
    close(m_process.hThread);
    close(m_process.hProcess);
}

std::optional<std::string> Child::read_line(DWORD timeout_ms)
{
    const ULONGLONG deadline = GetTickCount64() + timeout_ms;
    for (;;) {
        size_t end = m_unread.find('\n');
        if (end != std::string::npos) {
            std::string line = m_unread.substr(0, end);
            m_unread.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            return line;
        }
        char bytes[4096];
        DWORD count = 0;
        if (!PeekNamedPipe(m_stdout, nullptr, 0, nullptr, &count, nullptr))
            return std::nullopt; // the child closed its end
        if (count != 0) {
            if (!ReadFile(m_stdout, bytes, sizeof bytes, &count, nullptr))
                return std::nullopt;
            m_unread.append(bytes, count);
        } else if (GetTickCount64() >= deadline) {
            return std::nullopt;
        } else {
            Sleep(1);
        }
    }
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
    close(m_stdin);
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
