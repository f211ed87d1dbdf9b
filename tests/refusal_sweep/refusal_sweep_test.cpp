// Every call that the library makes of an import is refused once alone and, when more calls of that
// import follow, once with all of those; each time the library has to tell of it or to have a
// reason not to, and nothing is left over; in the end the scenario passes. And the process ends
// before and after each call that others may see: then the next process, in the same folder, passes
// the scenario. The runs are made in child processes, since a run may end its process.
#include "support/test.h"

#include "run.h"

#include <fstream>
#include <regex>
#include <set>

namespace
{

// A build with coverage counters is none: it imports more, and its copy of the library ends by
// writing them, which survives no refusal.
#ifdef __OPTIMIZE__
const bool IS_RELEASE = true;
#else
const bool IS_RELEASE = false;
#endif

// Of all sweeps.
struct Tally {
    std::mutex mutex;             // who has it may change the rest
    std::set<std::string> called; // of the imports that can be refused
    std::set<std::string> died_in;
    int refusals = 0;
    int deaths = 0;
    std::set<std::string> accounts; // what was told of the refusal of an import
    std::vector<std::string> faults;

    // The status is 0 of a process that goes on.
    void judge(const Run &made, const char *name, int status, const std::string &output)
    {
        const std::string &import = gates[made.place.first].name;
        std::istringstream told(made.told);
        for (std::string line; std::getline(told, line);)
            accounts.insert(import + ": " + line);
        std::smatch assertion;
        if (std::regex_search(output, assertion, std::regex("Assertion failed: (.*), file (.*), ")))
            accounts.insert(import + ": " + assertion[2].str() + ": " + assertion[1].str());
        const bool has_reported =
            status == 3 ? !assertion.empty() : status == -1 && made.reports && output.empty();
        const bool is_as_due = made.is_over         ? status == 0 && made.how <= ONWARDS
                               : made.how >= BEFORE ? status == DIED
                                                    : made.how >= ALONE && has_reported;
        if (*made.fault || !is_as_due) {
            const char *const hows[] = {", afterwards", "", "", " and on", ", before", ", after"};
            faults.push_back(name + (": " + import) + hows[made.how] + ", in " + made.operation +
                             ": " + made.fault + "; status " + std::to_string(status) + ": " +
                             output);
        } else if (made.how >= BEFORE) {
            ++deaths;
            died_in.insert(made.operation);
        } else if (*made.operation) {
            if (made.is_over && !made.reports && !made.failures)
                accounts.insert(import + ": nothing, in " + made.operation);
            ++refusals;
            called.insert(import);
        }
    }
};

// Makes all runs of a scenario: with refusals, or with deaths.
void sweep(size_t number, bool has_deaths, Tally &tally)
{
    const support::ScratchDir scratch;
    const std::string name = scratch.path().substr(scratch.path().rfind('\\') + 1);
    Run &made = *shared_run(name);
    std::optional<support::Child> process;
    auto make = [&](How how, const Place &place) {
        if (!process)
            process.emplace("sweep",
                            support::RoleArgs{std::to_string(number), scratch.path(), name});
        made = {};
        made.place = place, made.how = how, made.has_deaths = has_deaths;
        process->write_line("go on");
        std::string output;
        auto line = process->read_line();
        for (; line && *line != "\f"; line = process->read_line())
            output += *line + "\n";
        const int status = line ? 0 : process->wait().value_or(STILL_ACTIVE);
        std::lock_guard<std::mutex> guard(tally.mutex);
        tally.judge(made, scenarios[number].name, status, output);
        if (!line || *made.fault)
            process.reset();
    };
    auto reach = [&](How how, const Place &place) {
        if (!process)
            make(NOTHING, place);
        make(how, place);
        if (*made.operation)
            return;
        process.reset(); // none of its runs makes that call but the first one
        make(how, place);
        process.reset();
        EXPECT_TRUE(*made.operation) << "a call that is not made again, of " << made.place.first;
    };
    make(LISTING, {});
    const std::set<Place> places(made.calls.begin(), made.calls.begin() + made.calls_listed);
    for (auto place = places.begin(); place != places.end(); ++place) {
        if (!has_deaths) {
            reach(ALONE, *place);
            if (made.has_later)
                reach(ONWARDS, *place);
        } else if (!gates[place->first].only_asks) {
            reach(BEFORE, *place);
            reach(AFTER, *place);
        }
        // After the last one at a gate it has to pass.
        if (std::next(place) == places.end() || std::next(place)->first != place->first)
            make(NOTHING, *place);
        if (tally.faults.size() > 3)
            return; // some are enough
    }
    if (process)
        process->close_stdin();
    EXPECT_TRUE(!process || process->wait() == 0) << "its process, at the end";
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
    for (const std::string &line : accounts)
        ADD_FAILURE() << "not in reports.txt: " << line;
}

// The operations that make or take what other processes see.
const std::regex SHARED("^(thr_ip_|THR_IP_|THR_NAMED_PIPE|thr_process_create|thr_run).*");

// What the library has and no sweep reached.
void add_unreached(Tally &tally)
{
    std::set<std::string> reached = tally.called;
    for (const support::Import &import : support::imports_of(GetModuleHandleA(nullptr)))
        reached.emplace(import.function);
    for (const std::string &name : support::exports_of(support::thr_module())) {
        if (name[0] != '_' && reached.count(name) == 0)
            tally.accounts.insert(name + ": called in no scenario");
        const std::string operation = name_in_source(name);
        if (std::regex_match(operation, SHARED) && tally.died_in.count(operation) == 0)
            tally.accounts.insert(operation + ": no death in it");
    }
    for (const support::Import &import : support::imports_of(support::thr_module())) {
        const std::string name = support::plain_name(import.function.data());
        if (reached.count(name) == 0)
            tally.accounts.insert(name + ": never refused");
    }
}

TEST(RefusalSweep, EveryRefusedCallAndEveryDeathIsSurvived)
{
    Tally tally;
    install_gates();
    std::atomic<size_t> next(0);
    auto work = [&] {
        // One scenario is never in two processes at once: Wine gives both a pipe's name.
        for (size_t i = next++; i < scenarios.size(); i = next++) {
            if (IS_RELEASE || scenarios[i].name != std::string("start_up"))
                sweep(i, false, tally);
            if (scenarios[i].is_shared)
                sweep(i, true, tally);
        }
    };
    std::thread other(work);
    work();
    other.join();
    printf("%d imports, %d refusals and %d deaths survived, %d faults\n", int(tally.called.size()),
           tally.refusals, tally.deaths, int(tally.faults.size()));
    for (const std::string &fault : tally.faults)
        ADD_FAILURE() << fault;
    add_unreached(tally);
    if (IS_RELEASE && tally.faults.empty())
        expect_accounts(tally.accounts);
}

} // namespace
