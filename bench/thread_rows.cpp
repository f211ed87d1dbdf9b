#include "raw_calls.h"
#include "rows.h"

#include "thr/thr.h"

#include <stdexcept>
#include <thread>

namespace bench
{

namespace
{

void *just_return(void *value)
{
    return value;
}

const int MOST_WRAPPERS = 4;

// The next slots of the wrappers in the library's chain and in the raw one.
THR_THREAD_WRAPPER next_slots[MOST_WRAPPERS];
THR_THREAD_WRAPPER raw_next_slots[MOST_WRAPPERS];

template <auto &slots, int link> void *wrapper(THR_THREAD_FUNC func, void *arg)
{
    return slots[link](func, arg);
}

template <auto &slots>
const THR_THREAD_WRAPPER WRAPPERS[] = {wrapper<slots, 0>, wrapper<slots, 1>, wrapper<slots, 2>,
                                       wrapper<slots, 3>};

// Appends a wrapper to each of the two chains.
void append_wrapper(int link)
{
    thr_thread_set_next_wrapper_func(WRAPPERS<next_slots>[link], &next_slots[link]);
    (link == 0 ? raw::chain_head : raw_next_slots[link - 1]) = WRAPPERS<raw_next_slots>[link];
    raw_next_slots[link] = raw::call_func;
}

// The slot's index lies in static storage on both sides, as it does in programs, and the result is
// used: an error code is a part of what setting gives.
THR_THREAD_VAR var;
DWORD slot;
void *value;
int code;

} // namespace

void thread_rows(Report &report)
{
    report.part("threads");
    thr_thread_var_init(&var);
    slot = TlsAlloc();
    report.row({"thread create+wait",
                1.08,
                repeat([] { thr_thread_wait(thr_thread_create(just_return, nullptr, 0)); }),
                repeat([] { raw::run_thread(slot, just_return, nullptr); }),
                {{"std::thread", repeat([] { std::thread(just_return, nullptr).join(); })}}});
    report.row({"thread variable set", 1.50,
                repeat([] { code |= thr_thread_var_set(&var, &value); }),
                repeat([] { code |= TlsSetValue(slot, &value) ? 0 : int(GetLastError()); })});
    report.row({"thread variable get", 1.50, repeat([] { value = thr_thread_var_get(&var); }),
                repeat([] { value = TlsGetValue(slot); })});
    code |= thr_thread_var_set(&var, &value);
    if (code != 0 || thr_thread_var_get(&var) != &value)
        throw std::runtime_error("a thread variable does not hold its value");
    TlsFree(slot);
    thr_thread_var_destroy(&var);
}

void wrapper_rows(Report &report)
{
    report.part("thread functions");
    int registered = 0;
    for (int wrappers : {0, 1, MOST_WRAPPERS}) {
        while (registered < wrappers)
            append_wrapper(registered++);
        report.row({"function call through " + std::to_string(wrappers) + " wrappers", 1.50,
                    repeat([] { thr_thread_wrapper(just_return, nullptr); }),
                    repeat([] { raw::chain_head(just_return, nullptr); })});
    }
}

} // namespace bench
