// The operations as a careful user writes them with plain Win32 calls: the same calls in the same
// order as the library's, without its checks and without a DLL between.
#ifndef THR_BENCH_RAW_CALLS_H
#define THR_BENCH_RAW_CALLS_H

#include <string>

#include <windows.h>

namespace raw
{

CRITICAL_SECTION *make_section();
void destroy_section(CRITICAL_SECTION *section);

// A manual-reset event.
struct Event {
    HANDLE m_handle;
};
Event *make_event(BOOL is_posted = FALSE);
void destroy_event(Event *event);

// --- read-write semaphore -----------------------------------------------------------------------

class RwSem
{
public:
    RwSem() = default;
    ~RwSem();
    RwSem(const RwSem &) = delete;
    RwSem &operator=(const RwSem &) = delete;

    void read_lock();
    void read_unlock();
    void write_lock();
    void write_unlock();

private:
    CRITICAL_SECTION *m_state = make_section();
    CRITICAL_SECTION *m_writer = make_section();
    Event *m_no_readers = make_event(TRUE);
    Event *m_no_writers = make_event(TRUE);
    int m_readers = 0;
    int m_writers = 0;
};

// --- threads ------------------------------------------------------------------------------------

using ThreadFunc = void *(*)(void *);
using Wrapper = void *(*)(ThreadFunc, void *);

// The links of a chain of wrappers; the last one calls the function.
void *call_func(ThreadFunc func, void *arg);
extern Wrapper chain_head;

// Creates a thread with a record of its own, waits for it and returns its value.
void *run_thread(DWORD self_slot, ThreadFunc func, void *arg);

// --- lock files ---------------------------------------------------------------------------------

// INVALID_HANDLE_VALUE and the system's code when refused.
HANDLE take_lock_file(const char *path, DWORD *code = nullptr);
void release_lock_file(const char *path, HANDLE lock_file);

class IpMutex
{
public:
    explicit IpMutex(const std::string &path) : m_path(path + ".mtx.flock") {}

    bool lock();
    bool try_lock();
    void unlock();

private:
    std::string m_path;
    HANDLE m_file = INVALID_HANDLE_VALUE;
    DWORD m_code = 0;
    int m_count = 0;
};

// `path` is absolute, with a slash before its file name.
class IpRwSem
{
public:
    explicit IpRwSem(const std::string &path);

    void read_lock();
    void read_unlock();
    void write_lock();
    bool write_try_lock();
    void write_unlock();

private:
    IpMutex m_atomic_lock;
    IpMutex m_writers_lock;
    std::string m_reader_path;
    std::string m_writer_path;
    HANDLE m_reader = INVALID_HANDLE_VALUE;
    HANDLE m_writer = INVALID_HANDLE_VALUE;
    int m_readers = 0;
    int m_writers = 0;
};

// --- processes ----------------------------------------------------------------------------------

// Starts a command in a job of its own, its output in a pipe; null when refused.
HANDLE start_process(char *command, HANDLE *output, HANDLE *job);

} // namespace raw

#endif
