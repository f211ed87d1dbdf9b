// What happens when a process attaches and detaches the library. It runs under the loader lock:
// no library is loaded here, no thread started, nothing waited for. At the end of a process the
// other threads are gone by then, and may have gone with any lock held.
#include "thr/thr_dll_directory.h"
#include "thr/thr_drl.h"
#include "thr/thr_objects.h"
#include "thr/thr_thread.h"

#include <windows.h>

namespace
{

void start_up()
{
    thr_thread_init_main();
    thr_handlers_init();
    thr_drl_keep_debug_setting();
    thr_drl_set_dll_directory();
}

void shut_down()
{
    thr_drl_cleanup();
    thr_handlers_fini();
    thr_thread_fini_main();
}

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        DisableThreadLibraryCalls(instance); // the library does nothing when threads come and go
        start_up();
    } else if (reason == DLL_PROCESS_DETACH) {
        shut_down();
    }
    return TRUE;
}
