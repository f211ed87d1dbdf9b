// Every call that the library makes of an import is refused once alone and, when more calls of that
// import follow, once with all of those; each time the library has to tell of it or to have a
// reason not to, nothing is left over, and the scenario passes again. And the process ends before
// and after each call that others may see: then the next process, in the same folder, passes the
// scenario. The runs are made in child processes, since a run may end its process.
#include "support/test.h"

#include "run.h"

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include <io.h>

namespace
{

// A build with coverage counters is none: it imports more, and its copy of the library ends by
// writing them, which survives no refusal.
#ifdef __OPTIMIZE__
const bool IS_RELEASE = true;
#else
const bool IS_RELEASE = false;
#endif

const size_t HANDLES = 96; // looked at; more than a run ever has

// A child makes all runs from one on, or just that one: as the first of its process, or one that
// ends the process.
enum Mode { ALL = 0, FIRST = 1, DEATH = 2 };

// A call at which something is to happen.
struct Item {
    int gate;
    LONG nth;
    bool is_first; // only the first run of a process makes it
};

struct Position {
    int item; // of the plan; -1: nothing happens
    How how;
};
const Position NOWHERE = {-1, ALONE}, END = {1 << 20, ALONE};

// What a parent and its children have in common.
struct Account {
    int items;
    int runs;
    Item plan[1024];
    Run run[1024];
};

template <class T> T *shared(const std::string &name)
{
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(T),
                                        name.c_str());
    return static_cast<T *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
}

// --- a child: it runs ---------------------------------------------------------------------------

// What this process runs.
const Scenario *scenario;
std::string directory;
Account *account;
bool is_after_death;

// A message's first line up to what it quotes, and of an OS failure's details the call.
void tell(const std::string &from, const std::string &message)
{
    const std::string call = "API: ";
    size_t details = message.find(call);
    std::string text = from + ": " + message.substr(0, message.find_first_of("\r\n\""));
    if (details != message.npos) {
        details += call.size();
        text += ": " + message.substr(details, message.find('\n', details) - details);
    }
    strncat(run->told, (text + "\n").c_str(), sizeof run->told - strlen(run->told) - 1);
}

void hook(const char *message, const char *sub_system, const char *file, int line)
{
    InterlockedIncrement(&run->reports);
    must(*message && strcmp(sub_system, "THR") == 0 && strncmp(file, "thr/", 4) == 0 && line > 0,
         "a part of a report is missing");
    tell(file, message);
}

void debug_hook(const char *, const char *format, va_list args)
{
    char message[65536];
    vsnprintf(message, sizeof message, format, args);
    InterlockedIncrement(&run->traces);
    tell("debug", message);
}

// Empties the folder of what nobody holds open, and sees what may not have been there: lock files,
// but for those that a refused removal left or that a scenario made. A file that was renamed to be
// removed stays when its process dies between; nobody waits for it.
void clear(bool keeps_files)
{
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        std::error_code error;
        must(std::filesystem::remove(entry.path(), error), "a lock file is still held");
        must(keeps_files || name == "db.9.rdr.flock" || name.find(".flock") == name.npos,
             "a lock file is left");
        must(keeps_files || is_after_death || name.find(".tmp") == name.npos, "a file is left");
    }
}

// Runs the scenario.
Run &act(Position at, bool keeps_sites = false)
{
    char home[MAX_PATH], now[MAX_PATH];
    GetCurrentDirectoryA(sizeof home, home);
    support::say("\f");
    Run &next = account->run[account->runs++];
    next = {};
    next.item = at.item;
    next.how = at.how;
    const Item *item = at.item < 0 ? nullptr : &account->plan[at.item];
    SweepGate *gate = item ? &gates[item->gate] : nullptr;
    start_run(&next, gate, item ? item->nth : 0, keeps_sites);
    scenario->act(directory);
    end_new_child();
    GetCurrentDirectoryA(sizeof now, now);
    SetCurrentDirectoryA(home);
    clear(gate && has_name("DeleteFileW MoveFileW", gate->name));
    must((gate && gate->name == "SetCurrentDirectoryW") || strcmp(home, now) == 0,
         "another current directory");
    must(*next.operation || !is_told(next), "a failure without a refusal");
    next.is_over = true;
    return next;
}

void add_items(int gate, const std::vector<uint64_t> &sites, std::set<uint64_t> &seen, bool first)
{
    for (size_t i = 0; i < sites.size(); ++i) {
        if (seen.insert(sites[i]).second)
            account->plan[account->items++] = {gate, LONG(i + 1), first};
    }
}

// Finds the calls. The second run shows which ones only the first one makes.
void plan()
{
    act(NOWHERE, true);
    std::vector<std::vector<uint64_t>> first;
    for (const SweepGate &gate : gates)
        first.push_back(gate.sites);
    act(NOWHERE, true);
    for (size_t i = 0; i < gates.size(); ++i) {
        std::set<uint64_t> seen;
        if (!gates[i].rule)
            continue;
        add_items(i, gates[i].sites, seen, false);
        add_items(i, first[i], seen, true);
    }
}

// What is left, given what was in use before. Threads that end may take their time.
const char *left_over(const Balance &before, size_t handles, int stopped_threads)
{
    static const char *const WHAT[KINDS] = {
        "heap blocks are left",  "critical sections are left", "locks are held",   "texts are left",
        "thread slots are left", "libraries are left",         "searches are left"};
    const char *left = nullptr;
    for (int tries = 0; tries < 150; ++tries) {
        left = support::live_handle_count(HANDLES) > handles ? "handles are left" : nullptr;
        for (int kind = 0; kind < KINDS; ++kind) {
            const int of_a_stopped_thread = kind == BLOCKS ? 2 : kind == SECTIONS ? 1 : 0;
            if (used.count[kind] - before.count[kind] > of_a_stopped_thread * stopped_threads)
                left = WHAT[kind];
        }
        if (!left)
            break;
        Sleep(20);
    }
    return left;
}

// Makes a run and, to see that it left nothing, another one.
void refuse(Position at)
{
    const Balance before = used;
    const size_t handles = support::live_handle_count(HANDLES);
    Run &refused = act(at);
    int stopped_threads = refused.stopped_threads;
    const Item *item = &account->plan[at.item];
    const bool is_last = at.item + 1 == account->items || item[1].gate != item->gate;
    if (!scenario->is_slow || is_last)
        stopped_threads += act(NOWHERE).stopped_threads;
    run = &refused;
    // A start's first block is the C runtime's, for the list of what is to be done at the end.
    if (scenario->name == std::string("start_up") && gates[item->gate].name == "malloc" &&
        item->nth == 1)
        return;
    const char *left = left_over(before, handles, stopped_threads);
    must(!left, left);
}

Position after(Position at, bool is_called_again)
{
    if (at.how == ALONE && is_called_again)
        return {at.item, ONWARDS};
    return {at.item + 1, ALONE};
}

// The arguments: scenario, its folder, the account, mode, item, how.
ROLE(sweep)
{
    install_gates();
    watch_operations();
    support::Gate patience(
        "Sleep", +[](DWORD) { SwitchToThread(); });
    _dup2(1, 2);
    scenario = &scenarios[std::stoi(args[0])];
    directory = args[1];
    account = shared<Account>(args[2]);
    const int mode = std::stoi(args[3]), items = account->items;
    Position at = {std::stoi(args[4]), How(std::stoi(args[5]))};
    is_after_death = mode & DEATH;
    thr_set_report_func(hook);
    thr_set_debug_func(debug_hook, 0);
    atexit([] {
        end_new_child();
        start_run(new Run(), nullptr, 0, false); // a coverage build writes its counters after this
    });
    if (items == 0)
        plan();
    else if (!(mode & FIRST))
        act(NOWHERE);
    if (mode != ALL && at.item < items)
        act(at);
    for (; mode == ALL && at.item < account->items; at = after(at, run->has_later)) {
        if (!account->plan[at.item].is_first)
            refuse(at);
    }
    return 0;
}

// --- the parent: it counts ----------------------------------------------------------------------

// Of all sweeps.
struct Tally {
    std::mutex mutex;             // who has it may change the rest
    std::set<std::string> called; // of the imports that can be refused
    std::set<std::string> died_in;
    int refusals = 0;
    int deaths = 0;
    std::set<std::string> accounts; // what was told of the refusal of an import
    std::vector<std::string> faults;
};

class Sweep
{
public:
    Sweep(size_t number, Tally &tally)
        : m_scenario(number), m_tally(tally),
          m_name(m_directory.path().substr(m_directory.path().rfind('\\') + 1)),
          m_account(*shared<Account>(m_name))
    {
    }

    void refuse_all()
    {
        while (run_child(ALL, m_next)) {
        }
        for (int i = 0; i < m_account.items; ++i) {
            if (m_account.plan[i].is_first)
                run_child(FIRST, {i, ALONE});
        }
    }

    // After each death the next child runs the scenario in the folder as it is.
    void die_everywhere()
    {
        run_child(DEATH, END);
        for (int i = 0; i < m_account.items; ++i) {
            const Item &item = m_account.plan[i];
            for (How how : {BEFORE, AFTER}) {
                if (!gates[item.gate].only_asks && !item.is_first)
                    run_child(DEATH, {i, how});
            }
        }
        run_child(DEATH, END);
    }

private:
    // Runs a child from `at` on. True when it has not made all runs: it goes on at `m_next`.
    bool run_child(int mode, Position at)
    {
        if (m_faults > 3) // enough: each may cost its patience
            return false;
        m_account.runs = 0;
        support::Child process("sweep", {std::to_string(m_scenario), m_directory.path(), m_name,
                                         std::to_string(mode), std::to_string(at.item),
                                         std::to_string(at.how)});
        process.close_stdin();
        std::string output; // of the last run
        while (auto line = process.read_line())
            output = *line == "\f" ? "" : output + *line + "\n";
        const int status = process.wait().value_or(STILL_ACTIVE);
        std::lock_guard<std::mutex> guard(m_tally.mutex);
        for (int i = 0; i < m_account.runs; ++i)
            judge(m_account.run[i], status, output);
        const Run &last = m_account.run[std::max(m_account.runs - 1, 0)];
        if (m_account.runs == 0 || (last.is_over && status != 0))
            fault(at, "ended with status " + std::to_string(status));
        m_next = after({last.item, last.how}, last.has_later);
        return mode == ALL && !last.is_over && last.item >= 0;
    }

    void judge(const Run &made, int status, const std::string &output)
    {
        const Position at = {made.item, made.how};
        std::string assertion; // the runtime's words, up to the line
        if (status == 3 && output.find("Assertion failed") != output.npos)
            assertion = output.substr(output.find("Assertion failed"));
        assertion.resize(std::min(assertion.size(), assertion.find(", line")));
        std::istringstream told(made.told + (made.is_over ? "" : assertion));
        for (std::string line; std::getline(told, line);)
            m_tally.accounts.insert(import_at(at) + ": " + line);
        // Without a hook, which the copy of the library that is started up does not have, a report
        // is printed.
        const bool has_reported =
            made.reports ? output.empty()
                         : std::regex_search(output, std::regex("(Internal Error|OS Failure): "));
        const bool has_died = !made.is_over && at.how >= BEFORE && status == DIED;
        const bool may_end = !made.is_over && at.item >= 0 && at.how < BEFORE &&
                             ((status == -1 && has_reported) || !assertion.empty());
        if (*made.fault || (made.is_over && at.how >= BEFORE)) {
            fault(at, *made.fault ? made.fault : "not called again");
        } else if (has_died) {
            m_tally.deaths++;
            m_tally.died_in.insert(made.operation);
        } else if (!made.is_over && !may_end) {
            fault(at, "ended with status " + std::to_string(status) + ": " + output);
        } else if (*made.operation) {
            if (made.is_over && !is_told(made))
                m_tally.accounts.insert(import_at(at) + ": nothing, in " + made.operation);
            m_tally.refusals++;
            m_tally.called.insert(import_at(at));
        }
    }

    std::string import_at(Position at) const
    {
        return at.item < 0 || at.item >= m_account.items ? "nothing"
                                                         : gates[m_account.plan[at.item].gate].name;
    }

    void fault(Position at, const std::string &what)
    {
        ++m_faults;
        const char *const hows[] = {" alone", " and on", ", before", ", after"};
        m_tally.faults.push_back(scenarios[m_scenario].name + (": " + import_at(at)) + ", item " +
                                 std::to_string(at.item) + hows[at.how] + ": " + what);
    }

    size_t m_scenario;
    Tally &m_tally;
    support::ScratchDir m_directory;
    std::string m_name; // of the account
    Account &m_account;
    Position m_next = {0, ALONE};
    int m_faults = 0;
};

// Each line of reports.txt is an import and what is told of its refusal, or why there is none, and
// holds unless it is behind a question mark.
void expect_accounts(std::set<std::string> accounts)
{
    std::ifstream file(support::fixture("reports.txt"));
    ASSERT_TRUE(file);
    for (std::string line; std::getline(file, line);) {
        if (line[0] == '?')
            accounts.erase(line.substr(2));
        else if (line[0] != '#' && accounts.erase(line) == 0)
            ADD_FAILURE() << "not told: " << line;
    }
    for (const std::string &line : accounts)
        ADD_FAILURE() << "not in reports.txt: " << line;
}

// The operations that make or take what other processes see.
const std::regex SHARED("^(thr_ip_|THR_IP_|THR_NAMED_PIPE|thr_process_create|thr_run).*");

// What the library has and no sweep reached.
void add_unreached(Tally &tally)
{
    std::set<std::string> reached = tally.called;
    for (const std::string &name : watch_operations())
        reached.insert(name);
    for (const std::string &name : support::exports_of(support::thr_module())) {
        if (name[0] != '_' && reached.count(name) == 0)
            tally.accounts.insert(name + ": called in no scenario");
        const std::string operation = name_in_source(name);
        if (std::regex_match(operation, SHARED) && tally.died_in.count(operation) == 0)
            tally.accounts.insert(operation + ": no death in it");
    }
    for (const SweepGate &gate : gates) {
        if (gate.rule && reached.insert(gate.name).second)
            tally.accounts.insert(gate.name + ": called in no scenario");
    }
    for (const support::Import &import : support::imports_of(support::thr_module())) {
        const std::string name = support::plain_name(import.function);
        if (reached.count(name) == 0)
            tally.accounts.insert(name + ": never refused");
    }
}

TEST(RefusalSweep, EveryRefusedCallAndEveryDeathIsSurvived)
{
    support::allow_seconds(900);
    Tally tally;
    install_gates();
    std::vector<std::function<void()>> sweeps;
    for (size_t i = 0; i < scenarios.size(); ++i) {
        if (IS_RELEASE || scenarios[i].name != std::string("start_up"))
            sweeps.push_back([&, i] { Sweep(i, tally).refuse_all(); });
        if (scenarios[i].is_shared)
            sweeps.push_back([&, i] { Sweep(i, tally).die_everywhere(); });
    }
    std::atomic<size_t> next(0);
    auto work = [&] {
        for (size_t i = next++; i < sweeps.size(); i = next++)
            sweeps[i]();
    };
    std::thread other(work);
    work();
    other.join();
    printf("%d imports, %d refusals and %d deaths survived, %d faults\n", int(tally.called.size()),
           tally.refusals, tally.deaths, int(tally.faults.size()));
    for (const std::string &fault : tally.faults)
        ADD_FAILURE() << fault;
    add_unreached(tally);
    if (IS_RELEASE)
        expect_accounts(tally.accounts);
}

} // namespace
