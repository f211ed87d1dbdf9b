// The loading service, on real libraries, with failures on several threads and in a report hook.
#include "thr/thr.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
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

// The three error texts: message, data, system error.
Texts errors()
{
    return {thr_drl_get_error(), thr_drl_get_error_data(), thr_drl_get_system_error()};
}

// The error texts of what failed with a code; the system ends its words with a line break.
Texts errors_about(const std::string &prefix, const std::string &data, DWORD code)
{
    const std::string words = system_words(code) + "\r\n";
    return {prefix + data + ": " + words, data, words};
}

std::string fixture(const std::string &file)
{
    std::string program = own_program();
    return program.substr(0, program.rfind('\\') + 1) + "fixtures\\" + file;
}

// What the hooks were asked, in order.
Texts calls;

void *load_by_host(const char *file_name)
{
    calls.push_back(std::string("load ") + file_name);
    return &calls;
}

void unload_by_host(void *library)
{
    calls.push_back(library == &calls ? "unload" : "unload of something else");
}

void load_symbols_by_host(void *library, const char *file_name)
{
    calls.push_back(std::string(library ? "symbols of " : "no symbols of ") + file_name);
    SetLastError(0xE0001234); // the system has no words for it
}

// --- loading ------------------------------------------------------------------------------------

TEST(Drl, NamesAreMadeIntoFileNames)
{
    const char *const cases[][2] = {{"E:\\lib.dll\\foo", "E:\\lib.dll\\foo.dll"},
                                    {"bar.DLL", "bar.DLL.dll"},
                                    {"", ".dll"},
                                    {"dir\\.dll", "dir\\.dll.dll"},
                                    {"sub/.dll", "sub/.dll"}, // as a whole longer than the suffix
                                    {"E:/a/b\\c.dll", "E:/a/b\\c.dll"}};
    for (auto &[name, file_name] : cases) {
        std::string destination(strlen(file_name) + 2, '#'), untouched = destination;
        thr_drl_construct_library_name(destination.data(), strlen(file_name) - 1, name);
        EXPECT_EQ(destination, untouched);
        thr_drl_construct_library_name(destination.data(), strlen(file_name), name);
        EXPECT_EQ(destination, std::string(file_name) + '\0' + '#');
    }
}

TEST(Drl, LoadsFindsAndUnloads)
{
    const std::string file = fixture("thr_test_plain.dll");
    std::string name = fixture("thr_test_plain");
    std::replace(name.begin(), name.end(), '\\', '/');
    EXPECT_EQ(thr_drl_is_loadable(name.c_str()), 1);
    EXPECT_EQ(thr_drl_is_loadable("thr_test_plain"), 0);
    EXPECT_EQ(thr_drl_is_loadable("version"), 1) << "on the search path";

    EXPECT_EQ(thr_drl_is_loaded(name.c_str()), 0);
    calls.clear();
    thr_set_load_symbols_func(load_symbols_by_host);
    void *library = thr_drl_load(name.c_str());
    thr_set_load_symbols_func(nullptr);
    EXPECT_EQ(calls, Texts{"symbols of " + file});
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(thr_drl_load(name.c_str()), library);
    void *answer = thr_drl_find_function(library, "thr_test_answer");
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(answer)(), 42);
    EXPECT_EQ(thr_drl_find_function(nullptr, "drl_test_of_program"), &drl_test_of_program);
    thr_drl_unload(library);
    EXPECT_EQ(thr_drl_is_loaded(name.c_str()), 1);
    thr_drl_unload(library);
    EXPECT_EQ(thr_drl_is_loaded(name.c_str()), 0);
}

TEST(Drl, TheHostsFunctionsTakeThePlatformsPlace)
{
    thr_set_load_symbols_func(load_symbols_by_host); // not called then
    thr_drl_register_funcs(load_by_host, unload_by_host);
    calls.clear();
    EXPECT_EQ(thr_drl_load("sub/.dll"), &calls);
    for (intptr_t library : {reinterpret_cast<intptr_t>(&calls), intptr_t(0), intptr_t(-3)})
        thr_drl_unload(reinterpret_cast<void *>(library)); // the last two are none
    EXPECT_EQ(calls, (Texts{"load sub\\.dll.dll", "unload"}));

    thr_drl_register_funcs(nullptr, unload_by_host);
    EXPECT_EQ(thr_drl_load("none"), nullptr);
    thr_drl_unload(&calls);
    EXPECT_EQ(calls, (Texts{"load sub\\.dll.dll", "unload", "no symbols of none.dll", "unload"}));
    EXPECT_EQ(errors(), (Texts{"Cannot load library none.dll: ", "none.dll", ""}));
    thr_drl_register_funcs(nullptr, nullptr);
    thr_set_load_symbols_func(nullptr);
}

// --- errors -------------------------------------------------------------------------------------

TEST(DrlErrors, TellWhatFailedAndTheSystemsWords)
{
    EXPECT_EQ(thr_drl_load("no/such\\library"), nullptr);
    EXPECT_EQ(errors(),
              errors_about("Cannot load library ", "no\\such\\library.dll", ERROR_MOD_NOT_FOUND));

    EXPECT_EQ(thr_drl_find_function(nullptr, "none"), nullptr);
    const Texts kept = errors_about("Cannot find function ", "none", ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(errors(), kept);
    EXPECT_EQ(thr_drl_load(nullptr), nullptr);
    EXPECT_EQ(thr_drl_find_function(nullptr, nullptr), nullptr);
    EXPECT_EQ(thr_drl_is_loaded(nullptr) + thr_drl_is_loaded("none"), 0);
    EXPECT_EQ(thr_drl_is_loadable(nullptr) + thr_drl_is_loadable("no/such"), 0);
    EXPECT_EQ(errors(), kept);
}

// Lets other threads into the midst of the work, in changing order. A block that is freed twice
// ends the program.
void *slow_calloc(size_t count, size_t size)
{
    static std::atomic<DWORD> turn;
    Sleep(turn++ % 4);
    return calloc(count, size);
}

TEST(DrlErrors, SurviveFailuresOnSeveralThreads)
{
    auto fail_with_letter = [](const char *file_name) -> void * {
        SetLastError(file_name[0]);
        return nullptr;
    };
    thr_drl_register_funcs(fail_with_letter, nullptr);
    ImportPatch patch("calloc", &slow_calloc);
    for (int round = 0; round < 30; ++round) {
        std::vector<std::thread> threads;
        for (const char *name : {"A", "B", "C", "A", "B", "C"})
            threads.emplace_back(thr_drl_load, name);
        for (std::thread &thread : threads)
            thread.join();
        std::string data = thr_drl_get_error_data();
        EXPECT_EQ(errors(), errors_about("Cannot load library ", data, data[0]));
    }
    thr_drl_register_funcs(nullptr, nullptr);
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
    thr_drl_load("no_such_library");
    thr_setenv("THR_DRL_DEBUG", args[0].c_str()); // too late
    thr_drl_find_function(nullptr, "no_such_function");
    return 0;
}

TEST(DrlDebugSetting, IsTheOneAtStartup)
{
    const std::pair<const char *, bool> cases[] = {
        {nullptr, false}, {"", false}, {"1x9", false}, {"\xE9", false}, {"2", true}};
    for (auto &[value, is_on] : cases) {
        std::string expected, output;
        if (is_on)
            expected = "THR_DRL: " + system_words(ERROR_MOD_NOT_FOUND) + "\n\n" +
                       "THR_DRL: " + system_words(ERROR_PROC_NOT_FOUND) + "\n\n";
        SetEnvironmentVariableA("THR_DRL_DEBUG", value);
        Child child("fails_twice", {is_on ? "0" : "9"});
        SetEnvironmentVariableA("THR_DRL_DEBUG", nullptr);
        while (auto line = child.read_line())
            output += *line + "\n";
        output.erase(std::remove(output.begin(), output.end(), '\r'), output.end());
        EXPECT_EQ(output, expected);
        EXPECT_EQ(child.wait(), 0);
    }
}

} // namespace
