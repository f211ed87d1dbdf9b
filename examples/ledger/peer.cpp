#include "peer.h"

#include <windows.h>

Peer::~Peer()
{
    close_pipe(&m_input);
    close_pipe(&m_output);
    if (!kill())
        thr_process_close_handle(m_process);
    thr_process_close_handle(m_job);
}

bool Peer::start(const std::string &arguments)
{
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, sizeof program);
    std::string command = "\"" + std::string(program) + "\" " + arguments;
    // one pipe for both output streams: what goes wrong in the process shows up here too
    m_process = thr_process_create_and_save_job(command.data(), nullptr, &m_output, &m_output,
                                                &m_input, nullptr, &m_job);
    if (m_process) {
        m_process_id = GetProcessId(m_process);
        return true;
    }
    close_pipe(&m_input);
    close_pipe(&m_output);
    return false;
}

bool Peer::next_line(std::string *line)
{
    size_t end;
    while ((end = m_unread.find('\n')) == std::string::npos) {
        if (!is_running() || !read_output())
            return false;
    }
    *line = m_unread.substr(0, end);
    m_unread.erase(0, end + 1);
    return true;
}

// Takes in what has been said; false when that is nothing, or the end. What is left of an
// unfinished line says nothing.
bool Peer::read_output()
{
    int has_data;
    char bytes[4096];
    uint32_t count = 0;
    int error = thr_process_peek(m_output, &has_data);
    if (error == 0 && has_data)
        error = thr_process_read(m_output, bytes, sizeof bytes, &count);
    if (error != 0)
        finish();
    m_unread.append(bytes, count);
    return count > 0;
}

void Peer::release()
{
    close_pipe(&m_input);
}

bool Peer::kill()
{
    thr_process_status status = {0, KILLED_EXIT_CODE};
    if (thr_process_terminate(m_process, status) != 0)
        return false;
    m_process = nullptr; // closed
    m_exit_code = KILLED_EXIT_CODE;
    return true;
}

// The pipe has ended, and with it the process.
void Peer::finish()
{
    thr_process_status status;
    if (m_process && thr_process_wait(m_process, &status, 0) > 0) {
        m_process = nullptr; // closed
        m_exit_code = status.exit_code;
    }
    close_pipe(&m_input);
    close_pipe(&m_output);
}

void Peer::close_pipe(void **pipe)
{
    if (*pipe)
        thr_process_close_pipe(*pipe);
    *pipe = nullptr;
}
