// A child process of the refusal sweep: it puts gates in front of the imports of thr.dll and runs a
// scenario as often as it is told to. In a run one call is refused, or ends the process.
#ifndef THR_TESTS_RUN_H
#define THR_TESTS_RUN_H

#include "support/gates.h"

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

enum { DIED = 77 }; // the status of a process that a gate has ended

// What happens in a run: nothing, or the calls are listed; one call is refused, or all from it on
// are; the process ends before or after it.
enum How { NOTHING, LISTING, ALONE, ONWARDS, BEFORE, AFTER };

using Place = std::pair<int, uint64_t>; // a gate, and from where it is called

// A run, and what it has told.
struct Run {
    Place place; // at the first call of it, if there is any, it happens
    How how;
    bool has_deaths; // processes die in the scenario's folder
    bool is_over;
    bool has_later; // the gate was called again after that call
    volatile LONG reports;
    int failures;        // operations that gave their documented failure
    char operation[128]; // in which the call was; empty: there was none
    char fault[80];      // the first thing that must not be
    char told[2048];     // the reports in short, a line each
    int calls_listed;
    std::array<Place, 4096> calls;
};
extern Run *run;

// What a process and its parent share by that name.
Run *shared_run(const std::string &name);

// What holds, else it is the run's fault.
void must(bool holds, const char *what);

// Keeps what it is told, for the run, as a hook does.
void tell(const char *message, const char *sub_system, const char *file, int line);

struct Scenario {
    const char *name;
    void (*act)(const std::string &directory); // an empty one
    bool is_shared; // it works on what other processes may have: they survive its death
};
extern const std::vector<Scenario> scenarios; // together they call every import of the library

struct SweepGate {
    int number;
    std::string name;
    const struct Rule *rule;   // how it is refused; null: never
    const struct Count *count; // what it takes or gives back; null: nothing
    bool only_asks;            // or makes a text: one call of each operation and place is enough
    std::unique_ptr<support::Gate> gate;
};
extern std::deque<SweepGate> &gates;
void install_gates(); // for the life of the process

// A function's name without its arguments, as a source has it.
std::string name_in_source(const std::string &symbol);

#endif
