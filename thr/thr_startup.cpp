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

bool is_started;

bool start_up()
{
    if (!thr_thread_init_main()) {
        thr_thread_fini_main();
        return false;
    }
    thr_handlers_init();
    thr_drl_keep_debug_setting();
    thr_drl_set_dll_directory();
    is_started = true;
    return true;
}

void shut_down()
{
    thr_drl_cleanup();
    thr_handlers_fini();
    thr_thread_fini_main();
    is_started = false;
}

// The library does nothing when threads come and go. The platform can't leave those notifications
// out for a library whose compiler gave it thread-local storage, and refuses.
void decline_thread_notifications(HINSTANCE instance)
{
    auto *base = reinterpret_cast<const char *>(instance);
    auto *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(base);
    auto *nt = reinterpret_cast<const IMAGE_NT_HEADERS *>(base + dos->e_lfanew);
    if (nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_TLS].Size == 0)
        DisableThreadLibraryCalls(instance);
}

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        decline_thread_notifications(instance);
        return start_up();
    }
    // a load that failed is told of its end as well
    if (reason == DLL_PROCESS_DETACH && is_started)
        shut_down();
    return TRUE;
}
