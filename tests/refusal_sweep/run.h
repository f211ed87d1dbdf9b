// Gates in front of the imports of thr.dll: in a run of a scenario one call is refused, or ends the
// process. What the library has in use is counted.
#ifndef THR_TESTS_RUN_H
#define THR_TESTS_RUN_H

#include "support/gates.h"

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

enum { DIED = 77 }; // the status of a process that a gate has ended

// What happens at the call: it is refused, or all from it on are, or the process ends.
enum How { ALONE, ONWARDS, BEFORE, AFTER };

// A run, and what it has told. It lies in memory that outlives its process.
struct Run {
    int item; // of the plan, that is refused; -1: nothing is
    How how;
    bool is_over;
    bool has_later; // the gate was called again after that call
    volatile LONG reports;
    volatile LONG traces;
    int failures;        // operations that gave their documented failure
    int stopped_threads; // whose records stay allocated
    char operation[128]; // in which the call was; empty: there was none
    char fault[80];      // the first thing that must not be
    char told[2048];     // the reports in short, a line each
};
extern Run *run;

bool is_told(const Run &it);

// What holds, else it is the run's fault.
void must(bool holds, const char *what);

struct Scenario {
    const char *name;
    void (*act)(const std::string &directory); // an empty one
    bool is_shared; // it works on what other processes may have: they survive its death
    bool is_slow;   // it has to pass again only after the last refusal of an import
};
extern const std::vector<Scenario> scenarios; // together they call every import of the library

struct Rule; // how functions refuse

struct SweepGate {
    std::string name;
    const Rule *rule; // null: it is never refused
    bool only_asks;   // it changes nothing that another process sees
    std::unique_ptr<support::Gate> gate;
    std::vector<uint64_t> sites; // from where the calls came, when they were asked for
};
extern std::deque<SweepGate> &gates;

// Whether a name is one of those with blanks between.
bool has_name(const char *names, const std::string &name);

// Puts the gates up, for the life of the process.
void install_gates();

// Notes from now on which function of the library this program called last.
// @return the names of those that it imports
std::vector<std::string> watch_operations();

// A function's name without its arguments, as a source has it.
std::string name_in_source(const std::string &symbol);

// From now on `run` counts; this happens to the gate's `nth` call, or to none. Where the calls come
// from is kept when it shall be.
void start_run(Run *run, SweepGate *gate, LONG nth, bool keeps_sites);

// Ends the child that the library started: it may be suspended, and nobody else know of it.
void end_new_child();

// In use by the library; of the heap's blocks those of the C++ runtime, too.
enum Kind { BLOCKS, SECTIONS, ENTERED, TEXTS, SLOTS, LIBRARIES, SEARCHES, KINDS };
struct Balance {
    volatile LONG count[KINDS];
};
extern Balance used;

#endif
