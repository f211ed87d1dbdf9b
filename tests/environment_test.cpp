// Environment variables and the process-wide handlers.
#include "support/test.h"

#include <exception>
#include <new>

using namespace support;

namespace
{

TEST(Environment, IsSetAndPrependedToUpToTheSystemsLength)
{
    const std::string longest(32766, 'v'), too_long = longest + "v", rest = longest.substr(2);
    const std::tuple<decltype(&thr_setenv), const char *, int, std::string> steps[] = {
        {thr_prepend_env, longest.c_str(), 0, longest},
        {thr_setenv, too_long.c_str(), -1, longest},
        {thr_setenv, rest.c_str(), 0, rest},
        {thr_prepend_env, "VV", -1, rest},
        {thr_prepend_env, "W", 0, "W;" + rest},
        {thr_setenv, "X;Y", 0, "X;Y"},
        {thr_prepend_env, nullptr, -1, "X;Y"},
        {thr_prepend_env, "", 0, ";X;Y"},
        {thr_setenv, nullptr, 0, ""}};
    for (auto &[change, value, result, after] : steps) {
        EXPECT_EQ(change(longest.c_str(), value), result);
        EXPECT_STREQ(getenv(longest.c_str()), after.empty() ? nullptr : after.c_str());
        EXPECT_EQ(change("", "W") + change(too_long.c_str(), "W"), -2);
    }
    // In a code page of several bytes a letter the system counts letters.
    Gate conversion(
        "MultiByteToWideChar",
        +[](UINT, DWORD flags, char *text, int size, wchar_t *wide, int room) {
            return MultiByteToWideChar(CP_UTF8, flags, text, size, wide, room);
        });
    Gate set(Refusal{"_putenv", EVERY, 0, 0});
    EXPECT_EQ(thr_setenv("THR_LIST", (longest.substr(1) + "\xC3\xA4").c_str()), 0);
}

TEST(Environment, KeepsWhatTheCodePageCantSpell)
{
    // empty, and with letters that no one code page has together, after one of the process's
    const std::string letter = GetACP() == CP_UTF8 || IsDBCSLeadByte(0xE9) ? "v" : "\xE9";
    for (std::wstring list : {L"", L"C:\\\x416\x443\x43A\\bin;C:\\\x141\xF3\x64\x17A"}) {
        SetEnvironmentVariableW(L"THR_LIST", list.c_str());
        EXPECT_EQ(thr_prepend_env("THR_LIST", letter.c_str()), 0);
        EXPECT_EQ(std::wstring(_wgetenv(L"THR_LIST")).substr(1), L";" + list);
        EXPECT_EQ(std::string(getenv("THR_LIST"), 2), letter + ";");
    }
}

TEST(Environment, AndHandlersAreReadAndChangedUnderALock)
{
    std::string trace;
    auto tell = [&](const char *step) {
        return [&trace, step](const Call &call) {
            trace += step;
            return call.go_on();
        };
    };
    Gate lock("EnterCriticalSection", tell("(")), unlock("LeaveCriticalSection", tell(")")),
        read("GetEnvironmentVariableW", tell("read ")), set("_putenv", tell("set")),
        set_wide("_wputenv", tell("set")), set_new("_ZSt15set_new_handlerPFvvE", tell("new")),
        set_terminate("_ZSt13set_terminatePFvvE", tell("terminate"));
    EXPECT_TRUE(thr_setenv("THR_LIST", "X") == 0 && thr_prepend_env("THR_LIST", "W") == 0);
    thr_set_new_handler(std::terminate);
    thr_set_terminate_handler(std::terminate);
    EXPECT_EQ(trace, "(set)(read set)(new)(terminate)");
    for (THR_HANDLER handler : {std::get_new_handler(), std::get_terminate(),
                                thr_set_new_handler(nullptr), thr_set_terminate_handler(nullptr)})
        EXPECT_EQ(handler, &std::terminate);
    EXPECT_TRUE(!std::get_new_handler() && std::get_terminate() != std::terminate);
}

} // namespace
