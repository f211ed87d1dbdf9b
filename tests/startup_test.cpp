// The attach and detach of the library: of the shipped DLL, loaded as by a host that does not link
// it, and the search for the DLL directory in the library's objects, which are inside this program.
#include "thr/thr.h"
#include "thr/thr_dll_directory.h"

#include "support/child.h"
#include "support/handles.h"
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

std::string rest_of_output(Child &child)
{
    std::string output;
    while (auto line = child.read_line())
        output += *line + "\n";
    return output;
}

// --- the DLL's attach and detach ----------------------------------------------------------------

void *address_in_dll(const char *name)
{
    return reinterpret_cast<void *>(GetProcAddress(thr_module(), name));
}

// The shipped DLL's function, in place of the one in this program.
#define OF_DLL(function) reinterpret_cast<decltype(&function)>(address_in_dll(#function))

THR_THREAD_ID main_id_of_dll()
{
    return *static_cast<THR_THREAD_ID *>(address_in_dll("THR_THREAD_MAIN_ID"));
}

// What the shutdown releases, by its address. The compiler's runtime inside the DLL has other
// blocks and critical sections. Never destroyed: the library ends after this program's objects.
auto &watched = *new std::map<const void *, std::string>;

// At the process's end the runtime's streams may be closed already.
void print(const std::string &line)
{
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), (line + "\n").c_str(),
              static_cast<DWORD>(line.size() + 1), &written, nullptr);
}

void print_call(const char *call, const void *what)
{
    auto found = watched.find(what);
    if (found != watched.end())
        print(call + found->second);
}

void printed_free(void *block)
{
    print_call("free ", block);
    watched.erase(block); // the next block there is another one
    free(block);
}

void WINAPI printed_delete(CRITICAL_SECTION *section)
{
    print_call("delete ", section);
    DeleteCriticalSection(section);
}

BOOL WINAPI printed_tls_free(DWORD index)
{
    print_call("free variable of ", TlsGetValue(index));
    return TlsFree(index);
}

const char *lock_to_watch;

// The shutdown enters none: at the process's end the thread that holds it may be gone.
void WINAPI printed_enter(CRITICAL_SECTION *section)
{
    if (lock_to_watch)
        watched[section] = lock_to_watch;
    else
        print_call("enter ", section);
    EnterCriticalSection(section);
}

ROLE(ends)
{
    HMODULE thr = LoadLibraryA("thr.dll");
    // The patches are never removed: they go with the DLL.
    new ImportPatch("EnterCriticalSection", &printed_enter);
    lock_to_watch = "handler mutex";
    OF_DLL(thr_set_new_handler)(nullptr);
    lock_to_watch = "error lock";
    OF_DLL(thr_drl_load)("no_such_library");
    lock_to_watch = nullptr;
    watched[OF_DLL(thr_drl_get_error)()] = "error message";
    watched[OF_DLL(thr_drl_get_error_data)()] = "error data";
    watched[OF_DLL(thr_drl_get_system_error)()] = "system error";
    watched[main_id_of_dll()] = "main id";
    new ImportPatch("free", &printed_free);
    new ImportPatch("DeleteCriticalSection", &printed_delete);
    new ImportPatch("TlsFree", &printed_tls_free);
    if (args[0] == "freed before") {
        FreeLibrary(thr);
        print("gone");
    }
    exit(7);
}

TEST(Dll, ShutdownKeepsItsOrderAndTakesNoLock)
{
    std::string expected = "free error data\nfree system error\nfree error message\n"
                           "delete handler mutex\nfree handler mutex\n"
                           "free variable of main id\nfree main id\ndelete error lock\n";
    for (const char *how : {"by exit", "freed before"}) {
        Child child("ends", {how});
        EXPECT_EQ(rest_of_output(child), expected);
        EXPECT_EQ(child.wait(), 7);
        expected += "gone\n";
    }
}

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
        ASSERT_NE(main_id_of_dll(), nullptr);
        ASSERT_EQ(OF_DLL(thr_thread_self)(), main_id_of_dll());
        ASSERT_EQ(OF_DLL(is_thr_loaded)(), 0);
        OF_DLL(thr_drl_init)();
        ASSERT_EQ(OF_DLL(is_thr_loaded)(), 1);
        OF_DLL(thr_drl_find_function)(nullptr, "no_such_function");
        FreeLibrary(thr);
        ASSERT_EQ(GetModuleHandleA("thr.dll"), nullptr);
    }
    EXPECT_EQ(held(), before);
    _putenv("THR_DRL_DEBUG=");
}

// --- the DLL directory --------------------------------------------------------------------------

std::string scripted_path;

DWORD WINAPI scripted_module_file_name(HMODULE, LPSTR buffer, DWORD size)
{
    return static_cast<DWORD>(scripted_path.copy(buffer, size));
}

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
    DebugRecorder debug;
    ImportPatch path("GetModuleFileNameA", &scripted_module_file_name, GetModuleHandleA(nullptr));
    for (auto [program, dll_directory] : cases) {
        SetDllDirectoryA(nullptr);
        scripted_path = program;
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
    fs::copy_file(bin / "fixtures/thr_test_host.exe", install / "tools/tool.exe");
    fs::copy_file(bin / "fixtures/thr_test_plain.dll", install / "bin64/only_there.dll");
    const std::string path = getenv("PATH");
    SetEnvironmentVariableA("PATH", (bin.string() + ";" + path).c_str()); // for the runtime's DLLs
    Child child("host", {"only_there"}, (install / "tools/tool.exe").string());
    SetEnvironmentVariableA("PATH", path.c_str());
    const std::string directory = (install / "bin64").string();
    EXPECT_EQ(rest_of_output(child), "[" + directory + "]\n" + directory + "\\only_there.dll\n");
    EXPECT_EQ(child.wait(), 0);
}

} // namespace
