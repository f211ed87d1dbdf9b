// The attach and detach of the library: of the objects inside this program, which has an entry
// point of the library that nobody calls but these tests, and of the shipped DLL.
#include "thr/thr.h"
#include "thr/thr_dll_directory.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/heap.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include <malloc.h>
#include <windows.h>

using namespace support;
namespace fs = std::filesystem;

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
std::string steps;
std::map<const void *, std::string> names_of_blocks;

void watched_free(void *block)
{
    steps += names_of_blocks[block] + ".";
    checked_free(block);
}

std::string steps_of_detach(void *at_process_end)
{
    names_of_blocks = {{thr_drl_get_error(), "message"},
                       {thr_drl_get_error_data(), "data"},
                       {thr_drl_get_system_error(), "words"},
                       {THR_THREAD_MAIN_ID, "main id"}};
    // The originals can't be called, since this program's own calls are patched too.
    auto free_slot = +[](DWORD slot) -> BOOL {
        steps += TlsGetValue(slot) == THR_THREAD_MAIN_ID ? "variable." : "another slot.";
        return TRUE;
    };
    ImportPatch patches[] = {
        {"free", &watched_free, OWN},
        {"DeleteCriticalSection", +[](CRITICAL_SECTION *) { steps += "mutex."; }, OWN},
        {"EnterCriticalSection", +[](CRITICAL_SECTION *) { steps += "lock!"; }, OWN},
        {"TlsFree", free_slot, OWN}};
    steps.clear();
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
        EXPECT_TRUE(!THR_THREAD_MAIN_ID && !thr_thread_self());
    }
    _putenv("THR_DRL_DEBUG=");
    ImportPatch patch(
        "TlsAlloc", +[] { return TLS_OUT_OF_INDEXES; }, OWN);
    EXPECT_FALSE(DllMain(OWN, DLL_PROCESS_ATTACH, nullptr));
    EXPECT_EQ(steps_of_detach(nullptr), "") << "the system calls it after a refusal, too";
}

// The system refuses that to a library with thread-local storage.
TEST(Library, DeclinesThreadNotificationsWhereItHasNoThreadLocalStorage)
{
    static bool is_declined;
    ImportPatch patch(
        "DisableThreadLibraryCalls", +[](HMODULE) -> BOOL { return is_declined = true; }, OWN);
    struct {
        IMAGE_DOS_HEADER dos;
        IMAGE_NT_HEADERS64 nt;
    } image = {};
    image.dos.e_lfanew = sizeof image.dos;
    for (DWORD size : {0, 40}) {
        image.nt.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_TLS].Size = size;
        is_declined = false;
        auto instance = reinterpret_cast<HINSTANCE>(&image);
        DllMain(instance, DLL_PROCESS_ATTACH, nullptr);
        EXPECT_EQ(is_declined, size == 0);
        DllMain(instance, DLL_PROCESS_DETACH, nullptr);
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
    EXPECT_EQ(held(), before);
    _putenv("THR_DRL_DEBUG=");
}

// --- the DLL directory --------------------------------------------------------------------------

const char *program; // the path that it is told

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
    auto path = +[](HMODULE, char *buffer, DWORD size) {
        return static_cast<DWORD>(std::string(program).copy(buffer, size));
    };
    ImportPatch patch("GetModuleFileNameA", path, OWN);
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

TEST(DllDirectory, LetsAProgramLoadTheSuitesLibraries)
{
    ScratchDir scratch;
    const fs::path bin = fs::path(own_program()).parent_path(), install = scratch.file("velkora");
    for (const char *folder : {"bin64", "tools"})
        fs::create_directories(install / folder);
    fs::copy_file(bin / "thr.dll", install / "tools/thr.dll");
    fs::copy_file(fixture("thr_test_host.exe"), install / "tools/tool.exe");
    fs::copy_file(fixture("thr_test_plain.dll"), install / "bin64/only_there.dll");
    const std::string path = getenv("PATH");
    SetEnvironmentVariableA("PATH", (bin.string() + ";" + path).c_str()); // for the runtime's DLLs
    Child child("host", {"only_there"}, (install / "tools/tool.exe").string());
    SetEnvironmentVariableA("PATH", path.c_str());
    const std::string directory = (install / "bin64").string();
    EXPECT_EQ(child.read_line(), "[" + directory + "]");
    EXPECT_EQ(child.read_line(), directory + "\\only_there.dll");
    EXPECT_EQ(child.wait(), 0);
}

} // namespace
