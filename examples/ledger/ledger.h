// What the host and its workers agree on.
#ifndef LEDGER_H
#define LEDGER_H

#include "thr/thr_classes.h"

#include <cstdint>
#include <string>

// A run, as the command line orders it.
struct Options {
    std::string file; // its full path, in UTF-8
    uint32_t workers = 6;
    uint32_t entries = 200;
    uint32_t kill = 2;
    uint32_t seed = 0;
    uint32_t readers = 0; // with any, workers and readers share a semaphore instead of the mutex
};

// A worker is this program with the arguments WORKER_ARGUMENT, its number from 1, the number of
// entries, a seed and the number of readers. It tells its host, a line each:
//
//     lock                  it has taken the lock
//     cut BYTES             it has cut a torn entry off
//     entry NUMBER SEAL     an entry is in the file; the lock is still held
//     done                  it has written all its entries
//     anything else         what went wrong
//
// and then waits until the host closes the worker's standard input. A worker whose last word was
// "lock" or "cut" therefore ended with the lock held.
const char WORKER_ARGUMENT[] = "--worker";

// A reader is this program with the argument READER_ARGUMENT. It audits the ledger
// again and again under the read lock until its standard input is closed, and tells, a line each:
//
//     audit COUNT           the ledger's entries, all in order
//     anything else         what went wrong
const char READER_ARGUMENT[] = "--reader";

// Both get the file in this variable of their environment, which is wide: a command line goes
// through the ANSI code page.
const wchar_t FILE_VARIABLE[] = L"LEDGER_FILE";

// The exit code of a worker that the host ended.
const int KILLED_EXIT_CODE = 99;

// The whole of a worker; returns its exit code.
int run_worker(uint32_t number, const Options &options);

// The whole of a reader; returns its exit code.
int run_reader(const std::string &file);

// Takes the lock of the ledger; ask the guard whether it was taken. The library gives up a take
// that the system refuses for another reason than that somebody holds the lock. A lock file that
// is just going away is such a reason on some systems, hence a few more tries.
inline THR_IP_SCOPED_MUTEX lock_ledger(THR_IP_MUTEX_OBJ *mutex)
{
    THR_IP_SCOPED_MUTEX guard(mutex);
    for (int tries = 0; tries < 50 && !guard.was_lock_successful(); tries++)
        guard = THR_IP_SCOPED_MUTEX(mutex);
    return guard;
}

// Guards for the semaphore, of which the library has none.
using Semaphore = THR_IP_READ_WRITE_SEMAPHORE;

struct ReadGuard {
    explicit ReadGuard(Semaphore *semaphore) : m_semaphore(semaphore) { semaphore->read_lock(); }
    ReadGuard(const ReadGuard &) = delete;
    ~ReadGuard() { m_semaphore->read_unlock(); }
    Semaphore *m_semaphore;
};

struct WriteGuard {
    explicit WriteGuard(Semaphore *semaphore) : m_semaphore(semaphore) { semaphore->write_lock(); }
    WriteGuard(const WriteGuard &) = delete;
    ~WriteGuard() { m_semaphore->write_unlock(); }
    Semaphore *m_semaphore;
};

#endif
