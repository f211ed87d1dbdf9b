// What happens when a process attaches and detaches the library. It runs under the loader lock:
// no library is loaded here, no thread started, nothing waited for.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(instance); // the library does nothing when threads come and go
    return TRUE;
}
