// A process that this one has started and listens to: lines come through its output pipe, and its
// input pipe tells it, by being closed, that it may leave.
#ifndef LEDGER_PEER_H
#define LEDGER_PEER_H

#include "ledger.h"

#include <string>

class Peer
{
public:
    Peer() = default;
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    // Ends the process, which only a run that was given up still has here.
    ~Peer();

    // Starts this same program with other arguments; false when it can't be started.
    bool start(const std::string &arguments);

    // Takes the next line that the process has said; false when there is none just now. Never
    // waits for more to be said.
    bool next_line(std::string *line);

    // It was started and its output has not ended.
    bool is_running() const { return m_output != nullptr; }

    // It may leave.
    void release();

    // Ends the process the hard way; false when it can't be ended, having gone already.
    bool kill();

    uint32_t process_id() const { return m_process_id; }
    // Of a process that does not run any more.
    int exit_code() const { return m_exit_code; }

private:
    bool read_output();
    void finish();
    void close_pipe(void **pipe);

    void *m_process = nullptr;
    void *m_job = nullptr;
    void *m_output = nullptr;
    void *m_input = nullptr;
    uint32_t m_process_id = 0;
    int m_exit_code = -1;
    std::string m_unread;
};

#endif
