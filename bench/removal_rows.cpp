#include "raw_calls.h"
#include "rows.h"

#include "support/import_patch.h"

#include "thr/thr.h"

#include <cstdio>
#include <optional>

namespace bench
{

namespace
{

// The next holder takes the lock file in the moment between the unlock's close and its removal,
// and lets it go in one of the removal's renames, when its time is over.
struct NextHolder {
    std::string m_path;
    double m_hold_seconds;
    HANDLE m_file;
    int64_t m_start;
    int m_moves;
    decltype(&CloseHandle) m_close;
    decltype(&MoveFileW) m_move;
} next_holder;

BOOL WINAPI close_and_be_next(HANDLE handle)
{
    BOOL result = next_holder.m_close(handle);
    next_holder.m_file = raw::take_lock_file(next_holder.m_path.c_str());
    next_holder.m_start = now();
    return result;
}

BOOL WINAPI move_when_held(const wchar_t *from, const wchar_t *to)
{
    next_holder.m_moves++;
    if (seconds(now() - next_holder.m_start) >= next_holder.m_hold_seconds)
        CloseHandle(next_holder.m_file);
    return next_holder.m_move(from, to);
}

// The seconds that the unlock takes.
double unlock_that_meets(THR_IP_MUTEX mutex, int hold_ms)
{
    (void)thr_ip_mutex_lock(mutex);
    next_holder.m_hold_seconds = hold_ms / 1000.0;
    next_holder.m_moves = 0;
    support::ImportPatch move("MoveFileW", &move_when_held);
    next_holder.m_move = move.original<decltype(&MoveFileW)>();
    std::optional<support::ImportPatch> close;
    if (hold_ms != 0) {
        close.emplace("CloseHandle", &close_and_be_next);
        next_holder.m_close = close->original<decltype(&CloseHandle)>();
    }
    int64_t start = now();
    thr_ip_mutex_unlock(mutex);
    return seconds(now() - start);
}

} // namespace

void removal_rows(Report &report, const std::string &directory)
{
    const char *title = "interprocess unlock that meets the next holder";
    if (report.mode() == Mode::CALLS || !report.is_wanted(title))
        return;
    printf("\n%-46s %9s %14s\n", title, "takes", "renames tried");
    THR_IP_MUTEX mutex = thr_ip_mutex_create((directory + "\\next").c_str());
    next_holder.m_path = directory + "/next.mtx.flock";
    for (int hold_ms : {0, 1, 10, 100}) {
        std::vector<double> times, moves;
        for (int round = 0; round < (report.mode() == Mode::QUICK ? 5 : 15); ++round) {
            times.push_back(unlock_that_meets(mutex, hold_ms));
            moves.push_back(next_holder.m_moves);
        }
        std::string name =
            hold_ms ? "one that holds for " + std::to_string(hold_ms) + " ms" : "nobody";
        printf("%-46s %9s %14.0f\n", name.c_str(), time_text(spread_of(times).median).c_str(),
               spread_of(moves).median);
    }
    thr_ip_mutex_destroy(mutex);
}

} // namespace bench
