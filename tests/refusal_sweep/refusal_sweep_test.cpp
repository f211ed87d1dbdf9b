// Every call that the library makes of an import is refused once alone and, when more calls of that
// import follow, once with all of those. Each time the library has to tell of the refusal or to
// have a reason not to, nothing is left over, and the scenario passes again. The runs are made in
// child processes, since a run may end its process.
#include "gates.h"
#include "scenarios.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/scratch_dir.h"
#include "support/watchdog.h"

#include "thr/thr.h"

#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include <io.h>

#include <gtest/gtest.h>

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

// A run: which call of which gate is refused.
struct Position {
    size_t gate;
    LONG nth;
    bool onwards;

    // The next run, given whether this one met a refusal and the gate was called again after it.
    Position next(bool is_met, bool is_called_again) const
    {
        if (!is_met)
            return {gate + 1, 1, false};
        if (is_called_again && !onwards)
            return {gate, nth, true};
        return {gate, nth + 1, false};
    }
    std::string text() const
    {
        return std::to_string(gate) + " " + std::to_string(nth) + (onwards ? " 1" : " 0");
    }
};

std::istream &operator>>(std::istream &stream, Position &position)
{
    return stream >> position.gate >> position.nth >> position.onwards;
}

// --- a child: it runs ---------------------------------------------------------------------------

// A message's first line up to what it quotes, and of an OS failure's details the call.
std::string in_short(const std::string &message)
{
    const std::string call = "API: ";
    size_t details = message.find(call);
    std::string text = message.substr(0, message.find_first_of("\r\n\""));
    if (details != message.npos) {
        details += call.size();
        text += ": " + message.substr(details, message.find('\n', details) - details);
    }
    return text;
}

void hook(const char *message, const char *sub_system, const char *file, int line)
{
    InterlockedIncrement(&run.reports);
    if (!*message || strcmp(sub_system, "THR") != 0 || strncmp(file, "thr/", 4) != 0 || line <= 0)
        support::say("fault a part of a report is missing"); // at once: the process may end here
    support::say("report " + std::string(file) + ": " + in_short(message));
}

void debug_hook(const char *, const char *format, va_list args)
{
    char message[65536];
    vsnprintf(message, sizeof message, format, args);
    InterlockedIncrement(&run.traces);
    support::say("report debug: " + in_short(message));
}

// Empties the folder of what nobody holds open, and tells what may not have been there: lock files,
// but for those that a refused removal left or that a scenario made.
const char *clear(const std::string &directory, const std::string &refused)
{
    WIN32_FIND_DATAA entry;
    HANDLE search = FindFirstFileA((directory + "\\*").c_str(), &entry);
    const char *fault = nullptr;
    do {
        const std::string name = entry.cFileName, path = directory + "\\" + name;
        if (name == "." || name == "..")
            continue;
        bool is_made = name == "db.9.rdr.flock" || has_name("DeleteFileW MoveFileW", refused);
        if (!DeleteFileA(path.c_str()) && !RemoveDirectoryA(path.c_str()))
            fault = "a lock file is still held";
        else if (!is_made && (name.find(".flock") != name.npos || name.find(".tmp") != name.npos))
            fault = "a lock file is left";
    } while (FindNextFileA(search, &entry));
    FindClose(search);
    return fault;
}

// Runs a scenario and fills `run`.
void act(const Scenario &scenario, const std::string &directory, Gate *gate, const Position &at)
{
    char home[MAX_PATH];
    char now[MAX_PATH];
    GetCurrentDirectoryA(sizeof home, home);
    LONG entered = used.entered;
    run = {};
    refuse(gate, at.nth, at.onwards);
    scenario.act(directory);
    run.started = 0;
    GetCurrentDirectoryA(sizeof now, now);
    SetCurrentDirectoryA(home);
    std::string name = gate ? gate->name : "";
    const char *left = clear(directory, name);
    must(!left, left);
    must(used.entered == entered, "a lock is still held");
    must(name == "SetCurrentDirectoryW" || strcmp(home, now) == 0, "another current directory");
    must(refusal.operation || !(run.reports || run.failures || run.traces),
         "a failure without a refusal");
}

// What is left, given what was in use before. A moment is given to threads that end.
const char *left_over(const Balance &before, size_t handles, int stopped_threads)
{
    const struct {
        LONG Balance::*count;
        const char *what;
        int of_a_stopped_thread;
    } kinds[] = {{&Balance::blocks, "heap blocks are left", 2},
                 {&Balance::sections, "critical sections are left", 1},
                 {&Balance::texts, "texts of the system's are left", 0},
                 {&Balance::slots, "thread slots are left", 0},
                 {&Balance::libraries, "libraries are left", 0},
                 {&Balance::searches, "searches are left", 0}};
    const char *left = nullptr;
    for (int tries = 0; tries < 20; ++tries) {
        left = support::live_handle_count(HANDLES) > handles ? "handles are left" : nullptr;
        for (const auto &kind : kinds) {
            if (used.*kind.count - before.*kind.count > kind.of_a_stopped_thread * stopped_threads)
                left = kind.what;
        }
        if (!left)
            break;
        Sleep(20);
    }
    return left;
}

// The arguments: scenario, its folder, mode, position. Mode "hook" makes all runs from there on,
// with a report hook; "first" makes that one as the first of its process; "plain" and "plain first"
// make one of these without a hook. It says "run" before a run; "report" and, at its end, "again"
// in one; "done", "unmet" or "fault" after it; and "first" of gates that only the first run of a
// process calls.
ROLE(sweep)
{
    install_gates();
    watch_operations();
    support::ImportPatch patience(
        "Sleep", +[](DWORD) { SwitchToThread(); });
    _dup2(1, 2);
    const Scenario &scenario = scenarios[std::stoi(args[0])];
    const std::string &directory = args[1];
    const std::string &mode = args[2];
    Position at;
    std::istringstream(args[3]) >> at;
    const bool makes_all = mode == "hook";
    const bool has_warm_up = mode.find("first") == mode.npos;
    thr_set_report_func(mode.find("plain") == mode.npos ? hook : nullptr);
    thr_set_debug_func(debug_hook, 0);
    atexit([] {
        if (refusal.has_later)
            support::say("again");
        // A report that ends the process in the middle of a creation leaves the new child
        // suspended.
        if (HANDLE left =
                run.started ? OpenProcess(PROCESS_TERMINATE, FALSE, run.started) : nullptr)
            TerminateProcess(left, 1);
        refuse(nullptr, 0, false); // a coverage build writes its counters after this
    });
    std::vector<LONG> calls(gates.size(), 1);
    const bool is_first = at.gate == 0 && at.nth == 1 && !at.onwards;
    for (int warm_up = !has_warm_up ? 2 : is_first ? 0 : 1; warm_up < 2; ++warm_up) {
        act(scenario, directory, nullptr, {});
        for (size_t i = 0; i < gates.size(); ++i) {
            if (is_first && warm_up == 1 && calls[i] > gates[i].calls)
                support::say("first " + std::to_string(i));
            calls[i] = gates[i].calls;
        }
        if (run.fault) {
            support::say(std::string("fault ") + run.fault);
            return 0;
        }
    }
    bool is_met = false;
    bool is_called_again = false;
    for (; at.gate < gates.size(); at = at.next(is_met, is_called_again)) {
        is_met = false;
        if (calls[at.gate] == 0 && makes_all)
            continue;
        support::say("run " + at.text() + " " + gates[at.gate].name);
        Balance before = used;
        size_t handles = support::live_handle_count(HANDLES);
        act(scenario, directory, &gates[at.gate], at);
        is_met = refusal.operation != nullptr;
        is_called_again = refusal.has_later;
        const Run first = run;
        const bool is_told = run.reports || run.failures || run.traces;
        if (is_met && !is_told)
            support::say(std::string("quiet ") + refusal.operation);
        if (!scenario.is_slow || at.nth >= calls[at.gate])
            act(scenario, directory, nullptr, {});
        const char *fault = first.fault ? first.fault : run.fault;
        // The C runtime has its list there of what is to be done at the library's end.
        bool is_list = scenario.name == std::string("start_up") && gates[at.gate].name == "calloc";
        if (!fault && makes_all && !is_list)
            fault = left_over(before, handles, first.stopped_threads + run.stopped_threads);
        if (fault)
            support::say(std::string("fault ") + fault);
        else
            support::say(!is_met          ? "unmet"
                         : !is_told       ? "done went on"
                         : first.failures ? "done failed"
                         : first.reports  ? "done reported"
                                          : "done traced");
        if (!makes_all)
            return 0;
    }
    support::say("end");
    return 0;
}

// --- the parent: it counts ----------------------------------------------------------------------

// Of all sweeps.
struct Tally {
    std::mutex mutex;             // who has it may change the rest
    std::set<std::string> called; // of the imports that can be refused
    int refusals = 0;
    std::map<std::string, int> outcomes;
    std::set<std::string> accounts; // what was told of the refusal of an import
    std::vector<std::string> faults;
};

class Sweep
{
public:
    Sweep(size_t scenario, Tally &tally) : m_scenario(scenario), m_tally(tally) {}

    void run_all()
    {
        Position at = {0, 1, false};
        while (run_child("hook", at)) {
        }
        for (size_t gate : m_first) {
            for (LONG nth = 1; nth == 1 || m_is_met; ++nth)
                run_child("first", at = {gate, nth, false});
        }
        for (auto &[report, made] : m_reports) {
            run_child(made.first == "hook" ? "plain" : "plain first", at = made.second);
            if (!m_is_met)
                fault(report, made.second, "not made again without a hook");
        }
    }

private:
    // Runs a child from `at` on. False at the end of all its runs; else `at` is the next run.
    bool run_child(const std::string &mode, Position &at)
    {
        support::Child child("sweep",
                             {std::to_string(m_scenario), m_directory.path(), mode, at.text()});
        child.close_stdin();
        std::string name, report, output;
        bool is_over = false, is_running = false, is_called_again = false;
        m_is_met = false;
        while (auto line = is_over ? std::nullopt : child.read_line()) {
            std::lock_guard<std::mutex> guard(m_tally.mutex);
            std::istringstream words(*line);
            std::string word, rest;
            if (words >> word; word == "run") {
                words >> at >> name;
                report = output = "";
                is_running = true;
                is_called_again = false;
                continue;
            }
            std::getline(words >> std::ws, rest);
            if (word == "report")
                m_tally.accounts.insert(name + ": " + (report = rest));
            else if (word == "quiet")
                m_tally.accounts.insert(name + ": nothing, in " + rest);
            else if (word == "again")
                is_called_again = true;
            else if (word == "first" && mode == "hook")
                m_first.push_back(std::stoul(rest));
            else if (word == "done")
                count(mode, name, rest, report, at);
            else if (word == "fault")
                fault(name, at, rest);
            else
                output += *line + "\n";
            if (word == "done" || word == "fault" || word == "unmet") {
                is_running = false;
                is_over = mode != "hook" || name.empty();
            }
            is_over = is_over || word == "end";
        }
        std::optional<int> status = child.wait();
        std::lock_guard<std::mutex> guard(m_tally.mutex);
        // The copy of the library that is started up has no hook.
        const bool has_hook =
            mode.find("plain") != 0 && scenarios[m_scenario].name != std::string("start_up");
        if (!status)
            fault(name, at, "it hangs");
        else if (is_over && *status == 0)
            return false;
        else if (is_running && *status == -1 &&
                 (has_hook ? !report.empty() && output.empty() : is_report(output)))
            count(mode, name, "ended by a report", report, at);
        else if (is_running && *status == 3 && !assertion_in(output).empty()) {
            m_tally.accounts.insert(name + ": " + assertion_in(output));
            count(mode, name, "ended by an assertion", "", at);
        } else
            fault(name, at, "ended with status " + std::to_string(*status) + ": " + output);
        at = at.next(true, is_called_again);
        return is_running && mode == "hook";
    }

    // Whether a text is one report, whole, as it is made without a hook. What else the library
    // prints comes before it.
    static bool is_report(const std::string &text)
    {
        static const std::regex shape(
            "(Internal Error: Sub-system: THR, File: thr/\\w+\\.(cpp|h), Line: \\d+\n[^\n]+\n"
            "|OS Failure: Windows could not [^]*   \\* OS code: \\d+ \\([^]+\\)\n\n"
            "Location: thr/\\w+\\.cpp:\\d+\n)\n*$");
        static const std::regex head("Internal Error: |OS Failure: ");
        return std::distance(std::sregex_iterator(text.begin(), text.end(), head), {}) == 1 &&
               std::regex_search(text, shape);
    }

    // The runtime's words, up to the line.
    static std::string assertion_in(const std::string &text)
    {
        size_t start = text.find("Assertion failed");
        return start == text.npos ? "" : text.substr(start, text.find(", line", start) - start);
    }

    void count(const std::string &mode, const std::string &name, const std::string &outcome,
               const std::string &report, const Position &at)
    {
        m_is_met = true;
        m_tally.called.insert(name);
        m_tally.refusals++;
        m_tally.outcomes[outcome]++;
        if (!report.empty() && mode.find("plain") != 0)
            m_reports.emplace(name + ": " + report, std::make_pair(mode, at));
    }

    void fault(const std::string &name, const Position &at, const std::string &what)
    {
        m_tally.faults.push_back(scenarios[m_scenario].name + (": " + name) + ", call " +
                                 std::to_string(at.nth) + (at.onwards ? " and on: " : ": ") + what);
    }

    size_t m_scenario;
    Tally &m_tally;
    support::ScratchDir m_directory;
    std::vector<size_t> m_first;
    // Where an import's refusal made a report first: the mode and the run.
    std::map<std::string, std::pair<std::string, Position>> m_reports;
    bool m_is_met = false;
};

void print(const Tally &tally)
{
    std::ostringstream text;
    text << tally.called.size() << " imports, " << tally.refusals << " refusals";
    for (auto &[outcome, count] : tally.outcomes)
        text << ", " << count << " " << outcome;
    text << ", " << tally.faults.size() << " faults\n";
    for (const std::string &fault : tally.faults)
        text << "    " << fault << "\n";
    fputs(text.str().c_str(), stdout);
}

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
    for (const std::string &account : accounts)
        ADD_FAILURE() << "not in reports.txt: " << account;
}

TEST(RefusalSweep, EveryRefusedCallIsSurvived)
{
    support::allow_seconds(900);
    Tally tally;
    std::atomic<size_t> next(0);
    auto work = [&] {
        for (size_t i = next++; i < scenarios.size(); i = next++) {
            if (IS_RELEASE || scenarios[i].name != std::string("start_up"))
                Sweep(i, tally).run_all();
        }
    };
    std::thread other(work);
    work();
    other.join();
    print(tally);
    EXPECT_TRUE(tally.faults.empty());
    for (const std::string &name : watch_operations())
        tally.called.insert(name);
    for (const std::string &name : support::exports_of(support::thr_module())) {
        if (name[0] != '_' && tally.called.count(name) == 0)
            tally.accounts.insert(name + ": called in no scenario");
    }
    install_gates();
    for (const Gate &gate : gates) {
        if (tally.called.count(gate.name) == 0)
            tally.accounts.insert(gate.name + ": called in no scenario");
        tally.called.insert(gate.name);
    }
    for (const support::Import &import : support::imports_of(support::thr_module())) {
        if (tally.called.count(import.function) == 0)
            tally.accounts.insert(import.function + ": never refused");
    }
    if (IS_RELEASE)
        expect_accounts(tally.accounts);
}

} // namespace
