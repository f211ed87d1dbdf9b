#include "raw_calls.h"
#include "rows.h"

#include "thr/thr.h"

#include <memory>
#include <thread>

namespace bench
{

namespace
{

// The next holder takes the lock file in the moment between the unlock's close and its removal,
// and lets it go after a while.
struct NextHolder {
    std::string m_path;
    int m_hold_ms;
    HANDLE m_file;
    HANDLE m_taken; // event
    decltype(&CloseHandle) m_close;
};

NextHolder next_holder;

BOOL WINAPI close_and_be_next(HANDLE handle)
{
    BOOL result = next_holder.m_close(handle);
    next_holder.m_file = raw::take_lock_file(next_holder.m_path.c_str());
    SetEvent(next_holder.m_taken);
    return result;
}

void hold()
{
    WaitForSingleObject(next_holder.m_taken, INFINITE);
    Sleep(next_holder.m_hold_ms);
    CloseHandle(next_holder.m_file);
}

struct Unlock {
    double seconds;
    int moves;
};

Unlock unlock_that_meets(CallCounter &counter, THR_IP_MUTEX mutex, int hold_ms)
{
    next_holder.m_hold_ms = hold_ms;
    thr_ip_mutex_lock(mutex);
    std::thread holder;
    std::unique_ptr<support::ImportPatch> patch;
    if (hold_ms != 0) {
        holder = std::thread(hold);
        patch = std::make_unique<support::ImportPatch>("CloseHandle", &close_and_be_next);
        next_holder.m_close = patch->original<decltype(&CloseHandle)>();
    }
    int64_t start = now();
    Counts calls = counter.count([=] { thr_ip_mutex_unlock(mutex); });
    double time = seconds(now() - start);
    if (hold_ms != 0)
        holder.join();
    return {time, calls["MoveFileW"]};
}

} // namespace

void removal_rows(Report &report, const std::string &directory)
{
    CallCounter counter;
    THR_IP_MUTEX mutex = thr_ip_mutex_create((directory + "\\next").c_str());
    next_holder.m_path = directory + "/next.mtx.flock";
    next_holder.m_taken = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (int hold_ms : {0, 1, 10, 100}) {
        std::vector<double> times, moves;
        for (int round = 0; round < (report.is_quick() ? 5 : 15); ++round) {
            Unlock unlock = unlock_that_meets(counter, mutex, hold_ms);
            times.push_back(unlock.seconds);
            moves.push_back(unlock.moves);
        }
        report.removal(hold_ms, spread_of(times).median, static_cast<int>(spread_of(moves).median));
    }
    CloseHandle(next_holder.m_taken);
    thr_ip_mutex_destroy(mutex);
}

} // namespace bench
