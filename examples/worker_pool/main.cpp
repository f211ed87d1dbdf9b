// worker_pool: workers share a table under a read-write semaphore while the main thread handles its
// messages, until the last worker posts the exit event. Two wrappers run around every worker.
#include "thr/thr_classes.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

namespace
{

const char HELP[] =
    "usage: worker_pool [--workers N] [--rounds M]\n"
    "\n"
    "Starts N worker threads. In each of its M rounds a worker makes a deposit into the\n"
    "table that they share or audits the table. In the end the table must hold what the\n"
    "workers say they brought.\n"
    "\n"
    "  --workers N   1 to 32 (4)\n"
    "  --rounds M    1 to 5000 (2000)\n"
    "\n"
    "The exit status is 0 when the table is right, 1 when not, 2 for wrong arguments.\n";

const UINT PROGRESS = WM_APP; // to the window: worker's number, rounds done
const uint32_t LONGEST_RUN_MS = 120000;

struct Options {
    int workers = 4;
    int rounds = 2000;
};

// --- the table ----------------------------------------------------------------------------------

struct Table {
    THR_READ_WRITE_SEMAPHORE semaphore; // guards the rest
    int shelves[16] = {};
    int total = 0;
};

void deposit(Table &table, int round, int amount)
{
    THR_SCOPED_WRITE_LOCK lock(table.semaphore);
    table.shelves[round % 16] += amount;
    table.total += amount;
}

// Any number of workers audit at once, and never meet a half-made deposit.
bool audit(Table &table)
{
    THR_SCOPED_READ_LOCK lock(table.semaphore);
    int sum = 0;
    for (int shelf : table.shelves)
        sum += shelf;
    return sum == table.total;
}

// --- a worker -----------------------------------------------------------------------------------

struct Pool {
    Table table;
    HWND window = nullptr;
    int rounds = 0;
    LONG still_working = 0;
};

struct Worker {
    Pool *pool = nullptr;
    int number = 0;
    std::string name;
    THR_EVENT_OBJ done;
    THR_THREAD_ID thread = nullptr;
    // What it did, for the main thread once `done` is posted. Messages would not do for it: the
    // one at which the pump notices the exit event is lost.
    int deposits = 0, audits = 0, failed_audits = 0;
    uint32_t milliseconds = 0;
};

void say_done(Worker &worker)
{
    Pool &pool = *worker.pool;
    worker.done.post();
    if (InterlockedDecrement(&pool.still_working) == 0) {
        thr_win32_post_pump_exit_event();
        PostMessageA(pool.window, WM_NULL, 0, 0); // the pump looks only when it has a message
    }
}

// The thread function. Its result, the sum of its deposits, is what thr_thread_wait() gives.
void *work(void *arg)
{
    Worker &worker = *static_cast<Worker *>(arg);
    Pool &pool = *worker.pool;
    int brought = 0;
    for (int round = 1; round <= pool.rounds; round++) {
        if (round % 4 == 0) {
            int amount = worker.number * 100 + round % 100;
            deposit(pool.table, round, amount);
            brought += amount;
            worker.deposits++;
        } else {
            worker.failed_audits += !audit(pool.table);
            worker.audits++;
        }
        if (round == pool.rounds / 2)
            PostMessageA(pool.window, PROGRESS, worker.number, round);
    }
    return reinterpret_cast<void *>(static_cast<intptr_t>(brought));
}

// --- wrappers -----------------------------------------------------------------------------------

// The library fills these with the next link of the chain. Every thread of this program gets a
// Worker as its argument, so that the wrappers know what they have.
THR_THREAD_WRAPPER after_timing;
THR_THREAD_WRAPPER after_naming;

// The outermost: with the time taken, all that the worker leaves is there.
void *time_the_thread(THR_THREAD_FUNC func, void *arg)
{
    Worker &worker = *static_cast<Worker *>(arg);
    uint32_t start = thr_get_tick_count();
    void *value = after_timing(func, arg);
    worker.milliseconds = thr_get_tick_count() - start;
    say_done(worker);
    return value;
}

// For a debugger's list of threads.
void *name_the_thread(THR_THREAD_FUNC func, void *arg)
{
    thr_rename_thread(static_cast<Worker *>(arg)->name.c_str());
    return after_naming(func, arg);
}

// --- the main thread ----------------------------------------------------------------------------

LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message != PROGRESS)
        return DefWindowProcA(window, message, wparam, lparam);
    printf("worker %u is half-way, after %u rounds\n", static_cast<unsigned>(wparam),
           static_cast<unsigned>(lparam));
    return 0;
}

// A window that only receives messages.
HWND make_window()
{
    WNDCLASSA window_class = {};
    window_class.lpfnWndProc = window_proc;
    window_class.lpszClassName = "worker_pool";
    RegisterClassA(&window_class);
    HWND window =
        CreateWindowA("worker_pool", "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    if (!window)
        throw std::runtime_error("there is no window for the workers' messages");
    return window;
}

// False when the workers take too long.
bool pump_until_exit()
{
    uint32_t start = thr_get_tick_count();
    while (thr_win32_pump_messages(0) != thr_win32_pump_exit_retcode) {
        if (thr_get_tick_count() - start >= LONGEST_RUN_MS)
            return false;
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 1000, QS_ALLINPUT);
    }
    thr_win32_pump_messages(0); // what was still waiting behind the exit
    return true;
}

// Prints what a worker did and returns the sum that it brought.
int settle(Worker &worker)
{
    worker.done.wait(0); // posted by now
    int brought = static_cast<int>(reinterpret_cast<intptr_t>(thr_thread_wait(worker.thread)));
    printf("%s: %d deposits of %d in all, %d audits, %u ms\n", worker.name.c_str(), worker.deposits,
           brought, worker.audits, worker.milliseconds);
    return brought;
}

int run(const Options &options)
{
    thr_thread_set_next_wrapper_func(time_the_thread, &after_timing);
    thr_thread_set_next_wrapper_func(name_the_thread, &after_naming);
    Pool pool;
    pool.window = make_window();
    pool.rounds = options.rounds;
    pool.still_working = options.workers;
    std::vector<Worker> workers(options.workers); // never moved: the threads have their addresses
    for (Worker &worker : workers) {
        worker.pool = &pool;
        worker.number = static_cast<int>(&worker - workers.data()) + 1;
        worker.name = "worker " + std::to_string(worker.number);
        worker.thread = thr_thread_create(work, &worker, 0);
    }
    if (!pump_until_exit()) {
        fprintf(stderr, "worker_pool: the workers are not done after %u s\n",
                LONGEST_RUN_MS / 1000);
        fflush(nullptr);
        ExitProcess(1); // the workers still use what this function owns
    }
    int brought = 0;
    int failed_audits = 0;
    for (Worker &worker : workers) {
        brought += settle(worker);
        failed_audits += worker.failed_audits;
    }
    bool is_right = audit(pool.table) && pool.table.total == brought && failed_audits == 0;
    printf("the table holds %d, the workers brought %d, %d audits failed: %s\n", pool.table.total,
           brought, failed_audits, is_right ? "right" : "WRONG");
    return is_right ? 0 : 1;
}

int parse_number(const std::string &name, const char *text, int most)
{
    char *end = nullptr;
    long value = text ? strtol(text, &end, 10) : 0;
    bool is_number = text && *text >= '0' && *text <= '9' && *end == '\0';
    if (!is_number || value < 1 || value > most)
        throw std::invalid_argument(name + " takes a number from 1 to " + std::to_string(most));
    return value;
}

Options parse_options(char **args)
{
    Options options;
    for (; *args; args++) {
        std::string arg = *args;
        if (arg == "--workers")
            options.workers = parse_number(arg, *++args, 32);
        else if (arg == "--rounds")
            options.rounds = parse_number(arg, *++args, 5000);
        else
            throw std::invalid_argument("there is no argument " + arg);
    }
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::string(argv[1]) == "--help") {
        fputs(HELP, stdout);
        return 0;
    }
    try {
        return run(parse_options(argv + 1));
    } catch (const std::invalid_argument &e) {
        fprintf(stderr, "worker_pool: %s (see --help)\n", e.what());
        return 2;
    } catch (const std::exception &e) {
        fprintf(stderr, "worker_pool: %s\n", e.what());
        return 1;
    }
}
