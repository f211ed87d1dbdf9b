// The loading service, on real libraries and with the platform's calls in its import table.
#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

// For lookups in the executable.
extern "C" __declspec(dllexport) int drl_test_of_program()
{
    return 7;
}

namespace
{

using Texts = std::vector<std::string>;

void *const RESERVED = reinterpret_cast<void *>(static_cast<intptr_t>(-3));

// The three error texts: message, data, system error.
Texts errors()
{
    return {thr_drl_get_error(), thr_drl_get_error_data(), thr_drl_get_system_error()};
}

// The system's words for a code, with their line break.
std::string words_for(DWORD code)
{
    char words[4096] = "";
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0x400,
                   words, sizeof words, nullptr);
    return words;
}

Texts errors_about(const std::string &prefix, const std::string &data, DWORD code)
{
    return {prefix + data + ": " + words_for(code), data, words_for(code)};
}

std::string fixture(const std::string &file)
{
    std::string program = own_program();
    return program.substr(0, program.rfind('\\') + 1) + "fixtures\\" + file;
}

void copy(const std::string &from, const std::string &to)
{
    ASSERT_TRUE(CopyFileA(from.c_str(), to.c_str(), TRUE)) << to;
}

// What the library and the hooks were asked, in order.
Texts calls;

void *recorded_load(const char *file_name)
{
    calls.push_back(std::string("load ") + file_name);
    return &calls;
}

void recorded_unload(void *library)
{
    calls.push_back(library == &calls ? "unload" : "unload of something else");
}

DWORD last_error = ERROR_ACCESS_DENIED;

void recorded_load_symbols(void *library, const char *file_name)
{
    calls.push_back(std::string(library ? "symbols of " : "no symbols of ") + file_name);
    SetLastError(last_error);
}

HMODULE WINAPI recorded_load_library(LPCSTR file_name)
{
    calls.push_back(std::string("LoadLibraryA ") + file_name);
    return reinterpret_cast<HMODULE>(&calls);
}

HMODULE WINAPI recorded_module_handle(LPCSTR file_name)
{
    calls.push_back(std::string("GetModuleHandleA ") + file_name);
    return nullptr;
}

BOOL WINAPI recorded_free_library(HMODULE library)
{
    calls.push_back(library == reinterpret_cast<HMODULE>(&calls) ? "FreeLibrary" : "wrong handle");
    return FALSE;
}

DWORD WINAPI recorded_search_path(LPCSTR path, LPCSTR name, LPCSTR extension, DWORD size, LPSTR,
                                  LPSTR *)
{
    calls.push_back(std::string("SearchPathA ") + name);
    EXPECT_TRUE(!path && !extension && size == 1024);
    return 0;
}

// --- names --------------------------------------------------------------------------------------

TEST(DrlNames, AreMadeIntoFileNames)
{
    const struct {
        const char *name, *constructed, *loaded;
    } cases[] = {{"foo", "foo.dll", "foo.dll"},
                 {"foo.dll", "foo.dll", "foo.dll"},
                 {"E:\\lib\\foo", "E:\\lib\\foo.dll", "E:\\lib\\foo.dll"},
                 {"E:\\lib.dll\\foo", "E:\\lib.dll\\foo.dll", "E:\\lib.dll\\foo.dll"},
                 {"bar.DLL", "bar.DLL.dll", "bar.DLL.dll"},
                 {".dll", ".dll.dll", ".dll.dll"},
                 {"a.dll", "a.dll", "a.dll"},
                 {"x.so", "x.so.dll", "x.so.dll"},
                 {"", ".dll", ".dll"},
                 {"dir\\.dll", "dir\\.dll.dll", "dir\\.dll.dll"},
                 {"sub/foo", "sub/foo.dll", "sub\\foo.dll"},
                 {"sub/.dll", "sub/.dll", "sub\\.dll.dll"}, // as a whole longer than the suffix
                 {"E:/a/b\\c.dll", "E:/a/b\\c.dll", "E:\\a\\b\\c.dll"}};
    ImportPatch patches[] = {{"LoadLibraryA", &recorded_load_library},
                             {"GetModuleHandleA", &recorded_module_handle}};
    for (auto &c : cases) {
        char destination[64];
        thr_drl_construct_library_name(destination, sizeof destination - 1, c.name);
        EXPECT_STREQ(destination, c.constructed);
        calls.clear();
        EXPECT_EQ(thr_drl_load(c.name), &calls);
        EXPECT_EQ(thr_drl_is_loaded(c.name), 0);
        EXPECT_EQ(calls, (Texts{std::string("LoadLibraryA ") + c.loaded,
                                std::string("GetModuleHandleA ") + c.loaded}));
    }
}

TEST(DrlNames, MustFitTheirDestination)
{
    const struct {
        size_t maximum_length;
        std::string destination;
    } cases[] = {{0, "#########"}, {6, "#########"}, {7, std::string("foo.dll\0#", 9)}};
    for (auto &c : cases) {
        std::string destination(9, '#');
        thr_drl_construct_library_name(destination.data(), c.maximum_length, "foo");
        EXPECT_EQ(destination, c.destination) << c.maximum_length;
    }
}

// --- loading ------------------------------------------------------------------------------------

TEST(DrlLoad, LoadsFindsAndUnloads)
{
    ScratchDir scratch;
    CreateDirectoryA(scratch.file("sub").c_str(), nullptr);
    const std::string name = scratch.file("sub/thr_test_loaded");
    const std::string file = scratch.file("sub\\thr_test_loaded.dll");
    copy(fixture("thr_test_plain.dll"), file);
    calls.clear();
    thr_set_load_symbols_func(recorded_load_symbols);
    EXPECT_EQ(thr_drl_is_loaded(name.c_str()), 0);
    void *library = thr_drl_load(name.c_str());
    EXPECT_EQ(thr_drl_load(name.c_str()), library);
    thr_set_load_symbols_func(nullptr);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(calls, Texts(2, "symbols of " + file));
    EXPECT_EQ(library, GetModuleHandleA(file.c_str()));
    void *answer = thr_drl_find_function(library, "thr_test_answer");
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(answer)(), 42);

    for (void *left_alone : {static_cast<void *>(nullptr), RESERVED})
        thr_drl_unload(left_alone);
    thr_drl_unload(library);
    EXPECT_EQ(thr_drl_is_loaded(name.c_str()), 1);
    EXPECT_EQ(thr_drl_is_loaded("thr_test_loaded"), 1);
    thr_drl_unload(library);
    EXPECT_EQ(thr_drl_is_loaded(name.c_str()), 0);
    EXPECT_EQ(calls.size(), 2u);
}

TEST(DrlLoad, FailsWithoutALibraryThatTheOneNeeds)
{
    const std::string needy = fixture("thr_test_needy.dll");
    EXPECT_EQ(thr_drl_is_loadable(needy.c_str()), 1);
    EXPECT_EQ(thr_drl_load(needy.c_str()), nullptr);
    EXPECT_EQ(errors(), errors_about("Cannot load library ", needy, ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(thr_drl_is_loaded(needy.c_str()), 0);

    SetDllDirectoryA(fixture("apart").c_str());
    void *library = thr_drl_load(needy.c_str());
    SetDllDirectoryA(nullptr);
    ASSERT_NE(library, nullptr);
    void *twice = thr_drl_find_function(library, "thr_test_twice");
    ASSERT_NE(twice, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(twice)(), 42);
    thr_drl_unload(library);
}

TEST(DrlLoad, TheHostsFunctionsTakeThePlatformsPlace)
{
    ImportPatch patches[] = {{"LoadLibraryA", &recorded_load_library},
                             {"FreeLibrary", &recorded_free_library}};
    const struct {
        THR_DRL_LOAD_FUNC load;
        THR_DRL_UNLOAD_FUNC unload;
        Texts calls;
    } cases[] = {
        {recorded_load, recorded_unload, {"load a\\b.dll", "unload"}},
        {recorded_load, nullptr, {"load a\\b.dll", "FreeLibrary"}},
        {nullptr, recorded_unload, {"LoadLibraryA a\\b.dll", "symbols of a\\b.dll", "unload"}},
        {nullptr, nullptr, {"LoadLibraryA a\\b.dll", "symbols of a\\b.dll", "FreeLibrary"}}};
    thr_set_load_symbols_func(recorded_load_symbols);
    for (auto &c : cases) {
        thr_drl_register_funcs(c.load, c.unload);
        calls.clear();
        void *library = thr_drl_load("a/b");
        EXPECT_EQ(library, &calls);
        for (void *handle : {library, static_cast<void *>(nullptr), RESERVED})
            thr_drl_unload(handle);
        EXPECT_EQ(calls, c.calls);
    }
    thr_drl_register_funcs(nullptr, nullptr);
    thr_set_load_symbols_func(nullptr);
}

TEST(DrlLoadable, AsksForTheFileOrSearches)
{
    ScratchDir scratch;
    copy(fixture("thr_test_plain.dll"), scratch.file("file.dll"));
    CreateDirectoryA(scratch.file("folder.dll").c_str(), nullptr);
    const struct {
        std::string name;
        int is_loadable;
    } cases[] = {{scratch.path() + "/file", 1},
                 {scratch.path() + "\\file.dll", 1},
                 {scratch.path() + "/folder", 1},
                 {scratch.path() + "/none", 0},
                 {scratch.path() + "/none/file", 0}};
    thr_drl_load("an_error_to_be_kept");
    const Texts kept = errors();
    calls.clear();
    {
        ImportPatch patch("SearchPathA", &recorded_search_path);
        for (auto &c : cases)
            EXPECT_EQ(thr_drl_is_loadable(c.name.c_str()), c.is_loadable) << c.name;
        EXPECT_EQ(calls, Texts()); // a directory part is all that is looked in
        EXPECT_EQ(thr_drl_is_loadable("foo.dll"), 0);
        EXPECT_EQ(calls, Texts{"SearchPathA foo.dll"});
    }
    const std::string path = getenv("PATH");
    EXPECT_EQ(thr_drl_is_loadable("thr_test_plain"), 0);
    SetEnvironmentVariableA("PATH", (fixture("") + ";" + path).c_str());
    EXPECT_EQ(thr_drl_is_loadable("thr_test_plain"), 1);
    SetEnvironmentVariableA("PATH", path.c_str());
    EXPECT_EQ(thr_drl_is_loadable("thr"), 1);

    EXPECT_EQ(thr_drl_load(nullptr), nullptr);
    EXPECT_EQ(thr_drl_is_loaded(nullptr) + thr_drl_is_loadable(nullptr), 0);
    EXPECT_EQ(thr_drl_is_loaded("no_such_library"), 0);
    EXPECT_EQ(errors(), kept);
}

// --- lookups and errors -------------------------------------------------------------------------

TEST(DrlFind, NullIsTheExecutable)
{
    void *function = thr_drl_find_function(nullptr, "drl_test_of_program");
    EXPECT_EQ(function, reinterpret_cast<void *>(&drl_test_of_program));
    void *kernel = thr_drl_load("kernel32");
    EXPECT_NE(thr_drl_find_function(kernel, "GetTickCount"), nullptr);
    EXPECT_EQ(thr_drl_find_function(nullptr, "GetTickCount"), nullptr);
    const Texts expected =
        errors_about("Cannot find function ", "GetTickCount", ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(errors(), expected);
    EXPECT_EQ(thr_drl_find_function(kernel, nullptr), nullptr);
    EXPECT_EQ(errors(), expected);
    thr_drl_unload(kernel);
}

// "lib<code>.dll" fails with that code.
void *load_fails_by_number(const char *file_name)
{
    SetLastError(strtoul(file_name + strlen("lib"), nullptr, 10));
    return nullptr;
}

TEST(DrlErrors, TellWhatFailedAndTheSystemsWords)
{
    const std::string prefix = "Cannot load library ";
    EXPECT_EQ(thr_drl_load("no/such\\library"), nullptr);
    EXPECT_EQ(errors(), errors_about(prefix, "no\\such\\library.dll", ERROR_MOD_NOT_FOUND));

    calls.clear();
    thr_set_load_symbols_func(recorded_load_symbols);
    for (DWORD code : {DWORD(ERROR_ACCESS_DENIED), DWORD(0xE0001234)}) { // no words for the second
        last_error = code;
        EXPECT_EQ(thr_drl_load("none"), nullptr);
        EXPECT_EQ(errors(), errors_about(prefix, "none.dll", code));
    }
    EXPECT_EQ(words_for(0xE0001234), "");
    EXPECT_EQ(calls, Texts(2, "no symbols of none.dll"));
    thr_set_load_symbols_func(nullptr);

    thr_drl_register_funcs(load_fails_by_number, nullptr);
    EXPECT_EQ(thr_drl_load("lib123"), nullptr);
    EXPECT_EQ(errors(), errors_about(prefix, "lib123.dll", ERROR_INVALID_NAME));
    thr_drl_register_funcs(nullptr, nullptr);
}

// The library's heap: its live blocks, and frees of anything else. One thread can be told to wait
// in the midst of its work, a while, for another one.
struct Heap {
    std::mutex mutex;
    std::set<void *> live;
    int allocations;
    int wrong_frees;
    std::atomic<DWORD> waiting_thread;
    int allocations_until_wait;
    HANDLE waits = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE goes_on = CreateEventA(nullptr, FALSE, FALSE, nullptr);
};

Heap heap;

void *tracked_calloc(size_t count, size_t size)
{
    if (heap.waiting_thread == GetCurrentThreadId() && --heap.allocations_until_wait == 0) {
        SetEvent(heap.waits);
        WaitForSingleObject(heap.goes_on, 100); // in vain where a lock keeps the other one out
    }
    void *block = calloc(count, size);
    std::lock_guard<std::mutex> lock(heap.mutex);
    heap.live.insert(block);
    ++heap.allocations;
    return block;
}

void tracked_free(void *block)
{
    std::lock_guard<std::mutex> lock(heap.mutex);
    if (!block)
        return;
    if (heap.live.erase(block) == 0)
        ++heap.wrong_frees; // and left alone: the test goes on
    else
        free(block);
}

TEST(DrlErrors, SurviveFailuresOnSeveralThreads)
{
    thr_drl_register_funcs(load_fails_by_number, nullptr);
    {
        ImportPatch patches[] = {{"calloc", &tracked_calloc}, {"free", &tracked_free}};
        heap.live.clear();
        thr_drl_load("lib1"); // replaces the texts from before, which are not tracked
        heap.allocations = heap.wrong_frees = 0;
        thr_drl_load("lib1");
        const int allocations = heap.allocations;
        for (int nth = 1; nth <= allocations; ++nth) {
            std::thread first([nth] {
                heap.allocations_until_wait = nth;
                heap.waiting_thread = GetCurrentThreadId();
                thr_drl_load("lib2");
            });
            std::thread second([] {
                EXPECT_EQ(WaitForSingleObject(heap.waits, PATIENCE_MS), WAIT_OBJECT_0);
                thr_drl_load("lib3");
                SetEvent(heap.goes_on);
            });
            first.join();
            second.join();
            ResetEvent(heap.goes_on);
            std::string data = thr_drl_get_error_data();
            DWORD code = strtoul(data.c_str() + strlen("lib"), nullptr, 10);
            EXPECT_EQ(errors(), errors_about("Cannot load library ", data, code)) << nth;
        }
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([] {
                for (int i = 0; i < 250; ++i)
                    thr_drl_load("lib2");
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(heap.wrong_frees, 0);
        EXPECT_EQ(heap.live.size(), 3u); // the texts of the last error
    }
    thr_drl_register_funcs(nullptr, nullptr);
}

TEST(DrlErrorsDeathTest, EveryAllocationIsNeeded)
{
    // A load that fails, with a directory part, makes every text that there is.
    auto fail = [] { thr_drl_load("dir/none"); };
    heap.allocations = 0;
    {
        ImportPatch patches[] = {{"calloc", &tracked_calloc}, {"free", &tracked_free}};
        fail();
    }
    EXPECT_GE(heap.allocations, 5);
    for (int nth = 1; nth <= heap.allocations; ++nth) {
        EXPECT_INTERNAL_ERROR(
            {
                RefusedMalloc refused(nth);
                fail();
            },
            "ret", "thr_drl");
    }
}

// A hook that fails a load itself, in the midst of the report of another one.
ROLE(fails_in_its_report)
{
    thr_set_report_func([](const char *message, const char *, const char *, int) {
        thr_drl_load("none");
        say(message + std::string(", ") + thr_drl_get_error_data());
    });
    RefusedMalloc refused(std::stoi(args[0]));
    thr_drl_load("dir/none");
    return 0;
}

TEST(DrlErrors, AreOpenToAReportHook)
{
    for (const char *nth : {"4", "6"}) { // in the midst of the three texts
        Child child("fails_in_its_report", {nth});
        EXPECT_EQ(child.read_line(), "ret, none.dll");
        EXPECT_EQ(child.wait(), -1);
    }
}

// --- the debug setting --------------------------------------------------------------------------

ROLE(fails_twice)
{
    const char *setting = getenv("THR_DRL_DEBUG");
    say((setting ? setting : "not set") + errors()[0] + errors()[1] + errors()[2]);
    thr_drl_load("no_such_library");
    thr_setenv("THR_DRL_DEBUG", args[0].c_str()); // too late
    thr_drl_find_function(nullptr, "no_such_function");
    return 0;
}

TEST(DrlDebugSetting, IsTheOneAtStartup)
{
    const struct {
        const char *value, *later;
        bool is_on;
    } cases[] = {{nullptr, "9", false}, {"", "9", false},  {"0", "9", false},   {"1", "9", false},
                 {"1x9", "9", false},   {"2", "0", true},  {"9", "", true},     {"a", "", true},
                 {":", "", true},       {"/", "9", false}, {"\xE9", "9", false}};
    for (auto &c : cases) {
        const std::string value = c.value ? c.value : "not set";
        std::string expected = value + "\n", output; // no error texts yet
        if (c.is_on)
            expected += "THR_DRL: " + words_for(ERROR_MOD_NOT_FOUND) + "\n" +
                        "THR_DRL: " + words_for(ERROR_PROC_NOT_FOUND) + "\n";
        SetEnvironmentVariableA("THR_DRL_DEBUG", c.value);
        Child child("fails_twice", {c.later});
        SetEnvironmentVariableA("THR_DRL_DEBUG", nullptr);
        while (auto line = child.read_line())
            output += *line + "\n";
        // The output's own line breaks are those of a text file.
        for (std::string *text : {&expected, &output})
            text->erase(std::remove(text->begin(), text->end(), '\r'), text->end());
        EXPECT_EQ(output, expected);
        EXPECT_EQ(child.wait(), 0);
    }
}

} // namespace
