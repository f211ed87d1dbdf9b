// What attaching the library to a process takes by itself, in a DLL that does nothing else: a
// thread slot, two blocks of memory, a lock, an environment variable and the executable's path.
#include <cstdlib>
#include <cstring>

#include <windows.h>

namespace
{

DWORD slot;
void *main_record;
CRITICAL_SECTION *handler_section;
char *debug_setting;

void start_up()
{
    main_record = calloc(1, 64);
    slot = TlsAlloc();
    TlsSetValue(slot, main_record);
    handler_section = static_cast<CRITICAL_SECTION *>(calloc(1, sizeof(CRITICAL_SECTION)));
    InitializeCriticalSection(handler_section);
    if (const char *setting = getenv("THR_DRL_DEBUG"))
        debug_setting = _strdup(setting);
    char path[261] = {};
    GetModuleFileNameA(GetModuleHandleA(nullptr), path, 260);
    if (strstr(path, "\\velkora\\"))
        SetDllDirectoryA(nullptr);
}

void shut_down()
{
    free(debug_setting);
    DeleteCriticalSection(handler_section);
    free(handler_section);
    TlsFree(slot);
    free(main_record);
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
