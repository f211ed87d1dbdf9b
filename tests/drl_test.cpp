// The loading service, on real libraries, with the account of its errors.
#include "support/test.h"

using namespace support;

__declspec(dllexport) int drl_test_of_program; // for a lookup in the executable

namespace
{

// The account of the last error: message, data, system error.
std::string errors()
{
    return thr_drl_get_error() + ("|" + std::string(thr_drl_get_error_data())) + "|" +
           thr_drl_get_system_error();
}

TEST(Drl, NamesAreMadeIntoFileNames)
{
    // of a code page in which a character may have two bytes
    Gate lead("IsDBCSLeadByte", [](const Call &call) { return call.arg<BYTE>(0) == 0x83; });
    const char *const cases[][2] = {{"a.dll.DLL", "a.dll.DLL.dll"},
                                    {"dir\\.dll", "dir\\.dll.dll"},
                                    {"sub/.dll", "sub/.dll"}, // as a whole longer than the suffix
                                    {"\x83\\.dll", "\x83\\.dll"}};
    for (auto &[name, file_name] : cases) {
        std::string destination(strlen(file_name) + 2, '#'), untouched = destination;
        thr_drl_construct_library_name(destination.data(), strlen(file_name) - 1, name);
        EXPECT_EQ(destination, untouched);
        thr_drl_construct_library_name(destination.data(), strlen(file_name), name);
        EXPECT_EQ(destination, std::string(file_name) + '\0' + '#');
    }
}

std::string calls; // what the host was asked, in order

TEST(Drl, TheHostsFunctionsTakeThePlatformsPlace)
{
    auto load = [](const char *file) -> void * {
        calls += file;
        SetLastError(ERROR_BAD_EXE_FORMAT); // its words have a place for a name
        return *file == '\\' ? &calls : nullptr;
    };
    auto unload = [](void *library) { calls += library == &calls ? " unload" : " unload other"; };
    auto load_symbols = [](void *library, const char *file) {
        calls += std::string(library ? " symbols " : " no symbols ") + file;
        SetLastError(0xE0001234); // the system has no words for it
    };
    Gate unloads("FreeLibrary");
    thr_set_load_symbols_func(load_symbols); // not called for the host's libraries
    thr_drl_register_funcs(load, unload);
    thr_drl_unload(thr_drl_load("/sub/.dll"));
    thr_drl_unload(thr_drl_load("other"));        // none
    thr_drl_unload(reinterpret_cast<void *>(-3)); // none, either
    EXPECT_NE(strstr(thr_drl_get_system_error(), "%1"), nullptr);
    thr_drl_register_funcs(nullptr, nullptr);
    thr_drl_unload(thr_drl_load("version"));
    EXPECT_EQ(unloads.calls(), 1);
    EXPECT_EQ(thr_drl_load("none"), nullptr);
    EXPECT_EQ(errors(), "Cannot load library none.dll: |none.dll|");
    thr_set_load_symbols_func(nullptr);
    thr_drl_load("unseen");
    EXPECT_EQ(calls, "\\sub\\.dll.dll unloadother.dll symbols version.dll no symbols none.dll");
}

TEST(Drl, LoadsFindsAndUnloads)
{
    ScratchDir scratch;
    const std::string directory = scratch.path() + "/sub", path = directory + "/.dll";
    CreateDirectoryA(directory.c_str(), nullptr);
    CopyFileA(fixture("../libgcc_s_seh-1.dll").c_str(), (path + ".dll").c_str(), TRUE);
    EXPECT_EQ(thr_drl_is_loadable(path.c_str()) + thr_drl_is_loadable("version"), 2);
    for (auto &other : {std::string(".dll"), path + "x", std::string("none\\kernel32")})
        EXPECT_EQ(thr_drl_is_loadable(other.c_str()) + thr_drl_is_loaded(path.c_str()), 0) << other;
    void *library = thr_drl_load(path.c_str());
    EXPECT_EQ(thr_drl_is_loaded(path.c_str()), 1);
    thr_drl_unload(library);
    EXPECT_EQ(thr_drl_is_loaded(path.c_str()), 0);
    EXPECT_EQ(thr_drl_find_function(nullptr, "drl_test_of_program"), &drl_test_of_program);
}

// --- errors -------------------------------------------------------------------------------------

TEST(DrlErrors, ChangeUnderOneLockWhereALoadOrALookupFails)
{
    thr_drl_load("no/such");
    const std::string words = system_words(ERROR_PROC_NOT_FOUND) + "\r\n", before = errors(),
                      after = "Cannot find function none: " + words + "|none|" + words;
    std::string seen;
    auto look = [&](const Call &call) {
        seen += errors() + "\n";
        return call.go_on();
    };
    Gate lock("EnterCriticalSection", look), unlock("LeaveCriticalSection", look);
    EXPECT_EQ(thr_drl_find_function(nullptr, "none"), nullptr);
    EXPECT_EQ(thr_drl_is_loaded("none") + thr_drl_is_loadable("none"), 0);
    EXPECT_EQ(seen + errors(), before + "\n" + after + "\n" + after);
}

ROLE(fails)
{
    say(errors());
    thr_setenv("THR_DRL_DEBUG", "9"); // too late
    thr_drl_load("no_such_library");
    return 0;
}

TEST(DrlErrors, AreNoneAtFirstAndShownByTheSettingAtStartup)
{
    const std::string trace = "THR_DRL: " + system_words(ERROR_MOD_NOT_FOUND) + "\r";
    for (const std::string setting : {"1x9", "\xE9", "2"}) {
        SetEnvironmentVariableA("THR_DRL_DEBUG", setting.c_str());
        Child child("fails");
        EXPECT_EQ(child.read_line(), "||");
        EXPECT_EQ(child.read_line().value_or(""), setting == "2" ? trace : "") << setting;
    }
}

} // namespace
