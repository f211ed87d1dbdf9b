#include "support/test.h"

#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace support
{

std::map<std::string, RoleFunc> &roles()
{
    static std::map<std::string, RoleFunc> all;
    return all;
}

void say(const std::string &line)
{
    puts(line.c_str());
    fflush(stdout);
}

void put_line(HANDLE pipe, const std::string &line)
{
    DWORD written = 0;
    WriteFile(pipe, (line + "\n").data(), static_cast<DWORD>(line.size() + 1), &written, nullptr);
}

std::optional<std::string> take_line(HANDLE pipe, std::string &unread)
{
    auto has_line = [&] {
        char bytes[4096];
        DWORD count = 0;
        const bool is_open = PeekNamedPipe(pipe, nullptr, 0, nullptr, &count, nullptr);
        if (count > 0 && ReadFile(pipe, bytes, sizeof bytes, &count, nullptr))
            unread.append(bytes, count);
        return !is_open || unread.find('\n') != unread.npos;
    };
    eventually(has_line);
    const size_t end = unread.find('\n');
    if (end == unread.npos)
        return std::nullopt;
    std::string line = unread.substr(0, end);
    unread.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
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

Child::Child(const std::string &role, const RoleArgs &args)
{
    // One start at a time: no child inherits the ends meant for another one.
    static std::mutex starting;
    std::lock_guard<std::mutex> lock(starting);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    CreatePipe(&startup.hStdInput, &m_stdin, nullptr, 0);
    CreatePipe(&m_stdout, &startup.hStdOutput, nullptr, 0);
    for (HANDLE childs_end : {startup.hStdInput, startup.hStdOutput})
        SetHandleInformation(childs_end, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    DuplicateHandle(GetCurrentProcess(), GetStdHandle(STD_ERROR_HANDLE), GetCurrentProcess(),
                    &startup.hStdError, 0, TRUE, DUPLICATE_SAME_ACCESS);
    std::string command = role_command(role, args);
    const bool is_started = start_in_some_tries([&] {
        return CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                              &startup, &m_process);
    });
    for (HANDLE handle : {startup.hStdInput, startup.hStdOutput, startup.hStdError})
        CloseHandle(handle);
    if (!is_started)
        throw std::runtime_error("can't start " + command);
}

static thread_local HANDLE answers_of_thread;

Child::Child(const Orders &orders)
{
    HANDLE heard, said;
    CreatePipe(&heard, &m_stdin, nullptr, 0);
    CreatePipe(&m_stdout, &said, nullptr, 0);
    std::thread([=] {
        answers_of_thread = said;
        std::string unread;
        while (auto line = take_line(heard, unread))
            put_line(said, obey(orders, *line));
    }).detach();
}

void say_as_thread(const std::string &line)
{
    if (answers_of_thread)
        put_line(answers_of_thread, line);
}

Child::~Child()
{
    close_stdin();
    if (!wait(100))
        kill();
    for (HANDLE handle : {m_stdout, m_process.hThread, m_process.hProcess})
        CloseHandle(handle);
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

// --- scenes -------------------------------------------------------------------------------------

std::string obey(const Orders &orders, const std::string &line)
{
    std::istringstream words(line);
    std::string answers;
    for (std::string order; words >> order;)
        answers += (answers.empty() ? "" : " ") + orders.at(order)(words);
    return answers;
}

void Scene::play(const std::string &steps)
{
    std::istringstream all(steps);
    for (std::string step, who, orders; std::getline(all >> std::ws, step, ';');) {
        const size_t equals = step.find(" = ");
        const std::string expected = equals == step.npos ? "" : step.substr(equals + 3);
        std::istringstream words(step.substr(0, equals));
        words >> who >> std::ws;
        std::unique_ptr<Child> &child = m_children[who];
        if (!child)
            child.reset(m_new(who));
        if (std::getline(words, orders))
            orders == "kill" ? child->kill() : child->write_line(orders);
        if (expected.empty())
            continue;
        const std::string answer = child->read_line().value_or("ended");
        const int status = answer == "ended" ? child->wait().value_or(STILL_ACTIVE) : 0;
        if (answer + (answer == "ended" ? " " + std::to_string(status) : "") != expected)
            throw std::runtime_error(step + ", not: " + answer + " " + std::to_string(status));
    }
}

} // namespace support
