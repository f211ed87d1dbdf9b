#include "ledger.h"
#include "ledger_file.h"

#include <cinttypes>
#include <cstdio>
#include <random>

namespace
{

void say(const std::string &line)
{
    std::string bytes = line + "\n";
    if (thr_process_write(GetStdHandle(STD_OUTPUT_HANDLE), bytes.data(),
                          static_cast<uint32_t>(bytes.size()), nullptr) != 0)
        throw LedgerError("the host has gone");
}

// With the lock held, whichever it is.
void append_entry(uint32_t worker, LedgerFile *ledger)
{
    say("lock");
    uint32_t cut = ledger->cut_torn_entry();
    if (cut > 0)
        say("cut " + std::to_string(cut));
    Entry entry = ledger->append(static_cast<uint32_t>(thr_getpid()), worker);
    say("entry " + std::to_string(entry.number) + " " + std::to_string(entry.seal));
}

void append_under_mutex(uint32_t worker, LedgerFile *ledger, THR_IP_MUTEX_OBJ *mutex)
{
    THR_IP_SCOPED_MUTEX guard = lock_ledger(mutex);
    if (!guard.was_lock_successful())
        throw LedgerError("can't take the lock");
    append_entry(worker, ledger);
}

void append_among_readers(uint32_t worker, LedgerFile *ledger, Semaphore *semaphore)
{
    WriteGuard guard(semaphore);
    append_entry(worker, ledger);
}

void wait_for_leave()
{
    char byte;
    while (thr_process_read(thr_process_get_stdin(), &byte, 1, nullptr) == 0)
        ;
}

} // namespace

int run_worker(uint32_t number, const Options &options)
{
    try {
        LedgerFile ledger(options.file, LedgerFile::OPEN);
        THR_IP_MUTEX_OBJ mutex(options.file.c_str());
        Semaphore semaphore(options.file.c_str());
        std::minstd_rand random(options.seed);
        for (uint32_t i = 0; i < options.entries; i++) {
            if (options.readers > 0)
                append_among_readers(number, &ledger, &semaphore);
            else
                append_under_mutex(number, &ledger, &mutex);
            thr_msleep(random() % 4); // the work that leads to the next entry needs no lock
        }
        say("done");
        wait_for_leave();
        return 0;
    } catch (const LedgerError &error) {
        // standard error is the same pipe; nobody may be at its other end any more
        fprintf(stderr, "%s\n", error.what());
    } catch (const VELKORA_EXCEPTION &exception) {
        fprintf(stderr, "%s\n", exception.get_errc().get_error_message()[0].m_text.c_str());
    }
    return 1;
}
