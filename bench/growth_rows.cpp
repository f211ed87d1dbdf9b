#include "raw_calls.h"
#include "rows.h"

#include "thr/thr.h"

#include <algorithm>
#include <cstdlib>
#include <shared_mutex>
#include <stdexcept>

namespace bench
{

namespace
{

// --- the scan for readers -----------------------------------------------------------------------

// Holds reader files, as so many other processes would.
class HeldReaders
{
public:
    explicit HeldReaders(const std::string &directory) : m_directory(directory) {}
    ~HeldReaders()
    {
        for (HANDLE file : m_files)
            CloseHandle(file);
    }
    HeldReaders(const HeldReaders &) = delete;
    HeldReaders &operator=(const HeldReaders &) = delete;

    void grow_to(size_t count)
    {
        while (m_files.size() < count) {
            std::string name =
                m_directory + "/other." + std::to_string(m_files.size()) + ".rdr.flock";
            m_files.push_back(raw::take_lock_file(name.c_str()));
            if (m_files.back() == INVALID_HANDLE_VALUE)
                throw std::runtime_error("can't make " + name);
        }
    }

private:
    std::string m_directory;
    std::vector<HANDLE> m_files;
};

// A writer that tries and finds the readers: the scan is most of it.
void scan_rows(Report &report, const std::string &directory)
{
    THR_IP_RW_SEM sem = thr_ip_rw_sem_create((directory + "\\sem").c_str());
    raw::IpRwSem raw_sem(directory + "/raw_sem");
    HeldReaders readers(directory);
    for (int count : {1, 10, 100}) {
        readers.grow_to(count);
        report.row({"ip rw sem write try-lock, " + std::to_string(count) + " readers", 1.08,
                    repeat([=] { thr_ip_rw_sem_write_try_lock(sem); }),
                    repeat([&] { raw_sem.write_try_lock(); })},
                   "scan", count);
    }
    thr_ip_rw_sem_destroy(sem);
}

// --- the read-write semaphore -------------------------------------------------------------------

const int WRITE_EVERY = 8; // of the operations of a thread, one is a write

void rw_sem_rows(Report &report)
{
    THR_RW_SEM sem = thr_rw_sem_create();
    raw::RwSem raw_sem;
    std::shared_mutex standard;
    auto mixed = [](Crew &crew, auto read, auto write) {
        return in_step(crew, [=](int) {
            for (int reads = 1; reads < WRITE_EVERY; ++reads)
                read();
            write();
        });
    };
    for (int threads : {1, 2, 4, 8}) {
        Crew crew(threads);
        auto divided = [&](const Batch &batch) -> Batch { // a time for one lock and unlock
            return [=](int count) { return batch(count) / (WRITE_EVERY * threads); };
        };
        report.row({"rw sem, " + std::to_string(threads) + " threads, 1 of 8 writes",
                    1.08,
                    divided(mixed(
                        crew, [=] { thr_rw_sem_read_lock(sem), thr_rw_sem_read_unlock(sem); },
                        [=] { thr_rw_sem_write_lock(sem), thr_rw_sem_write_unlock(sem); })),
                    divided(mixed(
                        crew, [&] { raw_sem.read_lock(), raw_sem.read_unlock(); },
                        [&] { raw_sem.write_lock(), raw_sem.write_unlock(); })),
                    {{"std::shared_mutex",
                      divided(mixed(
                          crew, [&] { standard.lock_shared(), standard.unlock_shared(); },
                          [&] { standard.lock(), standard.unlock(); }))}},
                    0.001},
                   "rw_sem", threads);
    }
    thr_rw_sem_destroy(sem);
    free(sem);
}

// --- hand-overs of the interprocess mutex -------------------------------------------------------

const int MOST_WAITERS = 16;

// What the processes in line share.
struct Line {
    volatile LONG active; // so many of them take part; 0: none, and at the end
    volatile LONG is_raw; // with the raw calls
    volatile LONG is_over;
    volatile LONG ready;  // processes that are there
    volatile LONG inside; // processes that take part just now
    volatile LONG hand_overs;
    volatile LONG last; // the process that had the mutex
};

class SharedLine
{
public:
    explicit SharedLine(const std::string &name)
        : m_mapping(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                       sizeof(Line), name.c_str())),
          m_line(static_cast<Line *>(
              MapViewOfFile(m_mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Line))))
    {
        if (!m_line)
            throw std::runtime_error("no memory that processes share");
    }
    ~SharedLine()
    {
        UnmapViewOfFile(m_line);
        CloseHandle(m_mapping);
    }
    SharedLine(const SharedLine &) = delete;
    SharedLine &operator=(const SharedLine &) = delete;
    Line *operator->() const { return m_line; }

private:
    HANDLE m_mapping;
    Line *m_line;
};

// Takes the mutex again and again, and leaves it to somebody else in between.
template <class Lock, class Unlock>
void hand_over(const SharedLine &line, LONG number, Lock lock, Unlock unlock)
{
    InterlockedIncrement(&line->inside);
    while (line->active != 0) {
        lock();
        line->last = number;
        InterlockedIncrement(&line->hand_overs);
        Sleep(1); // what the mutex is held for
        unlock();
        while (line->active > 1 && line->last == number)
            Sleep(1);
    }
    InterlockedDecrement(&line->inside);
}

// The processes in line, started once for all rows.
class Queue
{
public:
    Queue(const std::string &directory, int size);
    ~Queue();
    Queue(const Queue &) = delete;
    Queue &operator=(const Queue &) = delete;

    // How long a hand-over takes among so many processes, in seconds.
    double measure(int waiters, bool is_raw, DWORD slice_ms);

private:
    void start(const std::string &directory, const std::string &name, int number);
    static void await(const volatile LONG &value, LONG wanted);

    std::string m_name;
    SharedLine m_line;
    std::vector<HANDLE> m_processes;
};

Queue::Queue(const std::string &directory, int size)
    : m_name("thr_bench_line" + std::to_string(GetCurrentProcessId())), m_line(m_name)
{
    for (int number = 1; number <= size; ++number)
        start(directory, m_name, number);
    await(m_line->ready, size);
}

Queue::~Queue()
{
    m_line->is_over = 1;
    for (HANDLE process : m_processes) {
        if (WaitForSingleObject(process, 10000) != WAIT_OBJECT_0)
            TerminateProcess(process, 1);
        CloseHandle(process);
    }
}

void Queue::start(const std::string &directory, const std::string &name, int number)
{
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    std::string command = std::string("\"") + program + "\" --wait-in-line \"" + directory + "\" " +
                          name + " " + std::to_string(number);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process;
    if (!CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &process))
        throw std::runtime_error("a process in line can't be started");
    CloseHandle(process.hThread);
    m_processes.push_back(process.hProcess);
}

void Queue::await(const volatile LONG &value, LONG wanted)
{
    for (int tries = 0; tries < 60000; ++tries) {
        if (value == wanted)
            return;
        Sleep(1);
    }
    throw std::runtime_error("the processes in line do not come");
}

double Queue::measure(int waiters, bool is_raw, DWORD slice_ms)
{
    m_line->is_raw = is_raw;
    m_line->last = 0;
    m_line->active = waiters;
    await(m_line->inside, waiters);
    LONG before = m_line->hand_overs;
    int64_t start = now();
    Sleep(slice_ms);
    LONG hand_overs = m_line->hand_overs - before;
    double time = seconds(now() - start);
    m_line->active = 0;
    await(m_line->inside, 0);
    return time / std::max(hand_overs, LONG(1));
}

void hand_over_rows(Report &report, const std::string &directory)
{
    Queue queue(directory, MOST_WAITERS);
    const int rounds = report.is_quick() ? 3 : 10;
    const DWORD slice_ms = report.is_quick() ? 250 : 600;
    for (int waiters : {2, 4, 8, MOST_WAITERS}) {
        const Operation operation = {
            "ip mutex hand-over, " + std::to_string(waiters) + " processes", 0, {}, {}};
        if (!report.is_wanted(operation.name))
            continue;
        std::vector<double> library, raw, ratios, controls;
        for (int round = 0; round < rounds; ++round) {
            library.push_back(queue.measure(waiters, false, slice_ms));
            raw.push_back(queue.measure(waiters, true, slice_ms));
            ratios.push_back(library.back() / raw.back());
            controls.push_back(queue.measure(waiters, true, slice_ms) / raw.back());
        }
        report.add(operation,
                   {spread_of(library).median,
                    spread_of(raw).median,
                    spread_of(ratios),
                    spread_of(controls),
                    {},
                    rounds},
                   "hand_over", waiters);
    }
}

} // namespace

int wait_in_line(const std::vector<std::string> &args)
{
    THR_IP_MUTEX mutex = thr_ip_mutex_create((args.at(0) + "\\line").c_str());
    raw::IpMutex raw_mutex(args.at(0) + "/raw_line");
    SharedLine line(args.at(1));
    int number = std::stoi(args.at(2));
    InterlockedIncrement(&line->ready);
    while (!line->is_over) {
        if (line->active < number)
            Sleep(20); // seldom: those who don't take part must not disturb

        else if (line->is_raw)
            hand_over(
                line, number, [&] { raw_mutex.lock(); }, [&] { raw_mutex.unlock(); });
        else
            hand_over(
                line, number, [=] { thr_ip_mutex_lock(mutex); },
                [=] { thr_ip_mutex_unlock(mutex); });
    }
    thr_ip_mutex_destroy(mutex);
    return 0;
}

void growth_rows(Report &report, const std::string &directory)
{
    report.part("growth");
    scan_rows(report, directory);
    rw_sem_rows(report);
    hand_over_rows(report, directory);
}

} // namespace bench
