#include "raw_calls.h"
#include "rows.h"

#include "thr/thr_classes.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace bench
{

namespace
{

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

// Stays mapped until the process ends.
Line *shared_line(const std::string &name)
{
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        sizeof(Line), name.c_str());
    void *line = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Line));
    if (!line)
        throw std::runtime_error("no memory that processes share");
    return static_cast<Line *>(line);
}

// Takes the mutex again and again, and leaves it to somebody else in between.
template <class Mutex> void hand_over(Line *line, LONG number, Mutex &mutex)
{
    InterlockedIncrement(&line->inside);
    while (line->active != 0) {
        (void)mutex.lock();
        line->last = number;
        InterlockedIncrement(&line->hand_overs);
        Sleep(1); // what the mutex is held for
        mutex.unlock();
        while (line->active > 1 && line->last == number)
            Sleep(1);
    }
    InterlockedDecrement(&line->inside);
}

void await(const volatile LONG &value, LONG wanted)
{
    for (int tries = 0; tries < 60000; ++tries) {
        if (value == wanted)
            return;
        Sleep(1);
    }
    throw std::runtime_error("the processes in line do not come");
}

// The processes in line, started once for all rows.
class Queue
{
public:
    Queue(const std::string &directory, int size);
    ~Queue();
    Queue(const Queue &) = delete;
    Queue &operator=(const Queue &) = delete;

    // What so many hand-overs among the waiting processes take, in ticks, as far as a slice of time
    // tells.
    int64_t run(int waiters, bool is_raw, DWORD slice_ms, int count);

private:
    Line *m_line;
    std::vector<void *> m_processes;
};

Queue::Queue(const std::string &directory, int size)
{
    const std::string name = "thr_bench_line" + std::to_string(GetCurrentProcessId());
    m_line = shared_line(name);
    for (int number = 1; number <= size; ++number) {
        std::string command = "\"" + own_program() + "\" --wait-in-line \"" + directory + "\" " +
                              name + " " + std::to_string(number);
        m_processes.push_back(
            thr_process_create(command.data(), nullptr, nullptr, nullptr, nullptr, nullptr));
        if (!m_processes.back())
            throw std::runtime_error("a process in line can't be started");
    }
    await(m_line->ready, size);
}

Queue::~Queue()
{
    m_line->is_over = 1;
    for (void *process : m_processes) {
        if (WaitForSingleObject(process, 10000) != WAIT_OBJECT_0)
            TerminateProcess(process, 1);
        CloseHandle(process);
    }
}

int64_t Queue::run(int waiters, bool is_raw, DWORD slice_ms, int count)
{
    m_line->is_raw = is_raw;
    m_line->last = 0;
    m_line->active = waiters;
    await(m_line->inside, waiters);
    LONG before = m_line->hand_overs;
    int64_t start = now();
    Sleep(slice_ms);
    LONG hand_overs = m_line->hand_overs - before;
    int64_t ticks = now() - start;
    m_line->active = 0;
    await(m_line->inside, 0);
    return ticks * count / std::max(hand_overs, LONG(1));
}

// What no chance changes of a hand-over: a try that finds the mutex held, then a lock.
template <class Mutex> void meet(Mutex &holder, Mutex &next)
{
    (void)holder.lock(), (void)next.try_lock(), holder.unlock();
    (void)next.lock(), next.unlock();
}

} // namespace

int wait_in_line(const std::vector<std::string> &args)
{
    THR_IP_MUTEX_OBJ mutex((args.at(0) + "\\line").c_str());
    raw::IpMutex raw_mutex(args.at(0) + "/raw_line");
    Line *line = shared_line(args.at(1));
    int number = std::stoi(args.at(2));
    InterlockedIncrement(&line->ready);
    while (!line->is_over) {
        if (line->active < number)
            Sleep(20); // seldom: those who don't take part must not disturb
        else if (line->is_raw)
            hand_over(line, number, raw_mutex);
        else
            hand_over(line, number, mutex);
    }
    return 0;
}

void hand_over_rows(Report &report, const std::string &directory)
{
    THR_IP_MUTEX_OBJ holder((directory + "\\line").c_str()), next((directory + "\\line").c_str());
    raw::IpMutex raw_holder(directory + "/raw_line"), raw_next(directory + "/raw_line");
    std::optional<Queue> queue; // when it is measured
    for (int waiters : {2, 4, 8, MOST_WAITERS}) {
        auto run = [&, waiters](bool is_raw, int count) {
            if (!queue)
                queue.emplace(directory, MOST_WAITERS);
            return queue->run(waiters, is_raw, report.mode() == Mode::QUICK ? 100 : 300, count);
        };
        report.row(
            {"ip mutex hand-over, " + std::to_string(waiters) + " processes",
             0,
             {[=](int count) { return run(false, count); }, [&] { meet(holder, next); }},
             {[=](int count) { return run(true, count); }, [&] { meet(raw_holder, raw_next); }},
             {},
             0}); // no more than one slice
    }
}

} // namespace bench
