// Gates in front of a loaded module's imports: each call can be counted, watched, refused, or led
// to a function of the test's own. They are what makes the operating system refuse what a test
// wants refused.
#ifndef THR_TESTS_GATES_H
#define THR_TESTS_GATES_H

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <windows.h>

namespace support
{

// The module that has the library: the loaded thr.dll, or this program in an internal test.
HMODULE thr_module();

// One import; the function is "#" where it is imported by ordinal. `slot` is the entry of the
// import table, which holds the function's address.
struct Import {
    std::string_view dll, function; // both end with a zero
    void **slot;
};

// Lets an entry of an import table lead somewhere else, for every thread.
void set_slot(void **slot, const void *target);

// Every import of a loaded module, in the order of its import directory.
std::vector<Import> imports_of(HMODULE module);

// The names that a loaded module exports, in their order.
std::vector<std::string> exports_of(HMODULE module);

// The name under which an import stands at a gate: its own, but for what compilers and runtimes
// choose among. "malloc" is whatever takes a block of the C heap, "operator new" whatever of the
// C++ runtime throws where memory is refused.
const char *plain_name(const char *import);

// A call that stands at a gate. `args` has room for 12 arguments: what is above one of 32 bits, and
// behind the last one, is anything.
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

// A gate in front of all imports of `module` of a plain name until it goes out of scope. It stands
// for every thread; no thread may be in a call when it goes. A program's own calls do not pass it,
// but in an internal test they do. Gates of one import nest. Throws when there is no such import.
//
//     Gate pauses("Sleep");                                                   // counts
//     Gate poll("Sleep", [](const Call &call) { return polled(call.arg<DWORD>(0)); });
//     Gate ours("Sleep", &function);                                          // leads there
//     Gate refused(Refusal{"malloc", 2, 0, ERROR_NOT_ENOUGH_MEMORY});         // counts, too
//
// The function does nothing to the last error that it does not mean, and throws only where the
// import may.
class Gate
{
public:
    using Way = std::function<intptr_t(const Call &)>;

    explicit Gate(const std::string &name, Way way = &Call::go_on, HMODULE module = thr_module());
    explicit Gate(const Refusal &refusal, HMODULE module = thr_module());
    template <class R, class... Args>
    Gate(const std::string &name, R (*target)(Args...)) : Gate(name)
    {
        if constexpr (std::is_invocable_v<decltype(target), const Call &>)
            m_way = target;
        else
            lead_to(target);
    }
    ~Gate();
    Gate(const Gate &) = delete;
    Gate &operator=(const Gate &) = delete;

    // Since the gate stands.
    LONG calls() const { return m_calls; }

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
    enum { THUNKS = 1000 };
    template <size_t N> struct Thunk;
    template <size_t... N>
    static const void *new_thunk(const Entry *entry, std::index_sequence<N...>);
    inline static const Entry *s_entries[THUNKS];

    Way m_way;
    std::vector<Entry> m_entries; // one for each import
    volatile LONG m_calls = 0;
};

} // namespace support

#endif
