// What the sweep runs again and again: together the scenarios call every import of the library.
#ifndef THR_TESTS_SCENARIOS_H
#define THR_TESTS_SCENARIOS_H

#include <string>
#include <vector>

#include <windows.h>

// What a run has told.
struct Run {
    volatile LONG reports;
    volatile LONG traces;
    int failures;        // operations that gave their documented failure
    int stopped_threads; // whose records stay allocated
    DWORD started;       // a process, the last one
    const char *fault;   // the first thing that must not be
};
extern Run run;

void must(bool holds, const char *what);

struct Scenario {
    const char *name;
    void (*act)(const std::string &directory); // an empty one
    bool is_slow; // it has to pass again only after the last refusal of an import
};
extern const std::vector<Scenario> scenarios;

#endif
