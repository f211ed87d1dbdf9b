// What happens when a process attaches and detaches the library. It runs under the loader lock:
// no library is loaded here, no thread started, nothing waited for.
#include "thr/thr_thread.h"

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        DisableThreadLibraryCalls(instance); // the library does nothing when threads come and go
        thr_thread_init_main();
    } else if (reason == DLL_PROCESS_DETACH) {
        thr_thread_fini_main();
    }
    return TRUE;
}
