// The parts of the refusal sweep: gates in front of the library's imports, and the scenarios that
// are run through them.
#ifndef THR_TESTS_SWEEP_H
#define THR_TESTS_SWEEP_H

#include <string>
#include <vector>

#include <windows.h>

namespace sweep
{

// How a function says no: what it returns, and the error code that it leaves.
struct Refusal {
    enum Answer {
        ZERO,
        MINUS_ONE,
        BAD_ALLOC, // throws it
        DONE       // a release: does its work, and returns 0 all the same
    };
    const char *functions; // names with blanks between
    Answer answer;
    DWORD error;
};

// Whether a name is one of those with blanks between.
bool has_name(const char *names, const std::string &name);

// An import that can be refused. `target` is where a call goes that is not refused.
struct Gate {
    std::string name;
    const Refusal *refusal;
    void *target;
    volatile LONG calls; // in the current run
};

extern std::vector<Gate> gates;

// Puts gates in front of the imports of thr.dll, for the life of the process.
// @return the imports that the tables do not know
std::vector<std::string> install_gates();

// Starts a run: forgets the counts, and refuses the `nth` call (1: the first) of a gate, and with
// `onwards` all that follow. Null refuses nothing.
void start_run(Gate *gate, LONG nth, bool onwards);

// Stands in for the end of the process, when the library ends it: defined by the test.
void end_of_process(int status);
void end_by_assertion(const wchar_t *text, const wchar_t *file, unsigned line);

// What the run has met: the calls refused, and whether the gate was called again after the first.
LONG refused_calls();
bool was_called_again();

// What is in use: heap blocks of the library and the C++ runtime, entries of critical sections that
// were not left, and critical sections.
struct Balance {
    LONG blocks;
    LONG entered;
    LONG sections;
};
Balance balance();

// What one run of a scenario told.
struct Run {
    volatile LONG reports;
    volatile LONG traces;
    int results;         // operations that gave their documented failure
    int stopped_threads; // whose records stay allocated
    const char *end;     // how it ended the process, had it been let
    const char *fault;   // the first thing that must not be
};
extern Run run;

struct Scenario {
    const char *name;
    void (*act)(const std::string &directory); // an empty one, emptied again after each run
    const char *quiet;                         // imports of which a refusal may show nowhere
    enum {
        PLAIN,
        ENDS, // so many runs end their process that most ends are only marked
        SLOW  // so slow that it has to pass again only after the last refusal of an import
    } kind;
};
extern const std::vector<Scenario> scenarios;

} // namespace sweep

#endif
