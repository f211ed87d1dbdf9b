// Gates in front of the imports of thr.dll: each call can be let through, counted or refused.
#ifndef THR_TESTS_GATES_H
#define THR_TESTS_GATES_H

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
// @return the imports that there is no rule for
std::vector<std::string> install_gates();

// Forgets the calls so far, and refuses from now on the `nth` call of a gate (1: the first), with
// `onwards` all later ones too. A null gate refuses nothing.
void refuse(Gate *gate, LONG nth, bool onwards);

// Since then: the calls refused, and whether the gate was called again after the first of them.
LONG refused_calls();
bool was_called_again();

// In use: heap blocks of the library and of the C++ runtime, entries of critical sections that
// were not left yet, and critical sections.
struct Balance {
    LONG blocks;
    LONG entered;
    LONG sections;
};
extern Balance used;

#endif
