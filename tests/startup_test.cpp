// The attach and detach of the library: of the objects inside this program, which has an entry
// point of the library that nobody calls but these tests, and of the shipped DLL.
#include "support/test.h"

#include <cstdlib>

using namespace support;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID at_process_end);
// Of the compiler's stack protector.
extern "C" void *__stack_chk_guard;
extern "C" void __stack_chk_fail();

namespace
{

const HMODULE OWN = GetModuleHandleA(nullptr);

// --- attach and detach --------------------------------------------------------------------------

// What the shutdown releases, a block as a dot, and the locks that it takes: none, since at the end
// of a process the thread that holds one may be gone.
std::string steps_of_detach(void *at_process_end)
{
    std::string steps;
    auto tell = [&](const char *step) {
        return [&steps, step](const Call &call) {
            steps += step;
            return call.go_on();
        };
    };
    Gate blocks("free", tell(".")), variables("TlsFree", tell("variable")),
        mutexes("DeleteCriticalSection", tell("mutex")), locks("EnterCriticalSection", tell("!"));
    DllMain(OWN, DLL_PROCESS_DETACH, at_process_end);
    return steps;
}

TEST(Library, StartsUpDeclinesThreadNotificationsAndShutsDownInOrder)
{
    _putenv("THR_DRL_DEBUG=0"); // to be copied, also by the tests below
    char any;
    alignas(IMAGE_NT_HEADERS64) char image[sizeof(IMAGE_NT_HEADERS64)] = {};
    // The system refuses that to a library with thread-local storage, as this program has it.
    Gate declines(Refusal{"DisableThreadLibraryCalls", EVERY, TRUE, ERROR_SUCCESS});
    for (auto [instance, at_process_end] :
         {std::pair(OWN, static_cast<char *>(nullptr)), {reinterpret_cast<HMODULE>(image), &any}}) {
        ASSERT_TRUE(DllMain(instance, DLL_PROCESS_ATTACH, nullptr));
        EXPECT_EQ(declines.calls(), instance != OWN);
        const THR_THREAD_ID id = THR_THREAD_MAIN_ID;
        for (DWORD reason : {DLL_THREAD_ATTACH, DLL_THREAD_DETACH})
            DllMain(instance, reason, nullptr);
        EXPECT_TRUE(id && id == THR_THREAD_MAIN_ID && id == thr_thread_self());
        EXPECT_TRUE(!is_thr_loaded() && !thr_drl_init() && is_thr_loaded() == 1);
        thr_drl_load("no_such_library");
        EXPECT_EQ(steps_of_detach(at_process_end), "....mutex.variable.");
        const DWORD slot = TlsAlloc(); // the library's, which is another's now
        TlsSetValue(slot, &any);
        EXPECT_TRUE(!THR_THREAD_MAIN_ID && !thr_thread_self() && !is_thr_loaded());
        TlsFree(slot);
    }
    Gate gate(Refusal{"TlsAlloc", 1, intptr_t(TLS_OUT_OF_INDEXES), ERROR_NO_SYSTEM_RESOURCES});
    EXPECT_FALSE(DllMain(OWN, DLL_PROCESS_ATTACH, nullptr) || THR_THREAD_MAIN_ID);
    EXPECT_EQ(steps_of_detach(nullptr), "") << "the system calls it after a refusal, too";
}

TEST(Dll, LoadsLeaveNoHandle)
{
    size_t before = 0;
    for (int i = 0; i < 250; ++i) {
        if (i == 50) // not at once: what the system opens on first use and keeps
            before = live_handle_count();
        ASSERT_TRUE(FreeLibrary(LoadLibraryA("thr.dll")));
        ASSERT_EQ(GetModuleHandleA("thr.dll"), nullptr);
    }
    // Less than one for each load: the system's own threads come and go.
    EXPECT_LT(live_handle_count(), before + 100);
}

// --- the DLL directory --------------------------------------------------------------------------

TEST(DllDirectory, IsTakenFromTheExecutablesPathAtStartup)
{
    const std::string deep = "C:\\velkora\\" + std::string(232, 'd') + "\\velkora";
    const std::pair<std::string, std::string> cases[] = {
        {"C:\\velkora\\t.exe", ""},
        {"C:\\velkora\\ostrevaline\\b\\t.exe", "C:\\velkora\\bin64"},
        {"C:\\Velkora\\ostrevaline\\b\\t.exe", "C:\\Velkora\\ostrevaline\\bin64"},
        {deep + "\\b\\t.exe", deep + "\\bin64"}}; // the longest path
    for (auto &[path, dll_directory] : cases) {
        auto tell_path = [&text = path](const Call &call) -> intptr_t {
            EXPECT_EQ(call.arg<HMODULE>(0), OWN) << "not the DLL's path";
            return text.copy(call.arg<char *>(1), call.arg<DWORD>(2));
        };
        Gate gate("GetModuleFileNameA", tell_path);
        SetDllDirectoryA(nullptr);
        DllMain(OWN, DLL_PROCESS_ATTACH, nullptr);
        DllMain(OWN, DLL_PROCESS_DETACH, nullptr);
        char found[MAX_PATH] = "";
        GetDllDirectoryA(MAX_PATH, found);
        EXPECT_EQ(found, dll_directory) << path;
    }
}

// --- the stack protector ------------------------------------------------------------------------

TEST(StackGuardDeathTest, HasAZeroByteAndEndsTheProcessAtOnce)
{
    const auto guard = reinterpret_cast<uintptr_t>(__stack_chk_guard);
    EXPECT_TRUE(guard && guard % 256 == 0);
    EXPECT_EXIT(__stack_chk_fail(), testing::ExitedWithCode(int(STATUS_STACK_BUFFER_OVERRUN)),
                "^$");
}

} // namespace
