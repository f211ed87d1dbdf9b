// The workers and readers, as the host sees them: processes at the other ends of two pipes.
#ifndef LEDGER_CREW_H
#define LEDGER_CREW_H

#include "ledger.h"
#include "ledger_file.h"
#include "peer.h"

#include <chrono>
#include <deque>
#include <string>
#include <vector>

using Clock = std::chrono::steady_clock;

// After this time without a word a run is given up.
const std::chrono::seconds LONGEST_SILENCE(60);

// When the host ends a worker: some milliseconds after it has taken the lock for that entry of
// its own (counted from 1).
struct Strike {
    uint32_t entry = 0; // 0: never
    uint32_t delay = 0;
};

class Worker
{
public:
    Worker(uint32_t number, const Strike &strike);

    void start(const Options &options);

    // Takes in what the worker has said, strikes when it is time, and notices its end. Never
    // waits for long; returns whether there was anything to do.
    bool poll();

    bool is_running() const { return m_peer.is_running(); }
    // Its strike is near, and a host that sleeps would miss the moment.
    bool is_in_sight() const;
    // All is as planned: it has written every entry, or was ended by the host.
    bool is_fine() const { return m_was_killed || (m_is_done && m_peer.exit_code() == 0); }
    bool was_killed() const { return m_was_killed; }
    bool ended_with_lock() const { return m_holds_lock; }
    // When it told last that it had taken the lock.
    Clock::time_point lock_time() const { return m_lock_time; }
    std::string how_it_ended() const;

    uint32_t number() const { return m_number; }
    uint32_t process_id() const { return m_peer.process_id(); }
    uint32_t cuts() const { return m_cuts; }
    // The entries that it has acknowledged.
    const std::vector<Entry> &entries() const { return m_entries; }

private:
    void take_line(const std::string &line);
    void strike_if_due();

    uint32_t m_number;
    Strike m_strike;
    Peer m_peer;
    std::string m_complaint;
    std::vector<Entry> m_entries;
    uint32_t m_cuts = 0;
    bool m_holds_lock = false;
    bool m_is_done = false;
    bool m_was_killed = false;
    bool m_is_strike_set = false;
    Clock::time_point m_strike_time;
    Clock::time_point m_lock_time;
};

class Reader
{
public:
    void start();

    // Takes in what the reader has said; returns whether there was anything.
    bool poll();

    // Lets the reader leave and waits until it has, as long as a run may be silent.
    void stop();

    // Every audit of its own held, and it ended well.
    bool is_fine() const { return m_audits > 0 && m_complaint.empty() && m_peer.exit_code() == 0; }
    std::string how_it_ended() const;
    uint32_t process_id() const { return m_peer.process_id(); }
    uint32_t audits() const { return m_audits; }

private:
    Peer m_peer;
    uint32_t m_audits = 0;
    std::string m_complaint;
};

// Starts every worker of the run; which of them are to be ended, and when, follows from the seed
// alone.
void start_crew(const Options &options, std::deque<Worker> *crew);

void start_readers(const Options &options, std::deque<Reader> *readers);

#endif
