// Environment variables and the process-wide handlers.

#include "support/test.h"

#include <exception>
#include <new>

namespace
{

const size_t LONGEST = 32766; // characters of a name and of a value

// What the system and the runtime have of a variable, empty for none.
std::wstring value_of(const std::wstring &name)
{
    std::wstring value(LONGEST + 1, L'\0');
    value.resize(GetEnvironmentVariableW(name.c_str(), value.data(), LONGEST + 1));
    const wchar_t *seen = _wgetenv(name.c_str());
    EXPECT_EQ(seen ? seen : L"", value);
    return value;
}

TEST(Environment, IsSetAndPrependedToUpToTheSystemsLength)
{
    const std::string longest(LONGEST, 'v'), too_long = longest + "v", rest = longest.substr(2);
    const std::tuple<decltype(&thr_setenv), const char *, int, std::string> steps[] = {
        {thr_setenv, nullptr, 0, ""},
        {thr_setenv, "X;Y", 0, "X;Y"},
        {thr_prepend_env, "W", 0, "W;X;Y"},
        {thr_prepend_env, nullptr, -1, "W;X;Y"},
        {thr_prepend_env, "", 0, ";W;X;Y"},
        {thr_setenv, "", 0, ""},
        {thr_prepend_env, longest.c_str(), 0, longest},
        {thr_setenv, too_long.c_str(), -1, longest},
        {thr_setenv, rest.c_str(), 0, rest},
        {thr_prepend_env, "VV", -1, rest},
        {thr_prepend_env, "W", 0, "W;" + rest},
        {thr_setenv, nullptr, 0, ""},
        {thr_setenv, longest.c_str(), 0, longest}};
    for (const std::string &name : {std::string("THR_LIST"), longest}) {
        for (auto &[change, value, result, after] : steps) {
            EXPECT_EQ(change(name.c_str(), value), result);
            EXPECT_EQ(value_of({name.begin(), name.end()}),
                      std::wstring(after.begin(), after.end()));
        }
    }
    for (auto *change : {thr_setenv, thr_prepend_env})
        EXPECT_EQ(change("", "W") + change(too_long.c_str(), "W"), -2);
    if (GetACP() == CP_UTF8 || IsDBCSLeadByte(0xE9))
        GTEST_SKIP() << "a letter of more than ASCII is more than a byte in this code page";
    // empty, and with letters that no one code page has together
    for (std::wstring list : {L"", L"C:\\\x416\x443\x43A\\bin;C:\\\x141\xF3\x64\x17A"}) {
        SetEnvironmentVariableW(L"THR_LIST", list.c_str());
        EXPECT_EQ(thr_prepend_env("THR_LIST", "\xE9"), 0);
        EXPECT_EQ(value_of(L"THR_LIST").substr(1), L";" + list);
        EXPECT_EQ(std::string(getenv("THR_LIST"), 2), "\xE9;");
    }
}

TEST(Environment, AndHandlersChangeOneCallAtATime)
{
    std::atomic<int> overlaps{0};
    auto slow = [&](std::atomic<int> &inside) {
        return [&](const support::Call &call) {
            overlaps += inside++;
            Sleep(1);
            intptr_t result = call.go_on();
            --inside;
            return result;
        };
    };
    std::atomic<int> setters{0}, handlers{0};
    support::Gate gates[] = {support::Gate("_putenv", slow(setters)),
                             support::Gate("_wputenv", slow(setters)),
                             support::Gate("_ZSt15set_new_handlerPFvvE", slow(handlers)),
                             support::Gate("_ZSt13set_terminatePFvvE", slow(handlers))};
    const THR_HANDLER one = THR_HANDLER(uintptr_t(1)), two = THR_HANDLER(uintptr_t(2));
    auto change_all = [=] {
        for (int i = 0; i < 20; ++i) {
            thr_prepend_env("THR_ADDITIONS", "x");
            thr_setenv("THR_OTHER", "y");
            thr_set_new_handler(one); // never called
            thr_set_terminate_handler(two);
        }
    };
    std::thread threads[] = {std::thread(change_all), std::thread(change_all)};
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(value_of(L"THR_ADDITIONS").size(), 2u * 20 * 2 - 1);
    EXPECT_TRUE(std::get_new_handler() == one && std::get_terminate() == two);
    EXPECT_TRUE(thr_set_new_handler(nullptr) == one && thr_set_terminate_handler(nullptr) == two);
}

} // namespace
