// Gates in front of the imports of thr.dll: each call can be let through, counted or refused.
#ifndef THR_TESTS_SWEEP_GATES_H
#define THR_TESTS_SWEEP_GATES_H

#include <string>
#include <vector>

#include <windows.h>

struct Rule;

// An import that can be refused.
struct Gate {
    std::string name;
    const Rule *rule;
    void *target; // where a call goes that is not refused
    volatile LONG calls;
};
extern std::vector<Gate> &gates;

Gate &gate_of(const std::string &name);

// Whether a name is one of those with blanks between.
bool has_name(const char *names, const std::string &name);

// Puts the gates up, for the life of the process.
void install_gates();

// Notes from now on which function of the library this program called last.
// @return the names of those that it imports
std::vector<std::string> watch_operations();

// Which calls are refused: the `nth` call of a gate (1: the first), with `onwards` all later ones
// too.
struct Refusal {
    Gate *gate; // null: nothing is refused
    LONG nth;
    bool onwards;
    volatile bool has_later; // the gate was called again after the first one
    const char *operation;   // in which the first one was refused; null: none was yet
};
extern Refusal refusal;

// Forgets the calls so far, and refuses others from now on.
void refuse(Gate *gate, LONG nth, bool onwards);

// In use by the library; of the heap's blocks those of the C++ runtime, too.
struct Balance {
    LONG blocks;
    LONG entered;  // critical sections that were not left yet
    LONG sections; // critical sections
    LONG texts;    // of the system's, in memory of its own
    LONG slots;    // of thread-local storage
    LONG libraries;
    LONG searches; // for files
};
extern Balance used;

#endif
