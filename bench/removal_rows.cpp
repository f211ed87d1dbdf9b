#include "raw_calls.h"
#include "rows.h"

#include "support/gates.h"

#include "thr/thr.h"

#include <cstdio>

namespace bench
{

namespace
{

struct Unlock {
    double seconds;
    LONG moves;
};

// The next holder takes the lock file in the moment between the unlock's close and its removal,
// and lets it go in one of the removal's renames, when its time is over.
Unlock unlock_that_meets(THR_IP_MUTEX mutex, const std::string &lock_file, int hold_ms)
{
    HANDLE next = INVALID_HANDLE_VALUE;
    int64_t taken = 0;
    (void)thr_ip_mutex_lock(mutex);
    support::Gate close("CloseHandle", [&](const support::Call &call) {
        intptr_t result = call.go_on();
        if (hold_ms != 0)
            next = raw::take_lock_file(lock_file.c_str());
        taken = now();
        return result;
    });
    support::Gate move("MoveFileW", [&](const support::Call &call) {
        if (seconds(now() - taken) * 1000.0 >= hold_ms)
            CloseHandle(next);
        return call.go_on();
    });
    int64_t start = now();
    thr_ip_mutex_unlock(mutex);
    return {seconds(now() - start), move.calls()};
}

} // namespace

void removal_rows(Report &report, const std::string &directory)
{
    const char *title = "interprocess unlock that meets the next holder";
    if (report.mode() == Mode::CALLS || !report.is_wanted(title))
        return;
    printf("\n%-46s %9s %14s\n", title, "takes", "renames tried");
    THR_IP_MUTEX mutex = thr_ip_mutex_create((directory + "\\next").c_str());
    for (int hold_ms : {0, 1, 10, 100}) {
        std::vector<double> times, moves;
        for (int round = 0; round < (report.mode() == Mode::QUICK ? 5 : 15); ++round) {
            Unlock unlock = unlock_that_meets(mutex, directory + "/next.mtx.flock", hold_ms);
            times.push_back(unlock.seconds);
            moves.push_back(unlock.moves);
        }
        std::string name =
            hold_ms ? "one that holds for " + std::to_string(hold_ms) + " ms" : "nobody";
        printf("%-46s %9s %14.0f\n", name.c_str(), time_text(spread_of(times).median).c_str(),
               spread_of(moves).median);
    }
    thr_ip_mutex_destroy(mutex);
}

} // namespace bench
