// Gates in front of a loaded module's imports: each call can be counted, watched, refused, or led
// to a function of the test's own. They are what makes the operating system refuse what a test
// wants refused.
#ifndef THR_TESTS_GATES_H
#define THR_TESTS_GATES_H

#include <functional>
#include <string>
#include <vector>

#include <windows.h>

namespace support
{

// The loaded thr.dll; throws when the program has none.
HMODULE thr_module();

// One import; the function is "#" where it is imported by ordinal. `slot` is the entry of the
// import table, which holds the function's address.
struct Import {
    std::string dll;
    std::string function;
    void **slot;
};

// Every import of a loaded module, in the order of its import directory.
std::vector<Import> imports_of(HMODULE module);

// The names that a loaded module exports, in their order.
std::vector<std::string> exports_of(HMODULE module);

// The name under which an import stands at a gate: its own, but for what compilers and runtimes
// choose among. "malloc" is whatever takes a block of the C heap, "operator new" whatever of the
// C++ runtime throws where memory is refused.
std::string plain_name(const std::string &import);

// Replaces the import `function` of `module` until it goes out of scope. It works on every thread,
// so patch before the module is busy. A test program's own calls are not touched when thr.dll is
// patched; an internal test patches its own executable, GetModuleHandleA(nullptr), and then its own
// calls are redirected too. Patches of one import nest. Throws when the module has no such import.
//
//     ImportPatch patch("CreateEventA", &refused_create_event);
//     patch.original<decltype(&CreateEventA)>()(...);
class ImportPatch
{
public:
    template <class Function>
    ImportPatch(const char *function, Function *replacement, HMODULE module = thr_module())
        : ImportPatch(module, function, reinterpret_cast<void *>(replacement))
    {
    }
    ~ImportPatch();
    ImportPatch(const ImportPatch &) = delete;
    ImportPatch &operator=(const ImportPatch &) = delete;

    template <class Function> Function original() const
    {
        return reinterpret_cast<Function>(m_original);
    }

private:
    ImportPatch(HMODULE module, const char *function, void *replacement);

    void **m_slot;
    void *m_original;
};

// A call that stands at a gate. `args` are the first 12 of its arguments, those that it has.
struct Call {
    LONG nth; // of the gate: 1 is the first
    const intptr_t *args;
    void *target;
    const void *caller; // the address to which it returns

    intptr_t go_on() const; // makes it
    template <class T> T arg(int i) const { return (T)args[i]; }
};

const LONG EVERY = -1;

// Which calls of an import are refused, from now on: the `nth` or EVERY one; 0: none.
struct Refusal {
    const char *import;
    LONG nth;
    intptr_t answer;
    DWORD error; // the last error then
};

// A gate in front of all imports of a plain name, as an ImportPatch stands and nests:
//
//     Gate pauses("Sleep");                                                   // counts
//     Gate poll("Sleep", [](const Call &call) { return polled(call.arg<DWORD>(0)); });
//     Gate refused(Refusal{"malloc", 2, 0, ERROR_NOT_ENOUGH_MEMORY});         // counts, too
//
// The function does nothing to the last error that it does not mean, and throws only where the
// import may. No thread may be in a call when the gate goes.
class Gate
{
public:
    using Way = std::function<intptr_t(const Call &)>;

    explicit Gate(const std::string &name, Way way = &Call::go_on, HMODULE module = thr_module());
    explicit Gate(const Refusal &refusal, HMODULE module = thr_module());
    ~Gate();
    Gate(const Gate &) = delete;
    Gate &operator=(const Gate &) = delete;

    // Since the gate stands, or since they were forgotten.
    LONG calls() const { return m_calls; }
    void forget_calls() { m_calls = 0; }

    // From now on its calls go there, when they go on.
    template <class Function> void lead_to(Function *target)
    {
        for (Entry &entry : m_entries)
            entry.target = reinterpret_cast<void *>(target);
    }

private:
    struct Entry {
        Gate *gate;
        void **slot;
        void *original;
        void *target;
    };
    static intptr_t pass(Entry *entry, const intptr_t *args);

    Way m_way;
    std::vector<Entry> m_entries; // one for each import
    volatile LONG m_calls = 0;
};

// Refuses the `nth` allocation that the module makes from now on.
struct RefusedMalloc : Gate {
    explicit RefusedMalloc(LONG nth = 1, HMODULE module = thr_module())
        : Gate(Refusal{"malloc", nth, 0, ERROR_NOT_ENOUGH_MEMORY}, module)
    {
    }
};

} // namespace support

#endif
