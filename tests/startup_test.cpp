// The attach and detach of the library: of its objects, which are inside this program and attached
// by hand, and of the shipped DLL, loaded as by a host that does not link it.
#include "thr/thr.h"
#include "thr/thr_dll_directory.h"

#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

namespace
{

using Lines = std::vector<std::string>;

HMODULE this_program()
{
    return GetModuleHandleA(nullptr);
}

Lines rest_of_output(Child &child)
{
    Lines lines;
    while (auto line = child.read_line())
        lines.push_back(*line);
    return lines;
}

// --- the objects' attach and detach -------------------------------------------------------------

Lines errors()
{
    return {thr_drl_get_error(), thr_drl_get_error_data(), thr_drl_get_system_error()};
}

TEST(Startup, MakesTheStateThatShutdownTakesBack)
{
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(DllMain(this_program(), DLL_PROCESS_ATTACH, nullptr));
        ASSERT_NE(THR_THREAD_MAIN_ID, nullptr);
        EXPECT_EQ(thr_thread_self(), THR_THREAD_MAIN_ID);
        EXPECT_EQ(is_thr_loaded(), 0);
        EXPECT_EQ(thr_drl_init(), 0);
        thr_drl_fini();
        EXPECT_EQ(is_thr_loaded(), 1);
        EXPECT_EQ(errors(), Lines(3));
        thr_drl_load("no_such_library");
        EXPECT_EQ(errors()[1], "no_such_library.dll");

        EXPECT_TRUE(DllMain(this_program(), DLL_PROCESS_DETACH, nullptr));
        EXPECT_EQ(THR_THREAD_MAIN_ID, nullptr);
        EXPECT_EQ(thr_thread_self(), nullptr);
        EXPECT_EQ(is_thr_loaded(), 0);
        EXPECT_EQ(errors(), Lines(3));
    }
}

TEST(StartupDeathTest, NeedsTheMainThreadsRecord)
{
    EXPECT_INTERNAL_ERROR(
        {
            RefusedMalloc refused(1, this_program());
            DllMain(this_program(), DLL_PROCESS_ATTACH, nullptr);
        },
        "THR_THREAD_MAIN_ID", "thr_thread");
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

TEST(Dll, TheLoadingThreadIsTheMainThread)
{
    HMODULE thr = nullptr;
    std::thread([&] {
        thr = LoadLibraryA("thr.dll");
        EXPECT_NE(main_id_of_dll(), nullptr);
        EXPECT_EQ(OF_DLL(thr_thread_self)(), main_id_of_dll());
    }).join();
    EXPECT_EQ(OF_DLL(thr_thread_self)(), nullptr);
    EXPECT_TRUE(FreeLibrary(thr));
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

void WINAPI watching_enter(CRITICAL_SECTION *section)
{
    watched[section] = "handler mutex";
    EnterCriticalSection(section);
}

// Threads that hold the library's locks and never let go of them.
std::atomic<int> stuck_threads;

DWORD WINAPI stuck_format_message(DWORD, LPCVOID, DWORD, DWORD, LPSTR, DWORD, va_list *)
{
    ++stuck_threads;
    Sleep(INFINITE);
    return 0;
}

// A wait is said: at the process's end not every system has the caller wait for a dead thread.
void WINAPI stuck_enter(CRITICAL_SECTION *section)
{
    if (!TryEnterCriticalSection(section)) {
        print("waits for a lock");
        EnterCriticalSection(section);
    }
    if (watched.count(section)) {
        ++stuck_threads;
        Sleep(INFINITE);
    }
}

void get_threads_stuck()
{
    new ImportPatch("FormatMessageA", &stuck_format_message);
    new ImportPatch("EnterCriticalSection", &stuck_enter);
    std::thread([] { OF_DLL(thr_drl_load)("no_such_library"); }).detach();
    std::thread([] { OF_DLL(thr_set_new_handler)(nullptr); }).detach();
    for (int tries = 0; stuck_threads != 2 && tries < 10000; ++tries)
        Sleep(1);
    print(stuck_threads == 2 ? "stuck" : "the threads are not stuck");
}

void print_report(const char *message, const char *, const char *, int)
{
    print(message);
}

ROLE(ends)
{
    HMODULE thr = LoadLibraryA("thr.dll");
    OF_DLL(thr_drl_load)("no_such_library");
    watched = {{OF_DLL(thr_drl_get_error)(), "error message"},
               {OF_DLL(thr_drl_get_error_data)(), "error data"},
               {OF_DLL(thr_drl_get_system_error)(), "system error"},
               {main_id_of_dll(), "main id"}};
    {
        ImportPatch patch("EnterCriticalSection", &watching_enter);
        OF_DLL(thr_set_new_handler)(nullptr);
    }
    // These are never removed: they go with the DLL.
    new ImportPatch("free", &printed_free);
    new ImportPatch("DeleteCriticalSection", &printed_delete);
    new ImportPatch("TlsFree", &printed_tls_free);
    if (args[0] == "with stuck threads") {
        get_threads_stuck();
    } else if (args[0] == "after a fatal report") {
        OF_DLL(thr_set_report_func)(print_report);
        OF_DLL(thr_mutex_lock)(nullptr);
    } else if (args[0] == "freed before") {
        FreeLibrary(thr);
        print(GetModuleHandleA("thr.dll") ? "not gone" : "gone");
    }
    exit(7);
}

TEST(Dll, ShutdownKeepsItsOrderHoweverItComes)
{
    const Lines shutdown = {"free error data",    "free system error",
                            "free error message", "delete handler mutex",
                            "free handler mutex", "free variable of main id",
                            "free main id"};
    const struct {
        const char *how;
        Lines before, after;
        int exit_code;
    } cases[] = {{"by exit", {}, {}, 7},
                 {"freed before", {}, {"gone"}, 7},
                 {"after a fatal report", {"mutex != 0"}, {}, -1},
                 {"with stuck threads", {"stuck"}, {}, 7}};
    for (auto &c : cases) {
        Lines expected = c.before;
        expected.insert(expected.end(), shutdown.begin(), shutdown.end());
        expected.insert(expected.end(), c.after.begin(), c.after.end());
        Child child("ends", {c.how});
        EXPECT_EQ(rest_of_output(child), expected) << c.how;
        EXPECT_EQ(child.wait(), c.exit_code) << c.how;
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
        if (OF_DLL(is_thr_loaded)() || *OF_DLL(thr_drl_get_error)() || !main_id_of_dll())
            throw std::runtime_error("the library is not as new");
        OF_DLL(thr_drl_init)();
        OF_DLL(thr_drl_find_function)(nullptr, "no_such_function");
        FreeLibrary(thr);
        if (GetModuleHandleA("thr.dll"))
            throw std::runtime_error("thr.dll is still loaded");
    }
}

ROLE(loads_and_frees)
{
    load_and_free(10); // before the count: what the system opens on first use and keeps
    say("ready");
    for (int times : {1000, 0}) {
        size_t handles = live_handle_count(), blocks = used_blocks();
        DWORD slot = TlsAlloc(); // the lowest that is free
        TlsFree(slot);
        say(std::to_string(handles) + " handles, " + std::to_string(blocks) + " blocks, slot " +
            std::to_string(slot));
        load_and_free(times);
    }
    return 0;
}

TEST(Dll, AThousandLoadsLeaveNothing)
{
    SetEnvironmentVariableA("THR_DRL_DEBUG", "0"); // to be copied at each start-up
    Child child("loads_and_frees");
    SetEnvironmentVariableA("THR_DRL_DEBUG", nullptr);
    Lines lines = rest_of_output(child);
    EXPECT_EQ(child.wait(), 0);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2], lines[1]);
}

// --- the DLL directory --------------------------------------------------------------------------

// Where a program may lie, and the install directory that it then belongs to; empty: none.
struct Place {
    std::string folder, install;
};

const Place PLACES[] = {{"1\\velkora\\bin64", "1\\velkora"},
                        {"2\\velkora\\tools\\sub", "2\\velkora"},
                        {"3\\velkora", ""},
                        {"4\\apps\\ostrevaline\\bin64", "4\\apps\\ostrevaline"},
                        {"5\\velkora\\tools\\ostrevaline\\bin", "5\\velkora"},
                        {"6\\ostrevaline\\a\\velkora\\b", "6\\ostrevaline\\a\\velkora"},
                        {"7\\velkora\\b\\velkora\\c", "7\\velkora\\b\\velkora"},
                        {"8\\Velkora\\bin64", ""},
                        {"9\\velkora2\\bin64", ""}};

std::string scripted_path;
Lines directories;

// As the system: cuts a path that does not fit, and writes no terminator then.
DWORD WINAPI scripted_module_file_name(HMODULE module, LPSTR buffer, DWORD size)
{
    EXPECT_EQ(module, this_program());
    EXPECT_EQ(size, 260u);
    EXPECT_EQ(std::string(buffer, size + 1), std::string(size + 1, '\0'));
    return static_cast<DWORD>(scripted_path.copy(buffer, size));
}

BOOL WINAPI recorded_set_dll_directory(LPCSTR directory)
{
    directories.push_back(directory ? directory : "default");
    return TRUE;
}

// Sets the DLL directory for that program, expects it to be "bin64" of `install`, and returns the
// debug messages before that.
Lines set_for(const std::string &program, const std::string &install)
{
    DebugRecorder debug;
    ImportPatch path("GetModuleFileNameA", &scripted_module_file_name, this_program());
    ImportPatch set("SetDllDirectoryA", &recorded_set_dll_directory, this_program());
    scripted_path = program;
    directories.clear();
    thr_drl_set_dll_directory();
    Lines messages = debug.take();
    if (install.empty()) {
        EXPECT_EQ(directories, Lines()) << program;
    } else {
        EXPECT_EQ(directories, (Lines{"default", install + "\\bin64"})) << program;
        EXPECT_EQ(messages.back(), "Adding " + install + "\\bin64 as the DLL search path\n");
        messages.pop_back();
    }
    return messages;
}

Lines messages_for(const std::string &folder, bool is_installed)
{
    Lines messages = {"Using module path " + folder + "\n"};
    if (!is_installed)
        messages.push_back("THR Warning: Cannot determine Velkora directory from executable "
                           "directory " +
                           folder + ". DLL loading may not be correct\n");
    return messages;
}

TEST(DllDirectory, IsTakenFromTheExecutablesPath)
{
    for (const Place &place : PLACES) {
        EXPECT_EQ(set_for(place.folder + "\\tool.exe", place.install),
                  messages_for(place.folder, !place.install.empty()));
    }
    EXPECT_EQ(set_for("tool.exe", ""), messages_for("tool.exe", false));
    const std::string longest = "C:\\velkora\\" + std::string(247, 'd');
    EXPECT_EQ(set_for(longest + "\\xyz", "C:\\velkora"), messages_for(longest, true));
    EXPECT_EQ(set_for(longest + "dd\\x", ""), messages_for("C:\\velkora", false));
    EXPECT_EQ(set_for("", ""), // a refused path
              Lines{"THR Warning: Cannot determine directory for current executable!\n"});
}

void copy(const std::string &from, const std::string &to)
{
    for (size_t i = to.find('\\', 3); i != std::string::npos; i = to.find('\\', i + 1))
        CreateDirectoryA(to.substr(0, i).c_str(), nullptr);
    ASSERT_TRUE(CopyFileA(from.c_str(), to.c_str(), TRUE)) << to;
}

TEST(DllDirectory, LetsProgramsLoadTheSuitesLibraries)
{
    ScratchDir scratch;
    const std::string own = own_program(), bin = own.substr(0, own.rfind('\\'));
    const std::string path = getenv("PATH");
    for (const Place &place : PLACES) {
        const std::string folder = scratch.file(place.folder),
                          dll_directory = scratch.file(place.install + "\\bin64");
        copy(bin + "\\thr.dll", folder + "\\thr.dll");
        copy(bin + "\\fixtures\\thr_test_host.exe", folder + "\\tool.exe");
        Lines expected = {"[]", "Cannot load library only_there.dll: "};
        if (!place.install.empty()) {
            expected = {"[" + dll_directory + "]", dll_directory + "\\only_there.dll"};
            copy(bin + "\\fixtures\\thr_test_plain.dll", expected[1]);
        }
        // The runtime's DLLs are found through PATH.
        SetEnvironmentVariableA("PATH", (bin + ";" + path).c_str());
        Child child("host", {"only_there"}, folder + "\\tool.exe");
        SetEnvironmentVariableA("PATH", path.c_str());
        Lines lines = rest_of_output(child);
        EXPECT_EQ(child.wait(), 0);
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[0], expected[0]);
        EXPECT_EQ(lines[1].substr(0, expected[1].size()), expected[1]);
    }
}

} // namespace
