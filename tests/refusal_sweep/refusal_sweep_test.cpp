// Every call that the library makes of an import is refused once alone and, when more calls of that
// import follow, once with all of those, in scenarios that together use every family. Each time the
// library has to tell of the refusal or to have a reason not to, nothing is left over, and the
// scenario passes again. The runs are made in child processes, since a run may end its process.
#include "sweep.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/scratch_dir.h"

#include "thr/thr.h"

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include <assert.h>
#include <io.h>

#include <gtest/gtest.h>

using namespace sweep;

namespace
{

const DWORD PATIENCE = 60000; // milliseconds, for one run
const size_t HANDLES = 96;    // looked at, more than a run ever has

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
};

std::istream &operator>>(std::istream &stream, Position &position)
{
    return stream >> position.gate >> position.nth >> position.onwards;
}

std::string text_of(const Position &at)
{
    return std::to_string(at.gate) + " " + std::to_string(at.nth) + (at.onwards ? " 1" : " 0");
}

// --- a child: it runs ---------------------------------------------------------------------------

void hook(const char *message, const char *sub_system, const char *file, int line)
{
    InterlockedIncrement(&run.reports);
    if (!*message || strcmp(sub_system, "THR") != 0 || strncmp(file, "thr/", 4) != 0 || line <= 0)
        run.fault = "a part of a report is missing";
    support::say("report " + std::string(message, strcspn(message, "\n")));
}

void debug_hook(const char *, const char *, va_list)
{
    InterlockedIncrement(&run.traces);
}

// The end of a process costs the start of the next one, so most ends are only marked: the run is
// left where it stands, with what it has, and its lock files are closed as the system would. Every
// eighth end, and those of other threads or of the modes for single runs, are real.
struct EndState {
    bool may_jump;
    DWORD thread;
    int ends;
    jmp_buf place;
};
EndState end_state;

void mark_end(const char *end)
{
    if (!end_state.may_jump || GetCurrentThreadId() != end_state.thread ||
        ++end_state.ends % 8 == 0)
        return;
    run.end = end;
    reinterpret_cast<_JUMP_BUFFER *>(end_state.place)->Frame = 0; // nothing is unwound
    longjmp(end_state.place, 1);
}

void act_to_its_end(const Scenario &scenario, const std::string &directory)
{
    if (setjmp(end_state.place) == 0)
        scenario.act(directory);
}

void close_files(const std::string &directory)
{
    for (size_t i = 1; i <= HANDLES; ++i) {
        HANDLE handle = reinterpret_cast<HANDLE>(i * 4);
        char path[MAX_PATH];
        DWORD length = GetFinalPathNameByHandleA(handle, path, sizeof path, FILE_NAME_NORMALIZED);
        if (length && length < sizeof path && strstr(path, directory.c_str()))
            CloseHandle(handle);
    }
}

// Empties the scenario's folder of what nobody holds open; false when something is.
bool clear(const std::string &directory)
{
    WIN32_FIND_DATAA entry;
    HANDLE search = FindFirstFileA((directory + "\\*").c_str(), &entry);
    bool is_clear = true;
    do {
        if (strcmp(entry.cFileName, ".") != 0 && strcmp(entry.cFileName, "..") != 0)
            is_clear &= DeleteFileA((directory + "\\" + entry.cFileName).c_str()) ||
                        RemoveDirectoryA((directory + "\\" + entry.cFileName).c_str());
    } while (FindNextFileA(search, &entry));
    FindClose(search);
    return is_clear;
}

void act(const Scenario &scenario, const std::string &directory, Gate *gate, const Position &at)
{
    char home[MAX_PATH];
    char now[MAX_PATH];
    GetCurrentDirectoryA(sizeof home, home);
    LONG entered = balance().entered;
    start_run(gate, at.nth, at.onwards);
    act_to_its_end(scenario, directory);
    bool is_told = run.reports || run.results || run.traces || run.end;
    GetCurrentDirectoryA(sizeof now, now);
    SetCurrentDirectoryA(home);
    if (run.end)
        close_files(directory);
    bool is_clear = clear(directory);
    if (run.fault)
        return;
    if (!is_clear)
        run.fault = "a lock file is still held";
    else if (!run.end && balance().entered != entered)
        run.fault = "a lock is still held";
    else if (!run.end && strcmp(home, now) != 0 &&
             !has_name("SetCurrentDirectoryW", gate ? gate->name : ""))
        run.fault = "another current directory";
    else if (refused_calls() == 0 && is_told)
        run.fault = "a failure without a refusal";
    else if (refused_calls() != 0 && !is_told && !has_name(scenario.quiet, gate->name))
        run.fault = "the refusal shows nowhere";
}

} // namespace

void sweep::end_of_process(int status)
{
    mark_end("ended by a report");
    exit(status);
}

void sweep::end_by_assertion(const wchar_t *text, const wchar_t *file, unsigned line)
{
    mark_end("ended by an assertion");
    _wassert(text, file, line);
}

namespace
{

// What two runs left, given what was in use before. A moment is given to threads that end.
const char *left_behind(const Balance &before, size_t handles, int stopped_threads)
{
    for (int tries = 0;; ++tries) {
        Balance now = balance();
        const char *left = nullptr;
        if (now.blocks - before.blocks > 2 * stopped_threads)
            left = "heap blocks are left";
        else if (now.sections - before.sections > stopped_threads)
            left = "critical sections are left";
        else if (support::live_handle_count(HANDLES) > handles)
            left = "handles are left";
        if (!left || tries == 20)
            return left;
        Sleep(20);
    }
}

// The arguments: scenario, its folder, mode, the three numbers of a position. Mode "hook" runs from
// that position on, with a report hook; "first" runs it alone as the first of the process, and
// "plain" runs it alone and without a hook.
// It says "run" before a run; "report" and, at its end, "again" in one; "done" and "unmet" after it.
ROLE(sweep)
{
    install_gates();
    _dup2(1, 2);
    const Scenario &scenario = scenarios[std::stoi(args[0])];
    const std::string &directory = args[1];
    const std::string &mode = args[2];
    Position at;
    std::istringstream(args[3]) >> at;
    if (mode != "plain")
        thr_set_report_func(hook);
    thr_set_debug_func(debug_hook, 0);
    end_state = {mode == "hook" && scenario.kind == Scenario::ENDS, GetCurrentThreadId(), 0, {}};
    atexit([] {
        if (was_called_again())
            support::say("again");
    });

    std::vector<LONG> calls(gates.size(), 1);
    for (int warm_up = mode == "first" ? 2 : 0; warm_up < 2; ++warm_up) {
        act(scenario, directory, nullptr, {});
        if (run.fault) {
            support::say(std::string("fault ") + run.fault);
            return 0;
        }
        for (size_t i = 0; i < gates.size(); ++i) {
            if (warm_up == 1 && mode == "hook" && calls[i] > gates[i].calls)
                support::say("first " + std::to_string(i));
            calls[i] = gates[i].calls;
        }
    }
    bool is_met = false;
    bool is_called_again = false;
    for (; at.gate < gates.size(); at = at.next(is_met, is_called_again)) {
        is_met = false;
        if (calls[at.gate] == 0)
            continue;
        support::say("run " + text_of(at) + " " + gates[at.gate].name);
        Balance before = balance();
        size_t handles = support::live_handle_count(HANDLES);
        act(scenario, directory, &gates[at.gate], at);
        is_met = refused_calls() != 0;
        is_called_again = was_called_again();
        const Run refused = run;
        if (scenario.kind != Scenario::SLOW || at.nth >= calls[at.gate])
            act(scenario, directory, nullptr, {});
        const char *fault = refused.fault ? refused.fault : run.fault;
        if (!fault && mode == "hook" && !refused.end)
            fault = left_behind(before, handles, refused.stopped_threads + run.stopped_threads);
        if (fault)
            support::say(std::string("fault ") + fault);
        else if (!is_met)
            support::say("unmet");
        else
            support::say(std::string("done ") + (refused.end       ? refused.end
                                                 : refused.reports ? "reported"
                                                 : refused.results ? "failed"
                                                 : refused.traces  ? "traced"
                                                                   : "went on"));
        if (mode != "hook")
            return 0;
    }
    support::say("end");
    return 0;
}

// --- the parent: it counts ----------------------------------------------------------------------

struct Tally {
    std::set<std::string> refused; // imports
    int runs = 0;
    std::map<std::string, int> outcomes;
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
        for (Position first : m_first) {
            do {
                at = first;
                run_child("first", at);
                ++first.nth;
            } while (m_is_met);
        }
        for (auto &[report, position] : m_reports)
            run_child("plain", at = position);
    }

private:
    // The child's next line; none at its end. A process that it left may hold its output open.
    static std::optional<std::string> next_line(support::Child &child)
    {
        for (DWORD waited = 0; waited < PATIENCE; waited += 200) {
            bool has_ended = child.wait(0).has_value();
            std::optional<std::string> line = child.read_line(has_ended ? 0 : 200);
            if (line || has_ended)
                return line;
        }
        return std::nullopt;
    }

    // Runs a child from `at` on, which becomes the position to go on from. False at the end.
    bool run_child(const std::string &mode, Position &at)
    {
        support::Child child("sweep",
                             {std::to_string(m_scenario), m_directory.path(), mode, text_of(at)});
        child.close_stdin();
        std::string output;
        std::string name;
        std::string report;
        bool is_running = false;
        bool is_called_again = false;
        m_is_met = false;
        bool is_over = false;
        DWORD started = 0;
        while (auto line = is_over ? std::nullopt : next_line(child)) {
            std::istringstream words(*line);
            std::string word;
            std::string rest;
            words >> word;
            if (word == "run") {
                words >> at >> name;
                output = report = "";
                is_running = true;
                is_called_again = false;
                continue;
            }
            std::getline(words >> std::ws, rest);
            if (word == "report")
                report = rest;
            else if (word == "again")
                is_called_again = true;
            else if (word == "first" && m_tally.runs == 0)
                m_first.push_back({std::stoul(rest), 1, false});
            else if (word == "started")
                started = std::stoul(rest);
            else if (word == "end")
                is_over = true;
            else if (word == "done" || word == "fault" || word == "unmet") {
                if (word == "done")
                    count(name, rest, report, at);
                else if (word == "fault")
                    fault(name, at, rest);
                is_running = false;
                is_over = mode != "hook" || name.empty();
            } else
                output += *line + "\n";
        }
        std::optional<int> status = child.wait(PATIENCE);
        if (HANDLE left = OpenProcess(PROCESS_TERMINATE, FALSE, is_running ? started : 0)) {
            TerminateProcess(left, 1); // the library ended while its child was suspended
            CloseHandle(left);
        }
        if (is_over)
            return false;
        if (!status)
            fault(name, at, "it hangs");
        else if (!is_running)
            fault(name, at, "the child ended without a word, status " + std::to_string(*status));
        else if (*status == -1 && (!report.empty() || is_report(output)))
            count(name, "ended by a report", report, at);
        else if (*status == 3 && output.find("Assertion failed") != std::string::npos)
            count(name, "ended by an assertion", "", at);
        else
            fault(name, at, "ended with status " + std::to_string(*status) + ": " + output);
        at = at.next(true, is_called_again);
        return is_running;
    }

    // Whether a text holds exactly one report as it is made without a hook.
    static bool is_report(const std::string &text)
    {
        static const std::regex shape(
            "Internal Error: Sub-system: THR, File: thr/\\w+\\.(cpp|h), Line: \\d+\n[^\n]+\n"
            "|OS Failure: Windows could not [^]*   \\* OS code: \\d+ \\([^]+\\)\n\n"
            "Location: thr/\\w+\\.cpp:\\d+\n");
        return std::distance(std::sregex_iterator(text.begin(), text.end(), shape), {}) == 1;
    }

    void count(const std::string &name, const std::string &outcome, const std::string &report,
               const Position &at)
    {
        m_is_met = true;
        m_tally.refused.insert(name);
        m_tally.runs++;
        m_tally.outcomes[outcome]++;
        if (!report.empty())
            m_reports.emplace(name + report, at);
    }

    void fault(const std::string &name, const Position &at, const std::string &what)
    {
        m_tally.faults.push_back(name + " " + text_of(at) + ": " + what);
    }

    size_t m_scenario;
    Tally &m_tally;
    support::ScratchDir m_directory;
    std::vector<Position> m_first;             // imports that only a process's first run calls
    std::map<std::string, Position> m_reports; // where each was made first
    bool m_is_met = false;
};

void print(const std::string &name, const Tally &tally)
{
    printf("%-12s %3u imports, %4d refusals:", name.c_str(), (unsigned)tally.refused.size(),
           tally.runs);
    for (auto &[outcome, count] : tally.outcomes)
        printf(" %s %d,", outcome.c_str(), count);
    printf(" faults %u\n", (unsigned)tally.faults.size());
    for (const std::string &fault : tally.faults)
        printf("    %s\n", fault.c_str());
    fflush(stdout);
}

TEST(RefusalSweep, survives_every_refusal)
{
    std::vector<Tally> tallies(scenarios.size());
    std::atomic<size_t> next(0);
    auto work = [&] {
        for (size_t i = next++; i < scenarios.size(); i = next++) {
            if (const char *only = getenv("THR_SWEEP_ONLY");
                only && strcmp(only, scenarios[i].name))
                continue;
            DWORD start = GetTickCount();
            Sweep(i, tallies[i]).run_all();
            print(scenarios[i].name, tallies[i]);
            printf("%lu ms\n", GetTickCount() - start);
        }
    };
    std::thread other(work);
    work();
    other.join();
    Tally total;
    for (const Tally &tally : tallies) {
        total.refused.insert(tally.refused.begin(), tally.refused.end());
        total.runs += tally.runs;
        for (auto &[outcome, count] : tally.outcomes)
            total.outcomes[outcome] += count;
        total.faults.insert(total.faults.end(), tally.faults.begin(), tally.faults.end());
    }
    print("total", total);
    EXPECT_TRUE(total.faults.empty());
    for (const std::string &name : install_gates())
        ADD_FAILURE() << name << " is neither refused nor excused";
    for (const Gate &gate : gates)
        EXPECT_EQ(total.refused.count(gate.name), 1u) << gate.name << " is called in no scenario";
}

} // namespace
