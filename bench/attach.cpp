// What attaching the library to a process takes by itself, in a DLL that does nothing else: a
// thread slot, three blocks of memory, five locks, an environment variable and the executable's
// path.
#include <cstdlib>
#include <cstring>

#include <windows.h>

namespace
{

DWORD slot;
DWORD *main_record;
CRITICAL_SECTION locks[4];
CRITICAL_SECTION *handler_section;
char *debug_setting;

void start_up()
{
    for (CRITICAL_SECTION &lock : locks)
        InitializeCriticalSection(&lock);
    main_record = static_cast<DWORD *>(calloc(1, 64));
    *main_record = GetCurrentThreadId();
    slot = TlsAlloc();
    TlsSetValue(slot, main_record);
    handler_section = static_cast<CRITICAL_SECTION *>(calloc(1, sizeof(CRITICAL_SECTION)));
    InitializeCriticalSection(handler_section);
    if (const char *setting = getenv("THR_DRL_DEBUG"))
        debug_setting = _strdup(setting);
    char path[261] = {};
    GetModuleFileNameA(GetModuleHandleA(nullptr), path, 260);
    char *directory = _strdup(path);
    if (directory && strstr(directory, "\\velkora\\"))
        SetDllDirectoryA(nullptr);
    free(directory);
}

void shut_down()
{
    if (debug_setting)
        free(debug_setting);
    DeleteCriticalSection(handler_section);
    free(handler_section);
    TlsFree(slot);
    free(main_record);
    for (CRITICAL_SECTION &lock : locks)
        DeleteCriticalSection(&lock);
}

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        start_up();
    else if (reason == DLL_PROCESS_DETACH)
        shut_down();
    return TRUE;
}
