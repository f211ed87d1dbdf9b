// Every call that the library makes of an import is refused once alone and, when more calls of that
// import follow, once with all of those. Each time the library has to tell of the refusal or to
// have a reason not to, nothing is left over, and the scenario passes again. The runs are made in
// child processes, since a run may end its process.
#include "gates.h"
#include "scenarios.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/heap.h"
#include "support/import_patch.h"
#include "support/scratch_dir.h"

#include "thr/thr.h"

#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
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

const DWORD PATIENCE_MS = 60000; // for one run
const size_t HANDLES = 96;       // looked at; more than a run ever has

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
    GetCurrentDirectoryA(sizeof now, now);
    SetCurrentDirectoryA(home);
    bool is_told = run.reports || run.failures || run.traces;
    std::string name = gate ? gate->name : "";
    if (const char *fault = clear(directory, name))
        run.fault = fault;
    else if (used.entered != entered)
        run.fault = "a lock is still held";
    else if (!support::are_heaps_sound())
        run.fault = "the heap is damaged";
    else if (name != "SetCurrentDirectoryW" && strcmp(home, now) != 0)
        run.fault = "another current directory";
    else if (refused_calls() == 0 && is_told)
        run.fault = "a failure without a refusal";
    else if (refused_calls() != 0 && !is_told && !has_name(scenario.quiet, name))
        run.fault = "the refusal shows nowhere";
}

// What is left, given what was in use before. A moment is given to threads that end.
const char *left_over(const Balance &before, size_t handles, int stopped_threads)
{
    const char *left = nullptr;
    for (int tries = 0; tries < 20; ++tries) {
        left = nullptr;
        if (used.blocks - before.blocks > 2 * stopped_threads)
            left = "heap blocks are left";
        else if (used.sections - before.sections > stopped_threads)
            left = "critical sections are left";
        else if (support::live_handle_count(HANDLES) > handles)
            left = "handles are left";
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
        if (was_called_again())
            support::say("again");
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
        is_met = refused_calls() != 0;
        is_called_again = was_called_again();
        const Run first = run;
        if (!scenario.is_slow || at.nth >= calls[at.gate])
            act(scenario, directory, nullptr, {});
        const char *fault = first.fault ? first.fault : run.fault;
        if (!fault && makes_all)
            fault = left_over(before, handles, first.stopped_threads + run.stopped_threads);
        if (fault)
            support::say(std::string("fault ") + fault);
        else
            support::say(!is_met ? "unmet"
                                 : std::string("done ") + (first.reports    ? "reported"
                                                           : first.failures ? "failed"
                                                           : first.traces   ? "traced"
                                                                            : "went on"));
        if (!makes_all)
            return 0;
    }
    support::say("end");
    return 0;
}

// --- the parent: it counts ----------------------------------------------------------------------

struct Tally {
    std::set<std::string> imports;
    int refusals = 0;
    std::map<std::string, int> outcomes;
    std::set<std::string> reports; // with the import whose refusal they tell of
    std::vector<std::string> faults;

    void operator+=(const Tally &other)
    {
        imports.insert(other.imports.begin(), other.imports.end());
        refusals += other.refusals;
        for (auto &[outcome, count] : other.outcomes)
            outcomes[outcome] += count;
        reports.insert(other.reports.begin(), other.reports.end());
        faults.insert(faults.end(), other.faults.begin(), other.faults.end());
    }
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
        DWORD started = 0;
        bool is_over = false, is_running = false, is_called_again = false;
        m_is_met = false;
        while (auto line = is_over ? std::nullopt : next_line(child)) {
            std::istringstream words(*line);
            std::string word, rest;
            if (words >> word; word == "run") {
                words >> at >> name;
                report = output = "";
                started = 0;
                is_running = true;
                is_called_again = false;
                continue;
            }
            std::getline(words >> std::ws, rest);
            if (word == "report")
                m_tally.reports.insert(name + ": " + (report = rest));
            else if (word == "again")
                is_called_again = true;
            else if (word == "started")
                started = std::stoul(rest);
            else if (word == "first" && mode == "hook" && m_tally.refusals == 0)
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
        std::optional<int> status = child.wait(PATIENCE_MS);
        end_process_left(is_running ? started : 0);
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
            m_tally.reports.insert(name + ": " + assertion_in(output));
            count(mode, name, "ended by an assertion", "", at);
        } else
            fault(name, at, "ended with status " + std::to_string(*status) + ": " + output);
        at = at.next(true, is_called_again);
        return is_running && mode == "hook";
    }

    // The child's next line, none at its end. A process that it left may hold its output open.
    static std::optional<std::string> next_line(support::Child &child)
    {
        for (DWORD waited = 0; waited < PATIENCE_MS; waited += 200) {
            bool has_ended = child.wait(0).has_value();
            std::optional<std::string> line = child.read_line(has_ended ? 0 : 200);
            if (line || has_ended)
                return line;
        }
        return std::nullopt;
    }

    // A report that ends the process in the middle of a creation leaves the new child suspended.
    static void end_process_left(DWORD id)
    {
        if (HANDLE process = id ? OpenProcess(PROCESS_TERMINATE, FALSE, id) : nullptr) {
            TerminateProcess(process, 1);
            CloseHandle(process);
        }
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
        m_tally.imports.insert(name);
        m_tally.refusals++;
        m_tally.outcomes[outcome]++;
        if (!report.empty() && mode.find("plain") != 0)
            m_reports.emplace(name + ": " + report, std::make_pair(mode, at));
    }

    void fault(const std::string &name, const Position &at, const std::string &what)
    {
        m_tally.faults.push_back(name + ", call " + std::to_string(at.nth) +
                                 (at.onwards ? " and on: " : ": ") + what);
    }

    size_t m_scenario;
    Tally &m_tally;
    support::ScratchDir m_directory;
    std::vector<size_t> m_first;
    // Where an import's refusal made a report first: the mode and the run.
    std::map<std::string, std::pair<std::string, Position>> m_reports;
    bool m_is_met = false;
};

void print(const char *name, const Tally &tally)
{
    std::ostringstream text;
    text << name << ": " << tally.imports.size() << " imports, " << tally.refusals << " refusals";
    for (auto &[outcome, count] : tally.outcomes)
        text << ", " << count << " " << outcome;
    text << ", " << tally.faults.size() << " faults\n";
    for (const std::string &fault : tally.faults)
        text << "    " << fault << "\n";
    fputs(text.str().c_str(), stdout);
}

// Each line of reports.txt is a report, and the import of whose refusal it tells.
void expect_reports(std::set<std::string> reports)
{
    std::ifstream file(THR_SOURCE_DIR "/tests/refusal_sweep/reports.txt");
    ASSERT_TRUE(file);
    for (std::string line; std::getline(file, line);)
        EXPECT_EQ(reports.erase(line), 1u) << "not reported: " << line;
    for (const std::string &report : reports)
        ADD_FAILURE() << "not in reports.txt: " << report;
}

TEST(RefusalSweep, EveryRefusedCallIsSurvived)
{
    std::vector<Tally> tallies(scenarios.size());
    std::atomic<size_t> next(0);
    auto work = [&] {
        for (size_t i = next++; i < scenarios.size(); i = next++) {
            if (!IS_RELEASE && scenarios[i].name == std::string("start_up"))
                continue;
            Sweep(i, tallies[i]).run_all();
        }
    };
    std::thread other(work);
    work();
    other.join();
    Tally total;
    for (size_t i = 0; i < scenarios.size(); ++i) {
        print(scenarios[i].name, tallies[i]);
        total += tallies[i];
    }
    std::vector<std::string> unknown = install_gates();
    print("total", total);
    size_t imports = support::imports_of(support::thr_module()).size();
    printf("%d imports: %d can be refused, %d are excused; neither refused nor excused: %d\n",
           static_cast<int>(imports), static_cast<int>(gates.size()),
           static_cast<int>(imports - gates.size() - unknown.size()),
           static_cast<int>(unknown.size()));
    EXPECT_TRUE(total.faults.empty());
    if (!IS_RELEASE)
        return;
    expect_reports(total.reports);
    for (const std::string &name : unknown)
        ADD_FAILURE() << name << " is neither refused nor excused";
    for (const Gate &gate : gates)
        EXPECT_EQ(total.imports.count(gate.name), 1u) << gate.name << " is called in no scenario";
}

} // namespace
