// ledger: worker processes share a file under an interprocess lock, some of them are ended in the
// middle of it, and the host proves that nothing got lost.
#include "crew.h"
#include "ledger.h"
#include "ledger_file.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

#include <windows.h>

#include <shellapi.h>

namespace
{

const char HELP[] =
    "usage: ledger FILE [--workers N] [--entries M] [--kill K] [--seed S]\n"
    "              [--readers R]\n"
    "\n"
    "Starts N worker processes that append M entries each to the ledger FILE, which is\n"
    "created or continued. They take turns by an interprocess lock on FILE. K of them are\n"
    "terminated at random moments. In the end every entry is audited. A run in which\n"
    "nothing is written for a minute is given up.\n"
    "\n"
    "  --workers N   1 to 64 (6)\n"
    "  --entries M   entries of each worker, 1 to 1000000 (200)\n"
    "  --kill K      at most N (2, or N - 1 if that is less)\n"
    "  --readers R   0 to 16 (0); with any, processes audit the ledger again and again under the\n"
    "                read lock of a semaphore, under whose write lock the workers then append;\n"
    "                runs that share a FILE must all have readers or all have none,\n"
    "                and no other FILE may be in its folder\n"
    "  --seed S      picks the workers to be terminated and their moments; the same seed picks\n"
    "                the same (default: another one each time)\n"
    "\n"
    "The exit status is 0 when the audit holds and every other worker wrote all its entries,\n"
    "1 when not, or when FILE can't be used, 2 for wrong arguments.\n";

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// --- arguments ----------------------------------------------------------------------------------

uint32_t parse_number(const std::string &name, const std::string &text, uint32_t least,
                      uint32_t most)
{
    char *end = nullptr;
    unsigned long long value = strtoull(text.c_str(), &end, 10);
    bool is_number = text[0] >= '0' && text[0] <= '9' && *end == '\0';
    if (!is_number || value < least || value > most)
        throw UsageError(name + " takes a number from " + std::to_string(least) + " to " +
                         std::to_string(most));
    return static_cast<uint32_t>(value);
}

Options parse_options(const std::vector<std::string> &args)
{
    Options options;
    options.seed = thr_get_tick_count() ^ static_cast<uint32_t>(thr_getpid());
    bool is_kill_given = false;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string &arg = args[i];
        auto number = [&](uint32_t least, uint32_t most) {
            return parse_number(arg, ++i < args.size() ? args[i] : "", least, most);
        };
        if (arg == "--workers") {
            options.workers = number(1, 64);
        } else if (arg == "--entries") {
            options.entries = number(1, 1000000);
        } else if (arg == "--kill") {
            options.kill = number(0, 64);
            is_kill_given = true;
        } else if (arg == "--readers") {
            options.readers = number(0, 16);
        } else if (arg == "--seed") {
            options.seed = number(0, UINT32_MAX);
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

// The arguments in UTF-8, as the library takes paths. Those of main() have lost what the ANSI code
// page can't spell.
std::vector<std::string> take_arguments()
{
    int count = 0;
    wchar_t **wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> args;
    for (int i = 1; i < count; i++)
        args.push_back(std::filesystem::path(wide[i]).u8string());
    LocalFree(wide);
    return args;
}

// The full form of the path, which is the same file and the same lock for everybody. The library
// has no lock for a file in a drive's root, and compares its folder's name in UTF-8 with that in
// the ANSI code page; a semaphore's file, too.
std::string lockable_path(const Options &options)
{
    const DWORD LONGEST = 220; // the lock files' names are longer
    wchar_t full[LONGEST] = L"";
    std::filesystem::path given = std::filesystem::u8path(options.file);
    DWORD length = GetFullPathNameW(given.c_str(), LONGEST, full, nullptr);
    std::filesystem::path path(length < LONGEST ? full : L"");
    std::filesystem::path folder = path.parent_path();
    const std::filesystem::path &compared = options.readers > 0 ? path : folder;
    bool is_plain = GetACP() == CP_UTF8 || compared.u8string().size() == compared.native().size();
    if (folder.native().size() <= 3 || folder.native()[1] != L':' || !is_plain)
        throw LedgerError("can't lock " + options.file +
                          ": it must be in a folder of a drive, and the folder's path short and "
                          "plain ASCII; with readers the file's name, too");
    if (!std::filesystem::is_directory(folder))
        throw LedgerError("can't lock " + options.file + ": its folder is missing");
    return path.u8string();
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

// Ends the run when no worker has taken the lock for too long.
void check_progress(const std::deque<Worker> &crew, Clock::time_point start)
{
    std::string event = "the run began";
    for (const Worker &worker : crew) {
        if (worker.lock_time() > start) {
            start = worker.lock_time();
            event = "worker " + std::to_string(worker.number()) + ", process " +
                    std::to_string(worker.process_id()) + ", took the lock";
        }
    }
    auto silence = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
    if (silence <= LONGEST_SILENCE)
        return;
    printf("\n"); // what goes wrong does not go on the line of the progress
    fflush(stdout);
    throw LedgerError("nothing has happened for " + std::to_string(silence.count()) + " s, since " +
                      event);
}

// Listens to the workers until all have ended.
void watch(const Options &options, std::deque<Worker> *crew, std::deque<Reader> *readers)
{
    const Clock::time_point start = Clock::now();
    Clock::time_point next_progress = start;
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
        check_progress(*crew, start);
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

// With the lock held. At the end of a run nobody else is left to cut off a last entry that is torn.
Audit audit_locked(const std::string &file, LedgerFile::Mode mode)
{
    LedgerFile ledger(file, mode);
    Audit audit;
    if (mode == LedgerFile::OPEN && ledger.cut_torn_entry() > 0)
        audit.cuts = 1;
    audit.entries = ledger.audit();
    return audit;
}

// Opens the ledger under its lock and checks all of it. Another run may have workers at it.
Audit audit_file(const Options &options, LedgerFile::Mode mode)
{
    THR_IP_MUTEX_OBJ mutex(options.file.c_str());
    Semaphore semaphore(options.file.c_str());
    Clock::time_point end = Clock::now() + LONGEST_SILENCE;
    while (!mutex.try_lock() || (options.readers > 0 && !semaphore.try_write_lock())) {
        if (Clock::now() > end)
            throw LedgerError("can't lock " + options.file + ": somebody has held it for a minute");
        thr_msleep(10);
    }
    return audit_locked(options.file, mode); // the two let go of what they hold
}

bool is_same(const Entry &a, const Entry &b)
{
    return a.number == b.number && a.process_id == b.process_id && a.worker == b.worker &&
           a.seal == b.seal;
}

// Each of them is there, and was acknowledged once: in the order of the file.
void check_kept(const std::vector<Entry> &kept, const std::vector<Entry> &entries, const char *what)
{
    uint64_t last = 0;
    for (const Entry &entry : kept) {
        if (entry.number <= last || entry.number > entries.size() ||
            !is_same(entry, entries[entry.number - 1]))
            throw LedgerError(what + std::to_string(entry.number) +
                              " is not in the ledger, or not once");
        last = entry.number;
    }
}

// Nothing but what the workers acknowledged was written; one that did not come to its end may have
// written one entry more.
void check_counts(const Options &options, const std::deque<Worker> &crew,
                  const std::vector<Entry> &entries, uint32_t old_count)
{
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> written;
    for (size_t i = old_count; i < entries.size(); i++)
        written[{entries[i].process_id, entries[i].worker}]++;
    for (const Worker &worker : crew) {
        uint32_t count = written[{worker.process_id(), worker.number()}];
        uint32_t acknowledged = count_of(worker.entries());
        bool is_whole = worker.is_fine() && !worker.was_killed();
        if (count < acknowledged || count > acknowledged + !is_whole ||
            (is_whole && count != options.entries))
            throw LedgerError("the audit fails: worker " + std::to_string(worker.number()) +
                              " has " + std::to_string(count) + " entries in the ledger, of " +
                              std::to_string(options.entries) + " ordered and " +
                              std::to_string(acknowledged) + " acknowledged");
    }
}

// Another run on the same file may hold the lock just now, so one sight of the file proves nothing.
void check_no_lock_file(const std::string &lock_file)
{
    std::filesystem::path path = std::filesystem::u8path(lock_file);
    for (int tries = 0; GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; tries++) {
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
    Audit before = audit_file(options, LedgerFile::OPEN_OR_CREATE);
    printf("%s: %u workers, %u entries each, %u to be killed, %u readers, seed %u\n",
           options.file.c_str(), options.workers, options.entries, options.kill, options.readers,
           options.seed);
    std::deque<Worker> crew;
    std::deque<Reader> readers;
    SetEnvironmentVariableW(FILE_VARIABLE, std::filesystem::u8path(options.file).c_str());
    start_readers(options, &readers);
    start_crew(options, &crew);
    watch(options, &crew, &readers);
    print_table(crew);
    print_readers(readers);

    Audit after = audit_file(options, LedgerFile::OPEN);
    check_kept(before.entries, after.entries, "the audit fails: old entry ");
    for (const Worker &worker : crew)
        check_kept(worker.entries(), after.entries, "the audit fails: acknowledged entry ");
    check_counts(options, crew, after.entries, count_of(before.entries));
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
Options parse_worker_options(const std::vector<std::string> &args, const std::string &file)
{
    Options options;
    options.entries = std::stoul(args[2]);
    options.seed = std::stoul(args[3]);
    options.readers = std::stoul(args[4]);
    options.file = file;
    return options;
}

} // namespace

int main()
{
    try {
        std::vector<std::string> args = take_arguments();
        const wchar_t *variable = _wgetenv(FILE_VARIABLE);
        std::string file = std::filesystem::path(variable ? variable : L"").u8string();
        if (args.size() == 1 && args[0] == READER_ARGUMENT)
            return run_reader(file);
        if (args.size() == 5 && args[0] == WORKER_ARGUMENT)
            return run_worker(std::stoul(args[1]), parse_worker_options(args, file));
        if (std::find(args.begin(), args.end(), "--help") != args.end()) {
            printf("%s", HELP);
            return 0;
        }
        Options options = parse_options(args);
        options.file = lockable_path(options);
        return run_host(options);
    } catch (const UsageError &error) {
        fprintf(stderr, "ledger: %s; --help tells more\n", error.what());
        return 2;
    } catch (const VELKORA_EXCEPTION &exception) {
        fprintf(stderr, "ledger: %s\n", exception.get_errc().get_error_message()[0].m_text.c_str());
    } catch (const std::exception &error) {
        fprintf(stderr, "ledger: %s\n", error.what());
    }
    return 1;
}
