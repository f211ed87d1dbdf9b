#include "crew.h"

#include <cstdlib>
#include <cstring>
#include <random>

namespace
{

std::string worker_arguments(uint32_t number, const Options &options)
{
    return std::string(WORKER_ARGUMENT) + " " + std::to_string(number) + " " +
           std::to_string(options.entries) + " " + std::to_string(options.seed + number) + " " +
           std::to_string(options.readers);
}

std::string failure(const std::string &complaint, int exit_code)
{
    if (!complaint.empty())
        return "failed: " + complaint;
    return "failed: ended early with exit code " + std::to_string(exit_code);
}

} // namespace

// --- workers ------------------------------------------------------------------------------------

Worker::Worker(uint32_t number, const Strike &strike) : m_number(number), m_strike(strike) {}

void Worker::start(const Options &options)
{
    if (!m_peer.start(worker_arguments(m_number, options)))
        m_complaint = "could not be started";
}

bool Worker::poll()
{
    strike_if_due();
    std::string line;
    bool any = false;
    while (m_peer.next_line(&line)) {
        take_line(line);
        strike_if_due();
        any = true;
    }
    return any;
}

void Worker::take_line(const std::string &line)
{
    if (line == "lock") {
        m_holds_lock = true;
        m_lock_time = Clock::now();
        if (m_entries.size() + 1 == m_strike.entry) {
            m_is_strike_set = true;
            m_strike_time = Clock::now() + std::chrono::milliseconds(m_strike.delay);
        }
    } else if (line.compare(0, 6, "entry ") == 0) {
        m_holds_lock = false;
        char *seal;
        uint64_t number = strtoull(line.c_str() + 6, &seal, 10);
        m_entries.push_back({number, process_id(), m_number, strtoull(seal, nullptr, 10)});
    } else if (line.compare(0, 4, "cut ") == 0) {
        m_cuts++;
    } else if (line == "done") {
        m_is_done = true;
        if (!m_is_strike_set)
            m_peer.release(); // it may leave
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
    if (!is_running() || !m_is_strike_set || m_was_killed || Clock::now() < m_strike_time)
        return;
    m_was_killed = m_peer.kill();
    if (!m_was_killed) {
        m_is_strike_set = false;
        m_peer.release(); // it may leave, if it has not ended already
    }
}

std::string Worker::how_it_ended() const
{
    if (m_was_killed)
        return m_holds_lock ? "killed, lock held" : "killed";
    return is_fine() ? "done" : failure(m_complaint, m_peer.exit_code());
}

// --- readers ------------------------------------------------------------------------------------

void Reader::start()
{
    if (!m_peer.start(READER_ARGUMENT))
        m_complaint = "could not be started";
}

bool Reader::poll()
{
    std::string line;
    bool any = false;
    while (m_peer.next_line(&line)) {
        if (line.compare(0, 6, "audit ") == 0)
            m_audits++;
        else
            m_complaint = line.substr(0, line.find('\r'));
        any = true;
    }
    return any;
}

void Reader::stop()
{
    m_peer.release();
    Clock::time_point end = Clock::now() + LONGEST_SILENCE;
    while (m_peer.is_running() && Clock::now() < end) {
        if (!poll())
            thr_msleep(1);
    }
    if (m_peer.is_running())
        m_complaint = "waits for the lock, or for something else";
}

std::string Reader::how_it_ended() const
{
    return is_fine() ? "done" : failure(m_complaint, m_peer.exit_code());
}

// --- the crew -----------------------------------------------------------------------------------

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

void start_readers(const Options &options, std::deque<Reader> *readers)
{
    for (uint32_t i = 0; i < options.readers; i++) {
        readers->emplace_back();
        readers->back().start();
    }
}
