// ledger: worker processes share a file under an interprocess lock, some of them are ended in the
// middle of it, and the host proves that nothing got lost.
#include "crew.h"
#include "ledger.h"
#include "ledger_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

const char HELP[] =
    "usage: ledger FILE [--workers N] [--entries M] [--kill K] [--seed S]\n"
    "              [--readers R]\n"
    "\n"
    "Starts N worker processes that append M entries each to the ledger FILE, which is\n"
    "created or continued. They take turns by an interprocess lock on FILE. K of them are\n"
    "terminated at random moments. In the end every entry is audited.\n"
    "\n"
    "  --workers N   1 to 64 (6)\n"
    "  --entries M   entries of each worker, 1 to 1000000 (200)\n"
    "  --kill K      at most N (2, or N - 1 if that is less)\n"
    "  --readers R   0 to 16 (0); with any, processes audit the ledger again and again under the\n"
    "                read lock of a semaphore, under whose write lock the workers then append;\n"
    "                runs that share a FILE must all have readers or all have none\n"
    "  --seed S      picks the workers to be terminated and their moments; the same seed picks\n"
    "                the same (default: another one each time)\n"
    "\n"
    "The exit status is 0 when the audit holds and every other worker wrote all its entries,\n"
    "1 when not, or when FILE can't be used, 2 for wrong arguments.\n";

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// --- arguments ----------------------------------------------------------------------------------

uint32_t parse_number(const std::string &name, const char *text, uint32_t least, uint32_t most)
{
    char *end = nullptr;
    unsigned long long value = text ? strtoull(text, &end, 10) : 0;
    bool is_number = text && *text >= '0' && *text <= '9' && *end == '\0';
    if (!is_number || value < least || value > most)
        throw UsageError(name + " takes a number from " + std::to_string(least) + " to " +
                         std::to_string(most));
    return static_cast<uint32_t>(value);
}

Options parse_options(char **args)
{
    Options options;
    options.seed = thr_get_tick_count() ^ static_cast<uint32_t>(thr_getpid());
    bool is_kill_given = false;
    for (; *args; args++) {
        std::string arg = *args;
        if (arg == "--workers") {
            options.workers = parse_number(arg, *++args, 1, 64);
        } else if (arg == "--entries") {
            options.entries = parse_number(arg, *++args, 1, 1000000);
        } else if (arg == "--kill") {
            options.kill = parse_number(arg, *++args, 0, 64);
            is_kill_given = true;
        } else if (arg == "--readers") {
            options.readers = parse_number(arg, *++args, 0, 16);
        } else if (arg == "--seed") {
            options.seed = parse_number(arg, *++args, 0, UINT32_MAX);
        } else if (arg[0] == '-') {
            throw UsageError("there is no option " + arg);
        } else if (!options.file.empty() || arg.empty()) {
            throw UsageError("one FILE is needed");
        } else {
            options.file = arg;
        }
    }
    if (options.file.empty())
        throw UsageError("one FILE is needed");
    if (!is_kill_given && options.kill >= options.workers)
        options.kill = options.workers - 1;
    if (options.kill > options.workers)
        throw UsageError("--kill is more than --workers");
    return options;
}

// --- the work -----------------------------------------------------------------------------------

uint32_t count_of(const std::vector<Entry> &entries)
{
    return static_cast<uint32_t>(entries.size());
}

uint32_t count_entries(const std::deque<Worker> &crew)
{
    uint32_t count = 0;
    for (const Worker &worker : crew)
        count += count_of(worker.entries());
    return count;
}

void show_progress(const Options &options, const std::deque<Worker> &crew)
{
    uint32_t running = 0;
    uint32_t killed = 0;
    for (const Worker &worker : crew) {
        running += worker.is_running();
        killed += worker.was_killed();
    }
    printf("\r%u of %u entries, %u workers running, %u killed ", count_entries(crew),
           options.workers * options.entries, running, killed);
    fflush(stdout);
}

// Listens to the workers until all have ended.
void watch(const Options &options, std::deque<Worker> *crew, std::deque<Reader> *readers)
{
    Clock::time_point next_progress = Clock::now();
    for (;;) {
        bool is_running = false;
        bool is_idle = true;
        for (Worker &worker : *crew) {
            if (worker.poll() || worker.is_in_sight())
                is_idle = false;
            is_running = is_running || worker.is_running();
        }
        for (Reader &reader : *readers)
            reader.poll();
        if (Clock::now() >= next_progress || !is_running) {
            show_progress(options, *crew);
            next_progress = Clock::now() + std::chrono::milliseconds(100);
        }
        if (!is_running)
            break;
        thr_msleep(is_idle ? 1 : 0);
    }
    for (Reader &reader : *readers)
        reader.stop();
    printf("\r%70s\r", "");
}

// --- the audit ----------------------------------------------------------------------------------

struct Audit {
    std::vector<Entry> entries;
    uint32_t cuts = 0;
};

// Opens the ledger under its lock and checks all of it. At the end of a run nobody else is left to
// cut off a last entry that is torn.
Audit audit_file(const std::string &file, LedgerFile::Mode mode, bool is_cutting)
{
    THR_IP_MUTEX_OBJ mutex(file.c_str());
    THR_IP_SCOPED_MUTEX guard = lock_ledger(&mutex);
    if (!guard.was_lock_successful())
        throw LedgerError("can't lock " + file + ": its folder is missing or not writable");
    LedgerFile ledger(file, mode);
    Audit audit;
    if (is_cutting && ledger.cut_torn_entry() > 0)
        audit.cuts = 1;
    audit.entries = ledger.audit();
    return audit;
}

bool is_same(const Entry &a, const Entry &b)
{
    return a.number == b.number && a.process_id == b.process_id && a.worker == b.worker &&
           a.seal == b.seal;
}

void check_kept(const std::vector<Entry> &kept, const std::vector<Entry> &entries, const char *what)
{
    for (const Entry &entry : kept) {
        if (entry.number < 1 || entry.number > entries.size() ||
            !is_same(entry, entries[entry.number - 1]))
            throw LedgerError(what + std::to_string(entry.number) + " is not in the ledger");
    }
}

// Another run on the same file may hold the lock just now, so one sight of the file proves nothing.
void check_no_lock_file(const std::string &lock_file)
{
    for (int tries = 0; GetFileAttributesA(lock_file.c_str()) != INVALID_FILE_ATTRIBUTES; tries++) {
        if (tries == 100)
            throw LedgerError(lock_file + " is left over");
        thr_msleep(10);
    }
}

void check_no_lock_files(const std::string &file, const std::deque<Worker> &crew,
                         const std::deque<Reader> &readers)
{
    const std::string end = std::string(".") + thr_get_interprocess_file_extension();
    for (const char *mutex : {".mtx", ".cri.mtx", ".wri.mtx"})
        check_no_lock_file(file + mutex + end);
    for (const Worker &worker : crew)
        check_no_lock_file(file + "." + std::to_string(worker.process_id()) + ".wtr" + end);
    for (const Reader &reader : readers)
        check_no_lock_file(file + "." + std::to_string(reader.process_id()) + ".rdr" + end);
}

// --- the host -----------------------------------------------------------------------------------

void print_table(const std::deque<Worker> &crew)
{
    printf("worker  process  entries  ended\n");
    for (const Worker &worker : crew)
        printf("%6u  %7u  %7u  %s\n", worker.number(), worker.process_id(),
               count_of(worker.entries()), worker.how_it_ended().c_str());
}

void print_readers(const std::deque<Reader> &readers)
{
    if (readers.empty())
        return;
    printf("reader  process   audits  ended\n");
    uint32_t number = 0;
    for (const Reader &reader : readers)
        printf("%6u  %7u  %7u  %s\n", ++number, reader.process_id(), reader.audits(),
               reader.how_it_ended().c_str());
}

void print_totals(const std::deque<Worker> &crew, const Audit &audit, uint32_t old_count)
{
    uint32_t killed = 0;
    uint32_t with_lock = 0;
    uint32_t cuts = audit.cuts;
    for (const Worker &worker : crew) {
        killed += worker.was_killed();
        with_lock += worker.was_killed() && worker.ended_with_lock();
        cuts += worker.cuts();
    }
    uint32_t all = count_of(audit.entries);
    uint32_t acknowledged = count_entries(crew);
    printf("total: %u entries acknowledged, %u more written, %u torn and cut off; %u workers "
           "killed, %u of them with the lock held\n",
           acknowledged, all - old_count - acknowledged, cuts, killed, with_lock);
    printf("audit: %u entries, %u of them from before, all in order and none missing; no lock file "
           "left\n",
           all, old_count);
}

int run_host(const Options &options)
{
    Clock::time_point start = Clock::now();
    Audit before = audit_file(options.file, LedgerFile::OPEN_OR_CREATE, false);
    printf("%s: %u workers, %u entries each, %u to be killed, %u readers, seed %u\n",
           options.file.c_str(), options.workers, options.entries, options.kill, options.readers,
           options.seed);
    std::deque<Worker> crew;
    std::deque<Reader> readers;
    start_readers(options, &readers);
    start_crew(options, &crew);
    watch(options, &crew, &readers);
    print_table(crew);
    print_readers(readers);

    Audit after = audit_file(options.file, LedgerFile::OPEN, true);
    check_kept(before.entries, after.entries, "the audit fails: old entry ");
    for (const Worker &worker : crew)
        check_kept(worker.entries(), after.entries, "the audit fails: acknowledged entry ");
    check_no_lock_files(options.file, crew, readers);
    print_totals(crew, after, count_of(before.entries));
    printf("time:  %.1f s\n", std::chrono::duration<double>(Clock::now() - start).count());
    for (const Worker &worker : crew) {
        if (!worker.is_fine())
            throw LedgerError("worker " + std::to_string(worker.number()) + " " +
                              worker.how_it_ended());
    }
    for (const Reader &reader : readers) {
        if (!reader.is_fine())
            throw LedgerError("a reader " + reader.how_it_ended());
    }
    return 0;
}

// The arguments are the host's own work, see worker_arguments().
Options parse_worker_options(char **args)
{
    Options options;
    options.entries = static_cast<uint32_t>(strtoul(args[1], nullptr, 10));
    options.seed = static_cast<uint32_t>(strtoul(args[2], nullptr, 10));
    options.readers = static_cast<uint32_t>(strtoul(args[3], nullptr, 10));
    options.file = args[4];
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], READER_ARGUMENT) == 0)
        return run_reader(argv[2]);
    if (argc == 7 && strcmp(argv[1], WORKER_ARGUMENT) == 0)
        return run_worker(static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)),
                          parse_worker_options(argv + 2));
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0) {
            printf("%s", HELP);
            return 0;
        }
    }
    try {
        return run_host(parse_options(argv + 1));
    } catch (const UsageError &error) {
        fprintf(stderr, "ledger: %s; --help tells more\n", error.what());
        return 2;
    } catch (const LedgerError &error) {
        fprintf(stderr, "ledger: %s\n", error.what());
        return 1;
    }
}
