#include "support/heap.h"

#include "support/import_patch.h"

#include <cstdio>
#include <cstdlib>

#include <malloc.h>
#include <windows.h>

namespace support
{

bool are_heaps_sound()
{
    HANDLE heaps[64];
    DWORD count = GetProcessHeaps(64, heaps);
    bool are_sound = count <= 64;
    for (DWORD i = 0; are_sound && i < count; ++i)
        are_sound = HeapValidate(heaps[i], 0, nullptr);
    return are_sound;
}

void checked_free(void *block)
{
    if (block && !HeapValidate(reinterpret_cast<HANDLE>(_get_heap_handle()), 0, block)) {
        fprintf(stderr, "A damaged or foreign block is freed: %p\n", block);
        abort();
    }
    // not by this program's import, which leads here again
    static const FARPROC real_free = GetProcAddress(GetModuleHandleA("msvcrt.dll"), "free");
    reinterpret_cast<void (*)(void *)>(reinterpret_cast<void *>(real_free))(block);
}

void check_freed_blocks()
{
    for (const char *name : {"thr.dll", "libstdc++-6.dll", static_cast<const char *>(nullptr)}) {
        HMODULE module = GetModuleHandleA(name);
        if (!module)
            continue;
        for (const Import &import : imports_of(module)) {
            if (import.function == "free")
                new ImportPatch("free", &checked_free, module); // for the life of the process
        }
    }
}

} // namespace support
