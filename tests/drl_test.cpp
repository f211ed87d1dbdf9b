// The loading service, on real libraries, with its errors, their lock, and a report hook.

#include "support/test.h"

#include <algorithm>

using namespace support;

// For lookups in the executable.
extern "C" __declspec(dllexport) int drl_test_of_program()
{
    return 7;
}

namespace
{

// The account of the last error: message, data, system error.
std::string errors()
{
    return thr_drl_get_error() + ("|" + std::string(thr_drl_get_error_data())) + "|" +
           thr_drl_get_system_error();
}

// That of what failed with a code; the system ends its words with a line break.
std::string errors_about(const std::string &prefix, const std::string &data, DWORD code)
{
    const std::string words = system_words(code) + "\r\n";
    return prefix + data + ": " + words + "|" + data + "|" + words;
}

std::string calls; // what the hooks were asked, in order

void load_symbols(void *library, const char *file_name)
{
    calls += std::string(library ? "symbols of " : "no symbols of ") + file_name + ";";
    SetLastError(0xE0001234); // the system has no words for it
}

TEST(Drl, NamesAreMadeIntoFileNames)
{
    // of a code page in which a character may have two bytes
    Gate lead("IsDBCSLeadByte", [](const Call &call) { return call.arg<BYTE>(0) == 0x83; });
    const char *const cases[][2] = {{"E:\\lib.dll\\foo", "E:\\lib.dll\\foo.dll"},
                                    {"bar.DLL", "bar.DLL.dll"},
                                    {"", ".dll"},
                                    {"dir\\.dll", "dir\\.dll.dll"},
                                    {"sub/.dll", "sub/.dll"}, // as a whole longer than the suffix
                                    {"\x83\\.dll", "\x83\\.dll"},
                                    {"\x83\\\\.dll", "\x83\\\\.dll.dll"}};
    for (auto &[name, file_name] : cases) {
        std::string destination(strlen(file_name) + 2, '#'), untouched = destination;
        thr_drl_construct_library_name(destination.data(), strlen(file_name) - 1, name);
        EXPECT_EQ(destination, untouched);
        thr_drl_construct_library_name(destination.data(), strlen(file_name), name);
        EXPECT_EQ(destination, std::string(file_name) + '\0' + '#');
    }
}

TEST(Drl, TheHostsFunctionsTakeThePlatformsPlace)
{
    thr_drl_load("none"); // for which the system has words
    calls.clear();
    auto *unload = +[](void *library) { calls += library == &calls ? "unload;" : "unload other;"; };
    auto *load = +[](const char *file) { return calls += file, static_cast<void *>(&calls); };
    thr_set_load_symbols_func(load_symbols); // not called then
    thr_drl_register_funcs(load, unload);
    EXPECT_EQ(thr_drl_load("sub/.dll"), &calls);
    for (intptr_t library : {reinterpret_cast<intptr_t>(&calls), intptr_t(0), intptr_t(-3)})
        thr_drl_unload(reinterpret_cast<void *>(library)); // the last two are none
    thr_drl_register_funcs(nullptr, unload);
    EXPECT_EQ(thr_drl_load("none"), nullptr);
    EXPECT_EQ(calls, "sub\\.dll.dllunload;no symbols of none.dll;");
    EXPECT_EQ(errors(), "Cannot load library none.dll: |none.dll|");
    thr_drl_register_funcs(nullptr, nullptr);
    thr_set_load_symbols_func(nullptr);
}

TEST(Drl, LoadsFindsAndUnloads)
{
    ScratchDir scratch;
    const std::string file = scratch.file(".dll.dll");
    CopyFileA(fixture("thr_test_plain.dll").c_str(), file.c_str(), TRUE);
    std::string path = file.substr(0, file.size() - 4);
    std::replace(path.begin(), path.end(), '\\', '/');
    const char *name = path.c_str();
    EXPECT_EQ(thr_drl_is_loadable(name) + thr_drl_is_loaded(name), 1);
    EXPECT_EQ(thr_drl_is_loadable(".dll") + thr_drl_is_loadable((path + "x").c_str()), 0);
    calls.clear();
    thr_set_load_symbols_func(load_symbols);
    void *library = thr_drl_load(name);
    thr_set_load_symbols_func(nullptr);
    EXPECT_EQ(calls, "symbols of " + file + ";");
    EXPECT_EQ(thr_drl_is_loaded(name), 1);
    thr_drl_unload(library);
    EXPECT_EQ(thr_drl_is_loaded(name), 0);
    EXPECT_EQ(thr_drl_find_function(nullptr, "drl_test_of_program"), &drl_test_of_program);
    EXPECT_EQ(thr_drl_load("no/such\\library"), nullptr);
    EXPECT_EQ(errors(),
              errors_about("Cannot load library ", "no\\such\\library.dll", ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(thr_drl_find_function(nullptr, "none"), nullptr);
    EXPECT_EQ(thr_drl_find_function(nullptr, nullptr), thr_drl_load(nullptr)) << "of no account";
    EXPECT_EQ(errors(), errors_about("Cannot find function ", "none", ERROR_PROC_NOT_FOUND));
}

// --- errors -------------------------------------------------------------------------------------

TEST(DrlErrors, ChangeUnderOneLock)
{
    std::string when_locked, when_unlocked;
    Gate lock("EnterCriticalSection", [&](const Call &call) {
        call.go_on();
        when_locked = errors();
        return 0;
    });
    Gate unlock("LeaveCriticalSection", [&](const Call &call) {
        when_unlocked = errors();
        return call.go_on();
    });
    thr_drl_register_funcs( // fails with the code of the name's first letter
        [](const char *file) { return SetLastError(BYTE(*file)), static_cast<void *>(nullptr); },
        nullptr);
    thr_drl_load("A");
    thr_drl_load("B");
    EXPECT_EQ(when_locked, errors_about("Cannot load library ", "A.dll", 'A'));
    EXPECT_EQ(when_unlocked, errors_about("Cannot load library ", "B.dll", 'B'));
    static_assert(ERROR_BAD_EXE_FORMAT == 0xC1); // its words have a place for a name
    thr_drl_load("\xC1");
    EXPECT_NE(strstr(thr_drl_get_system_error(), "%1"), nullptr);
    thr_drl_register_funcs(nullptr, nullptr);
}

// Fails twice; or, when told so, in an allocation, and then in the hook, on another thread.
ROLE(fails)
{
    thr_set_report_func([](const char *message, const char *, const char *, int) {
        std::thread(thr_drl_load, "none").join();
        say(message + std::string(", ") + thr_drl_get_error_data());
    });
    thr_setenv("THR_DRL_DEBUG", args[0].c_str()); // too late
    Gate refused(Refusal{"malloc", std::stoi(args[1]), 0, ERROR_NOT_ENOUGH_MEMORY});
    thr_drl_load("no_such_library");
    thr_drl_find_function(nullptr, "no_such_function");
    return 0;
}

TEST(DrlErrors, AreShownByTheSettingAtStartupAndOpenToAReportHook)
{
    const std::string shown = "THR_DRL: " + system_words(ERROR_MOD_NOT_FOUND) + "\r||" +
                              "THR_DRL: " + system_words(ERROR_PROC_NOT_FOUND) + "\r||";
    // the setting, later, the refused allocation; the output
    const std::tuple<const char *, const char *, const char *, std::string> cases[] = {
        {nullptr, "9", "0", ""}, {"", "9", "0", ""},     {"1x9", "9", "0", ""},
        {"\xE9", "9", "0", ""},  {"2", "0", "0", shown}, {nullptr, "0", "7", "ret, none.dll|"}};
    for (auto &[setting, changed, refused, expected] : cases) {
        SetEnvironmentVariableA("THR_DRL_DEBUG", setting);
        Child child("fails", {changed, refused});
        SetEnvironmentVariableA("THR_DRL_DEBUG", nullptr);
        std::string output;
        while (auto line = child.read_line())
            output += *line + "|";
        EXPECT_EQ(output, expected);
    }
}

} // namespace
