// Makes the operating system refuse what a test wants refused: replaces an entry of a loaded
// module's import table, so that the module's next call reaches a function of the test's own.
#ifndef THR_TESTS_IMPORT_PATCH_H
#define THR_TESTS_IMPORT_PATCH_H

#include <optional>
#include <string>
#include <vector>

#include <windows.h>

namespace support
{

// The loaded thr.dll; throws when the program has none.
HMODULE thr_module();

// One import; the function is "#" and the number where it is imported by ordinal. `slot` is the
// entry of the import table, which holds the function's address.
struct Import {
    std::string dll;
    std::string function;
    void **slot;
};

// Every import of a loaded module, in the order of its import directory.
std::vector<Import> imports_of(HMODULE module);

// The names that a loaded module exports, in their order.
std::vector<std::string> exports_of(HMODULE module);

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

// Refuses the `nth` allocation that the module makes from now on, 1 for the next one. It watches
// malloc and calloc, whichever of them the module has: a compiler makes one calloc of a malloc and
// the memset behind it. Only one at a time.
class RefusedMalloc
{
public:
    explicit RefusedMalloc(int nth = 1, HMODULE module = thr_module());

    // False when the module made fewer allocations.
    bool happened() const;

private:
    std::optional<ImportPatch> m_malloc;
    std::optional<ImportPatch> m_calloc;
};

} // namespace support

#endif
