// The attach and detach of the library: of the shipped DLL, loaded as by a host that does not link
// it, and the search for the DLL directory in the library's objects, which are inside this program.
#include "thr/thr.h"
#include "thr/thr_dll_directory.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

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

// The blocks in use of every heap of the process, the runtime's among them: what start-up allocates
// can't be counted through an import table, which can be patched only after it.
size_t used_blocks()
{
    HANDLE heaps[64];
    DWORD count = std::min<DWORD>(GetProcessHeaps(64, heaps), 64);
    size_t blocks = 0;
    for (DWORD i = 0; i < count; ++i) {
        PROCESS_HEAP_ENTRY entry = {};
        while (HeapWalk(heaps[i], &entry))
            blocks += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
    }
    return blocks;
}

void load_and_free(int times)
{
    for (int i = 0; i < times; ++i) {
        HMODULE thr = LoadLibraryA("thr.dll");
        ASSERT_NE(main_id_of_dll(), nullptr);
        ASSERT_EQ(OF_DLL(thr_thread_self)(), main_id_of_dll());
        ASSERT_EQ(OF_DLL(is_thr_loaded)(), 0);
        ASSERT_STREQ(OF_DLL(thr_drl_get_error)(), "");
        OF_DLL(thr_drl_init)();
        OF_DLL(thr_drl_find_function)(nullptr, "no_such_function");
        FreeLibrary(thr);
        ASSERT_EQ(GetModuleHandleA("thr.dll"), nullptr);
    }
}

TEST(Dll, AThousandLoadsLeaveNothing)
{
    _putenv("THR_DRL_DEBUG=0"); // to be copied at each start-up
    auto held = [] {
        DWORD slot = TlsAlloc(); // the lowest that is free
        TlsFree(slot);
        return std::array<size_t, 3>{live_handle_count(), used_blocks(), slot};
    };
    load_and_free(300); // before the count: what the system opens on first use and keeps
    auto before = held();
    load_and_free(700);
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
    const struct {
        std::string program, messages;
    } cases[] = {{"C:\\velkora\\b\\t.exe", "Using module path C:\\velkora\\b\n"
                                           "Adding C:\\velkora\\bin64 as the DLL search path\n"},
                 {"t.exe", "Using module path t.exe\n"
                           "THR Warning: Cannot determine Velkora directory from executable "
                           "directory t.exe. DLL loading may not be correct\n"},
                 {"", "THR Warning: Cannot determine directory for current executable!\n"}};
    DebugRecorder debug;
    ImportPatch path("GetModuleFileNameA", &scripted_module_file_name, GetModuleHandleA(nullptr));
    for (auto &c : cases) {
        scripted_path = c.program;
        thr_drl_set_dll_directory();
        std::string messages;
        for (const std::string &message : debug.take())
            messages += message;
        EXPECT_EQ(messages, c.messages);
    }
    SetDllDirectoryA(nullptr);
}

void copy(const std::string &from, const std::string &to)
{
    for (size_t i = to.find('\\', 3); i != std::string::npos; i = to.find('\\', i + 1))
        CreateDirectoryA(to.substr(0, i).c_str(), nullptr);
    ASSERT_TRUE(CopyFileA(from.c_str(), to.c_str(), TRUE)) << to;
}

TEST(DllDirectory, LetsProgramsLoadTheSuitesLibraries)
{
    // Where a program lies, and the install directory that it then belongs to; empty: none.
    const struct {
        std::string folder, install;
    } places[] = {{"1\\velkora\\bin64", "1\\velkora"},
                  {"2\\velkora\\tools\\sub", "2\\velkora"},
                  {"3\\velkora", ""},
                  {"4\\apps\\ostrevaline\\bin64", "4\\apps\\ostrevaline"},
                  {"5\\velkora\\tools\\ostrevaline\\bin", "5\\velkora"},
                  {"6\\velkora\\b\\velkora\\c", "6\\velkora\\b\\velkora"},
                  {"7\\Velkora\\bin64", ""},
                  {"8\\velkora2\\bin64", ""}};
    ScratchDir scratch;
    const std::string own = own_program(), bin = own.substr(0, own.rfind('\\'));
    const std::string path = getenv("PATH");
    SetEnvironmentVariableA("PATH", (bin + ";" + path).c_str()); // for the runtime's DLLs
    for (auto &place : places) {
        const std::string folder = scratch.file(place.folder);
        copy(bin + "\\thr.dll", folder + "\\thr.dll");
        copy(bin + "\\fixtures\\thr_test_host.exe", folder + "\\tool.exe");
        std::string expected = "[]\nCannot load library only_there.dll: ";
        if (!place.install.empty()) {
            const std::string dll_directory = scratch.file(place.install + "\\bin64"),
                              library = dll_directory + "\\only_there.dll";
            expected = "[" + dll_directory + "]\n" + library;
            copy(bin + "\\fixtures\\thr_test_plain.dll", library);
        }
        Child child("host", {"only_there"}, folder + "\\tool.exe");
        EXPECT_EQ(rest_of_output(child).substr(0, expected.size()), expected);
    }
    SetEnvironmentVariableA("PATH", path.c_str());
}

} // namespace
