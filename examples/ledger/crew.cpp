#include "crew.h"

#include <cstdlib>
#include <cstring>
#include <random>

namespace
{

// The command line of a worker. No argument ends in a backslash, which would spoil the quoting:
// such a path would be a folder's.
std::string worker_command(uint32_t number, const Options &options)
{
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, sizeof program);
    return "\"" + std::string(program) + "\" " + WORKER_ARGUMENT + " " + std::to_string(number) +
           " " + std::to_string(options.entries) + " " + std::to_string(options.seed + number) +
           " \"" + options.file + "\"";
}

} // namespace

Worker::Worker(uint32_t number, const Strike &strike) : m_number(number), m_strike(strike) {}

// Only a run that was given up still has a process here. Without pipes it ends by itself.
Worker::~Worker()
{
    close_pipe(&m_input);
    close_pipe(&m_output);
    thr_process_close_handle(m_process);
    thr_process_close_handle(m_job);
}

bool Worker::start(const Options &options)
{
    std::string command = worker_command(m_number, options);
    // one pipe for both output streams: what goes wrong in the worker shows up here too
    m_process = thr_process_create_and_save_job(command.data(), nullptr, &m_output, &m_output,
                                                &m_input, nullptr, &m_job);
    if (m_process) {
        m_process_id = GetProcessId(m_process);
        return true;
    }
    close_pipe(&m_input);
    close_pipe(&m_output);
    m_complaint = "could not be started";
    return false;
}

bool Worker::poll()
{
    if (!is_running())
        return false;
    strike_if_due();
    int has_data;
    if (thr_process_peek(m_output, &has_data) != 0) {
        finish();
        return true;
    }
    if (has_data)
        take_lines();
    return has_data != 0;
}

void Worker::take_lines()
{
    char bytes[4096];
    uint32_t count = 0;
    if (thr_process_read(m_output, bytes, sizeof bytes, &count) != 0)
        return; // the next peek meets the end too
    m_unread.append(bytes, count);
    size_t end;
    while ((end = m_unread.find('\n')) != std::string::npos) {
        take_line(m_unread.substr(0, end));
        m_unread.erase(0, end + 1);
        strike_if_due();
    }
}

void Worker::take_line(const std::string &line)
{
    if (line == "lock") {
        m_holds_lock = true;
        if (m_entries.size() + 1 == m_strike.entry) {
            m_is_strike_set = true;
            m_strike_time = Clock::now() + std::chrono::milliseconds(m_strike.delay);
        }
    } else if (line.compare(0, 6, "entry ") == 0) {
        m_holds_lock = false;
        char *seal;
        uint64_t number = strtoull(line.c_str() + 6, &seal, 10);
        m_entries.push_back({number, m_process_id, m_number, strtoull(seal, nullptr, 10)});
    } else if (line.compare(0, 4, "cut ") == 0) {
        m_cuts++;
    } else if (line == "done") {
        m_is_done = true;
        if (!m_is_strike_set)
            close_pipe(&m_input); // it may leave
    } else {
        m_complaint = line.substr(0, line.find('\r'));
    }
}

bool Worker::is_in_sight() const
{
    return is_running() && !m_was_killed && m_entries.size() + 1 == m_strike.entry;
}

// A worker that is to be ended stays until then, so it is there to be ended.
void Worker::strike_if_due()
{
    if (!m_is_strike_set || m_was_killed || Clock::now() < m_strike_time)
        return;
    thr_process_status status = {0, KILLED_EXIT_CODE};
    if (thr_process_terminate(m_process, status) == 0) {
        m_process = nullptr; // closed
        m_was_killed = true;
    } else {
        m_is_strike_set = false;
        close_pipe(&m_input); // it may leave, if it has not ended already
    }
}

// The pipe has ended, and with it the worker. What is left of an unfinished line acknowledges
// nothing.
void Worker::finish()
{
    thr_process_status status = {0, KILLED_EXIT_CODE};
    if (m_process && thr_process_wait(m_process, &status, 0) > 0)
        m_process = nullptr; // closed
    m_exit_code = status.exit_code;
    close_pipe(&m_input);
    close_pipe(&m_output);
}

void Worker::close_pipe(void **pipe)
{
    if (*pipe)
        thr_process_close_pipe(*pipe);
    *pipe = nullptr;
}

std::string Worker::how_it_ended() const
{
    if (m_was_killed)
        return m_holds_lock ? "killed, lock held" : "killed";
    if (is_fine())
        return "done";
    if (!m_complaint.empty())
        return "failed: " + m_complaint;
    return "failed: ended early with exit code " + std::to_string(m_exit_code);
}

void start_crew(const Options &options, std::deque<Worker> *crew)
{
    std::mt19937 random(options.seed);
    std::vector<Strike> strikes(options.workers);
    for (uint32_t left = options.kill; left > 0;) {
        Strike &strike = strikes[random() % options.workers];
        if (strike.entry != 0)
            continue;
        strike.entry = 1 + random() % options.entries;
        strike.delay = random() % 2 ? random() % 20 : 0;
        left--;
    }
    for (uint32_t i = 0; i < options.workers; i++) {
        crew->emplace_back(i + 1, strikes[i]);
        crew->back().start(options);
    }
}
