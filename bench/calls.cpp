#include "calls.h"

#include "support/gates.h"

#include <cstdint>
#include <new>
#include <stdexcept>
#include <vector>

#include <windows.h>

namespace bench
{

namespace
{

// x86-64: lock inc qword [m_count]; jmp [m_target]; both addressed from the code.
struct Thunk {
    uint8_t m_code[16] = {0xf0, 0x48, 0xff, 0x05, 8, 0, 0,    0, //
                          0xff, 0x25, 10,   0,    0, 0, 0x90, 0x90};
    int64_t m_count = 0;
    void *m_target = nullptr;
    void **m_slot = nullptr; // that leads to it
};

// The name under which an import is counted; empty: it is not.
std::string_view counted_name(const support::Import &import)
{
    // what patches imports: this program's own, and those of a module that starts
    if (import.function == "VirtualProtect" || import.function == "VirtualQuery")
        return "";
    if (_stricmp(import.dll.data(), "KERNEL32.dll") == 0 ||
        _stricmp(import.dll.data(), "USER32.dll") == 0)
        return import.function;
    for (const char *of_the_heap : {"malloc", "realloc", "free"}) {
        if (std::string_view(of_the_heap) == support::plain_name(import.function.data()))
            return of_the_heap;
    }
    return "";
}

extern "C" {

// What the loader tells of a DLL before it runs the DLL's start.
struct Loaded {
    ULONG flags;
    const void *full_name;
    const void *base_name;
    void *module;
};
using OnLoad = void(CALLBACK *)(ULONG reason, const Loaded *loaded, void *context);
LONG NTAPI LdrRegisterDllNotification(ULONG flags, OnLoad on_load, void *context, void **cookie);
LONG NTAPI LdrUnregisterDllNotification(void *cookie);
}

// Counts for as long as it is there.
class Counter
{
public:
    Counter()
        : m_thunks(
              static_cast<Thunk *>(VirtualAlloc(nullptr, MOST_THUNKS * sizeof(Thunk),
                                                MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE)))
    {
        if (!m_thunks)
            throw std::runtime_error("no memory for code");
        watch(support::thr_module());
        watch(GetModuleHandleA(nullptr));
        m_lasting = m_names.size();
        if (LdrRegisterDllNotification(0, on_load, this, &m_cookie) != 0)
            throw std::runtime_error("the loader does not tell what it loads");
    }
    ~Counter()
    {
        LdrUnregisterDllNotification(m_cookie);
        for (size_t index = 0; index < m_lasting; ++index)
            support::set_slot(m_thunks[index].m_slot, m_thunks[index].m_target);
    }
    Counter(const Counter &) = delete;
    Counter &operator=(const Counter &) = delete;

    Calls count(const std::function<void()> &run)
    {
        for (size_t index = 0; index < m_names.size(); ++index)
            m_thunks[index].m_count = 0;
        run();
        Calls calls;
        for (size_t index = 0; index < m_names.size(); ++index) {
            if (m_thunks[index].m_count != 0)
                calls[m_names[index]] += static_cast<int>(m_thunks[index].m_count);
        }
        return calls;
    }

private:
    static void CALLBACK on_load(ULONG reason, const Loaded *loaded, void *context)
    {
        if (reason == 1) // it is loaded
            static_cast<Counter *>(context)->watch(static_cast<HMODULE>(loaded->module));
    }

    void watch(HMODULE module)
    {
        for (const support::Import &import : support::imports_of(module)) {
            const std::string_view name = counted_name(import);
            if (name.empty())
                continue;
            if (m_names.size() == MOST_THUNKS)
                throw std::runtime_error("too many imports to count");
            Thunk *thunk = new (&m_thunks[m_names.size()]) Thunk;
            thunk->m_target = *import.slot;
            m_names.emplace_back(name);
            thunk->m_slot = import.slot;
            support::set_slot(import.slot, thunk);
        }
    }

    static const size_t MOST_THUNKS = 2048;
    Thunk *m_thunks;                  // never given back: a thread may be in one of them
    std::vector<std::string> m_names; // of the thunks
    size_t m_lasting = 0;             // of those: the others go with a module that comes meanwhile
    void *m_cookie = nullptr;
};

} // namespace

Calls calls_of(const std::function<void()> &run)
{
    run(); // what happens once only
    return Counter().count(run);
}

std::string difference(Calls counted, Calls raw)
{
    Calls all = counted;
    all.insert(raw.begin(), raw.end());
    std::string text;
    for (const auto &entry : all) {
        const std::string &name = entry.first;
        if (counted[name] != raw[name])
            text += " " + name + " " + std::to_string(counted[name]) + " (raw " +
                    std::to_string(raw[name]) + ")";
    }
    return text;
}

int total_of(const Calls &calls)
{
    int total = 0;
    for (const auto &entry : calls)
        total += entry.second;
    return total;
}

} // namespace bench
