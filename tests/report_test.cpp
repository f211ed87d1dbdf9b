// The reporting frame, through the library's objects: most of it is not exported.
#include "support/test.h"

#include "thr/thr_lock.h"
#include "thr/thr_report.h"

#include <cstdio>
#include <cstdlib>

#include <io.h>

using namespace support;

namespace
{

void report(DWORD code, int is_warning)
{
    SetLastError(code);
    thr_check_win32_handle(nullptr, "do 50%s", "Call(x)", "some/file.cpp", 21, is_warning);
}

std::string failure(DWORD code, const std::string &words)
{
    const std::string text =
        "OS Failure: Windows could not do 50%s\n\n"
        "Velkora requested that Windows do 50%s, but Windows could not do so.\n"
        "Please report the full text of this message to Orvex so we can investigate its causes.\n"
        "In the meantime, you may wish to take the following steps to work around the problem:\n"
        "   * Disable parallel compilation if it is enabled\n"
        "   * Ensure you have sufficient memory to run Velkora.\n"
        "   * Ensure all service packs and patches from Microsoft are installed\n\n"
        "Technical details:\n   * API: Call(x)\n   * OS code: ";
    return (text + std::to_string(int(code)) + " (" + words + ")\n").substr(0, 32767);
}

// --- texts --------------------------------------------------------------------------------------

TEST(Report, HasTheSystemsWordsWithoutTheirLineBreakAsItsThreadGotThemAndIsCutAt32767Characters)
{
    const std::string longest(32765, 'm');
    // Of one error code after the other: what the system gives for the full buffer size, what for
    // one unit less, and what is shown.
    const std::vector<std::string> cases[] = {{"\r\n", "no", ""},
                                              {"x", "Access denied.\r\n", "Access denied."},
                                              {"", "x", "no additional information available"},
                                              {longest + "\r\n", "no", longest}};
    static const DWORD first_code = 0x80000000;
    static const auto let_another_report = [thread = GetCurrentThreadId()] {
        if (GetCurrentThreadId() == thread)
            std::thread(report, first_code, 0).join();
    };
    auto say_words = [&](const Call &call) {
        const bool is_second = call.arg<DWORD>(5) < 32768;
        const std::string &said = cases[call.arg<DWORD>(2) - first_code][is_second];
        const size_t length = said.copy(call.arg<char *>(4), said.size() + 1);
        let_another_report();
        SetLastError(ERROR_INVALID_PARAMETER);
        return length;
    };
    Gate gate("FormatMessageA", say_words);
    static thread_local std::string told;
    thr_set_report_func([](const char *message, auto...) {
        let_another_report();
        told += message;
    });
    auto print = [](const char *, const char *format, va_list args) {
        char text[65536];
        vsnprintf(text, sizeof text, format, args);
        told += text;
    };
    thr_set_debug_func(print, 0);
    for (DWORD code = first_code; code < first_code + std::size(cases); ++code) {
        report(code, 0);
        report(code, 1);
        const std::string text = failure(code, cases[code - first_code][2]);
        const std::string warning = "OS Warning" + text.substr(10);
        EXPECT_EQ(std::exchange(told, ""), text + warning + "Warning location: some/file.cpp:21\n");
    }
    thr_set_report_func(nullptr);
    thr_set_debug_func(nullptr, 0);
}

// --- hooks --------------------------------------------------------------------------------------

void end_by_report(bool is_internal)
{
    static THR_LOCK once, twice, of_another;
    for (THR_LOCK *lock : {&once, &twice, &twice, &twice})
        lock->lock();
    std::thread([] { of_another.lock(); }).join();
    static Gate released("LeaveCriticalSection");
    atexit([] { fputs("goodbye\n", stderr); });
    thr_set_report_func([](auto message, auto sub_system, auto file, int line) {
        fprintf(stderr, "%.10s %s %s:%d %ld\n", message, sub_system, file, line, released.calls());
    });
    report(ERROR_ACCESS_DENIED, 0);
    if (is_internal)
        thr_report_internal_error("broken", "a/file.cpp", 7);
    thr_set_report_func(nullptr);
    report(ERROR_ACCESS_DENIED, 0);
}

TEST(ReportDeathTest, WithoutAHookOrOfAnInternalErrorEndsTheProcessThroughExit)
{
    const auto ended = testing::ExitedWithCode(-1);
    const std::string returned = "OS Failure THR some/file.cpp:21 0\n";
    const std::string text = failure(ERROR_ACCESS_DENIED, system_words(ERROR_ACCESS_DENIED));
    EXPECT_EXIT(end_by_report(false), ended,
                "^" + literal_regex(returned + text + "\nLocation: some/file.cpp:21\ngoodbye\n"));
    // The thread's own locks were released, and no others.
    EXPECT_EXIT(end_by_report(true), ended,
                "^" + literal_regex(returned + "broken THR a/file.cpp:7 4\ngoodbye\n") + "$");
}

// --- debugging ----------------------------------------------------------------------------------

TEST(DebugDeathTest, GoesToTheHookElseToFakeDebugElseNowhereAndToTheDebugger)
{
    auto debug = [] {
        _dup2(2, 1); // standard error is what the test sees
        report(ERROR_ACCESS_DENIED, 1);
        auto *print = +[](const char *sub_system, const char *format, va_list args) {
            printf("hook: %s: ", sub_system);
            vprintf(format, args);
        };
        for (auto [hook, fake_debug] : {std::pair(print, 2), {nullptr, 0}}) {
            thr_set_debug_func(hook, fake_debug);
            thr_debug_message("%s %d;", "word", 7);
        }
        Gate text("OutputDebugStringA", puts), stop(Refusal{"DebugBreak", EVERY, 0, 0});
        thr_win32_output_debug_string("50%s");
        thr_debug_break();
        exit(stop.calls());
    };
    EXPECT_EXIT(debug(), testing::ExitedWithCode(1),
                "^hook: THR: word 7;Fake Debug: THR: word 7;\n50%s\n$");
}

} // namespace
