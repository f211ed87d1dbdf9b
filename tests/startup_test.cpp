// The attach and detach of the library: of the objects inside this program, which has an entry
// point of the library that nobody calls but these tests, and of the shipped DLL.
#include "support/test.h"

#include "thr/thr_dll_directory.h"

#include <array>
#include <cstdlib>

#include <malloc.h>

using namespace support;

namespace
{

const HMODULE OWN = GetModuleHandleA(nullptr);

// --- attach and detach --------------------------------------------------------------------------

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID);

// The blocks in use of the runtime's heap: what start-up allocates can't be counted through an
// import table, which can be patched only after it.
size_t used_blocks()
{
    size_t blocks = 0;
    PROCESS_HEAP_ENTRY entry = {};
    while (HeapWalk(reinterpret_cast<HANDLE>(_get_heap_handle()), &entry))
        blocks += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
    return blocks;
}

// What the shutdown releases, and the locks that it takes: none, since at the end of a process the
// thread that holds one may be gone.
std::string steps_of_detach(void *at_process_end)
{
    std::string steps;
    std::map<void *, std::string> names = {{THR_THREAD_MAIN_ID, "main id."}};
    for (auto [text, name] : {std::pair(thr_drl_get_error(), "message."),
                              {thr_drl_get_error_data(), "data."},
                              {thr_drl_get_system_error(), "words."}})
        names[const_cast<char *>(text)] = name;
    auto tell = [&](const char *step) {
        return [&steps, step](const Call &call) { return steps += step, call.go_on(); };
    };
    auto tell_block = [&](const Call &call) {
        auto name = names.find(call.arg<void *>(0));
        return steps += name == names.end() ? "." : name->second, call.go_on();
    };
    auto tell_slot = [&](const Call &call) {
        const bool is_ours = TlsGetValue(call.arg<DWORD>(0)) == THR_THREAD_MAIN_ID;
        return steps += is_ours ? "variable." : "another slot.", call.go_on();
    };
    Gate gates[] = {Gate("free", tell_block, OWN), Gate("TlsFree", tell_slot, OWN),
                    Gate("DeleteCriticalSection", tell("mutex."), OWN),
                    Gate("EnterCriticalSection", tell("lock!"), OWN)};
    DllMain(OWN, DLL_PROCESS_DETACH, at_process_end);
    return steps;
}

TEST(Library, StartsUpAndShutsDownInOrder)
{
    _putenv("THR_DRL_DEBUG=0"); // to be copied
    int any;
    for (void *at_process_end : {static_cast<void *>(nullptr), static_cast<void *>(&any)}) {
        ASSERT_TRUE(DllMain(OWN, DLL_PROCESS_ATTACH, nullptr));
        EXPECT_TRUE(THR_THREAD_MAIN_ID && thr_thread_self() == THR_THREAD_MAIN_ID);
        EXPECT_EQ(is_thr_loaded(), 0);
        thr_drl_init();
        EXPECT_EQ(is_thr_loaded(), 1);
        thr_drl_load("no_such_library");
        EXPECT_EQ(steps_of_detach(at_process_end), "data.words.message..mutex..variable.main id.");
        EXPECT_EQ(is_thr_loaded(), 0);
        const DWORD slot = TlsAlloc(); // the library's, which is another's now
        TlsSetValue(slot, &any);
        EXPECT_TRUE(!THR_THREAD_MAIN_ID && !thr_thread_self());
        TlsFree(slot);
    }
    _putenv("THR_DRL_DEBUG=");
    Gate gate(Refusal{"TlsAlloc", 1, intptr_t(TLS_OUT_OF_INDEXES), ERROR_NO_SYSTEM_RESOURCES}, OWN);
    EXPECT_FALSE(DllMain(OWN, DLL_PROCESS_ATTACH, nullptr));
    EXPECT_EQ(steps_of_detach(nullptr), "") << "the system calls it after a refusal, too";
}

// The system refuses that to a library with thread-local storage, as this program has it.
TEST(Library, DeclinesThreadNotificationsWhereItHasNoThreadLocalStorage)
{
    struct {
        IMAGE_DOS_HEADER dos;
        IMAGE_NT_HEADERS64 nt;
    } image = {};
    image.dos.e_lfanew = sizeof image.dos;
    Gate gate(Refusal{"DisableThreadLibraryCalls", EVERY, TRUE, ERROR_SUCCESS}, OWN);
    for (HINSTANCE instance : {OWN, reinterpret_cast<HINSTANCE>(&image)}) {
        DllMain(instance, DLL_PROCESS_ATTACH, nullptr);
        DllMain(instance, DLL_PROCESS_DETACH, nullptr);
        EXPECT_EQ(gate.calls(), instance != OWN);
    }
}

// The shipped DLL's function, in place of the one in this program.
#define OF_DLL(function)                                                                           \
    reinterpret_cast<decltype(&function)>(                                                         \
        reinterpret_cast<void *>(GetProcAddress(thr_module(), #function)))

TEST(Dll, AThousandLoadsLeaveNothing)
{
    _putenv("THR_DRL_DEBUG=0"); // to be copied at each start-up
    auto held = [] {
        DWORD slot = TlsAlloc(); // the lowest that is free
        TlsFree(slot);
        return std::array<size_t, 3>{live_handle_count(), used_blocks(), slot};
    };
    std::array<size_t, 3> before{};
    for (int i = 0; i < 1000; ++i) {
        if (i == 300) // not at once: what the system opens on first use and keeps
            before = held();
        HMODULE thr = LoadLibraryA("thr.dll");
        ASSERT_NE(OF_DLL(thr_thread_self)(), nullptr);
        OF_DLL(thr_drl_find_function)(nullptr, "no_such_function");
        FreeLibrary(thr);
        ASSERT_EQ(GetModuleHandleA("thr.dll"), nullptr);
    }
    const auto after = held();
    // Less than one for each load: the system's own threads come and go.
    EXPECT_LT(after[0], before[0] + 350);
    EXPECT_LT(after[1], before[1] + 350);
    EXPECT_EQ(after[2], before[2]);
    _putenv("THR_DRL_DEBUG=");
}

// --- the DLL directory --------------------------------------------------------------------------

TEST(DllDirectory, IsTakenFromTheExecutablesPath)
{
    const std::pair<const char *, const char *> cases[] = {
        {"C:\\velkora\\t.exe", ""},
        {"C:\\a\\ostrevaline\\b\\t.exe", "C:\\a\\ostrevaline\\bin64"},
        {"C:\\velkora\\ostrevaline\\b\\t.exe", "C:\\velkora\\bin64"},
        {"C:\\velkora\\velkora\\b\\t.exe", "C:\\velkora\\velkora\\bin64"},
        {"C:\\Velkora\\b\\t.exe", ""},
        {"", ""}};
    const std::string last_messages =
        "Using module path C:\\velkora\\velkora\\b\n"
        "Adding C:\\velkora\\velkora\\bin64 as the DLL search path\n"
        "Using module path C:\\Velkora\\b\n"
        "THR Warning: Cannot determine Velkora directory from executable directory C:\\Velkora\\b. "
        "DLL loading may not be correct\n"
        "THR Warning: Cannot determine directory for current executable!\n";
    Recorder debug;
    const char *program;
    auto tell_path = [&](const Call &call) -> intptr_t {
        EXPECT_EQ(call.arg<HMODULE>(0), GetModuleHandleA(nullptr)) << "not the DLL's path";
        return std::string(program).copy(call.arg<char *>(1), call.arg<DWORD>(2));
    };
    Gate gate("GetModuleFileNameA", tell_path, OWN);
    for (auto [path, dll_directory] : cases) {
        SetDllDirectoryA(nullptr);
        program = path;
        thr_drl_set_dll_directory();
        char found[MAX_PATH] = "";
        GetDllDirectoryA(MAX_PATH, found);
        EXPECT_STREQ(found, dll_directory) << program;
    }
    std::string messages;
    for (const std::string &message : debug.take())
        messages += message;
    EXPECT_EQ(messages.substr(messages.size() - last_messages.size()), last_messages);
}

} // namespace
