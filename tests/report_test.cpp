// The reporting frame, through the library's objects: most of it is not exported.
#include "thr/thr.h"
#include "thr/thr_report.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <io.h>

using namespace support;

namespace
{

const HMODULE OWN = GetModuleHandleA(nullptr);

void report(const char *action, const char *os_message, int is_warning)
{
    thr_report_os_failure("Os", "Take advice", "Call(x)", -7, os_message, action, "some/file.cpp",
                          21, is_warning);
}

void report_with_code(DWORD code)
{
    SetLastError(code);
    thr_report_win32_failure("do it", "Call(x)", "some/file.cpp", 21, 0);
}

// --- texts --------------------------------------------------------------------------------------

TEST(OsFailureReport, HasItsValuesInTheirPlacesAndIsCutAt32767Characters)
{
    const std::string head =
        "OS Failure: Os could not do it\n\n"
        "Velkora requested that Os do it, but Os could not do so.\n"
        "Please report the full text of this message to Orvex so we can investigate its causes.\n"
        "In the meantime, you may wish to take the following steps to work around the problem:\n"
        "   * Disable parallel compilation if it is enabled\n"
        "   * Ensure you have sufficient memory to run Velkora.\n"
        "   * Take advice\n\n"
        "Technical details:\n"
        "   * API: Call(x)\n"
        "   * OS code: -7 (";
    const std::string longest(32765 - head.size(), 'm');
    ReportRecorder reports;
    for (const std::string &words : {std::string("50%s full"), longest, longest + "m"})
        report("do it", words.c_str(), 0);
    report("do it", nullptr, 0);
    const std::vector<std::string> expected = {head + "50%s full)\n", head + longest + ")\n",
                                               head + longest + "m)",
                                               head + "no additional information available)\n"};
    EXPECT_EQ(reports.take_messages(), expected);
}

// What the system gives for the full buffer size, what for one unit less, and what is shown.
using Words = const char *[3];
const Words *scripted;

DWORD scripted_format_message(DWORD, LPCVOID, DWORD, DWORD, LPSTR buffer, DWORD size)
{
    SetLastError(ERROR_INVALID_PARAMETER);
    return static_cast<DWORD>(strlen(strcpy(buffer, (*scripted)[size < 32768])));
}

TEST(Win32Failure, ShowsTheSystemsWordsWithoutTheirLineBreak)
{
    const Words cases[] = {{"Access denied.\r\n", "no", "Access denied."},
                           {"\r\n", "no", ""},
                           {"", "Access denied.\r\n", "Access denied."},
                           {"x", "", "no additional information available"}};
    ReportRecorder reports;
    ImportPatch patch("FormatMessageA", &scripted_format_message, OWN);
    for (const Words &words : cases) {
        scripted = &words;
        report_with_code(0x80000005);
        const std::string text = reports.take_messages().at(0), shown = words[2];
        EXPECT_EQ(text.substr(text.rfind("OS")), "OS code: -2147483643 (" + shown + ")\n");
    }
}

TEST(Warning, GoesToTheDebugChannelAlone)
{
    ReportRecorder reports;
    report("pass unseen", nullptr, 1);
    DebugRecorder debug;
    report("do 100%s of it", "words", 1);
    const std::string text = debug.take().at(0);
    EXPECT_EQ(text.substr(0, text.find('\n')), "OS Warning: Os could not do 100%s of it");
    EXPECT_EQ(text.substr(text.rfind('(')), "(words)\nWarning location: some/file.cpp:21\n");
    report(std::string(40000, 'a').c_str(), "words", 1);
    EXPECT_EQ(debug.take().at(0).substr(32767), "Warning location: some/file.cpp:21\n");
    EXPECT_TRUE(reports.take().empty());
}

// --- hooks --------------------------------------------------------------------------------------

TEST(ReportDeathTest, WithoutAHookIsPrintedAndEndsTheProcessThroughExit)
{
    auto report_after_a_hook = [] {
        atexit([] { fputs("goodbye\n", stderr); });
        thr_set_report_func([](auto...) { fputs("hook\n", stderr); });
        thr_set_report_func(nullptr);
        report_with_code(ERROR_ACCESS_DENIED);
    };
    EXPECT_EXIT(report_after_a_hook(), testing::ExitedWithCode(-1),
                "^" + literal_regex(os_failure_text("do it", "Call(x)", ERROR_ACCESS_DENIED)) +
                    "\nLocation: some/file\\.cpp:21\ngoodbye\n$");
}

std::atomic<bool> has_gone_on;

// The directory lock is held when the library finds that a directory can't be entered.
void report_under_a_lock()
{
    ImportPatch patch(
        "SetCurrentDirectoryW", +[](const wchar_t *) { return FALSE; }, OWN);
    thr_set_report_func([](auto...) {
        std::thread([] {
            (void)thr_ip_mutex_create("needs the lock");
            has_gone_on = true;
        }).detach();
        for (DWORD ms = 0; ms < PATIENCE_MS && !has_gone_on; ++ms)
            Sleep(1);
        fputs(has_gone_on ? "went on" : "still waits", stderr);
    });
    (void)thr_ip_mutex_create("./db");
}

TEST(ReportDeathTest, LetsGoOfTheLibrarysLocks)
{
    EXPECT_EXIT(report_under_a_lock(), testing::ExitedWithCode(-1), "^went on$");
}

thread_local DWORD code_of_thread;
std::atomic<int> reports_in_hook, own_reports;

// Two threads stand in the hook at once before either looks at its report.
void compare_when_both_report(const char *message, const char *, const char *, int)
{
    ++reports_in_hook;
    for (DWORD ms = 0; ms < PATIENCE_MS && reports_in_hook < 2; ++ms)
        Sleep(1);
    own_reports += message == os_failure_text("do it", "Call(x)", code_of_thread);
}

TEST(Report, GoesToTheHookAndReturnsOnThreadsAtOnceAndAllocatesNothing)
{
    RefusedMalloc heap(1, OWN);
    thr_set_report_func(compare_when_both_report);
    auto report_on_thread = [](DWORD code) { report_with_code(code_of_thread = code); };
    std::thread other(report_on_thread, ERROR_ACCESS_DENIED);
    report_on_thread(ERROR_ALREADY_EXISTS);
    other.join();
    thr_set_report_func(nullptr);
    EXPECT_EQ(own_reports, 2);
    EXPECT_EQ(heap.calls(), 0);
}

void print_debug(const char *sub_system, const char *format, va_list args)
{
    printf("hook: %s: ", sub_system);
    vprintf(format, args);
}

void send_through(THR_DEBUG_FUNC hook, int fake_debug)
{
    thr_set_debug_func(hook, fake_debug);
    thr_debug_message("%s %d", "word", 7);
    puts(";");
}

void use_debug_channel()
{
    _dup2(2, 1); // standard error is what the test sees
    send_through(nullptr, 0);
    send_through(print_debug, 0);
    send_through(nullptr, 2);
    send_through(nullptr, 0);
    send_through(print_debug, 0);
    exit(0);
}

TEST(DebugChannelDeathTest, GoesToTheHookElseToFakeDebugElseNowhere)
{
    EXPECT_EXIT(use_debug_channel(), testing::ExitedWithCode(0),
                "^;\nhook: THR: word 7;\nFake Debug: THR: word 7\n;\n"
                "Fake Debug: THR: word 7\n;\nhook: THR: word 7;\n$");
}

// --- the debugger -------------------------------------------------------------------------------

std::string told_debugger;

TEST(Debugger, IsToldAndStoppedIn)
{
    auto tell = +[](const char *text) { told_debugger += text; };
    auto stop = +[] { told_debugger += "stop"; };
    ImportPatch patches[] = {{"OutputDebugStringA", tell, OWN}, {"DebugBreak", stop, OWN}};
    thr_win32_output_debug_string("text ");
    thr_debug_break();
    EXPECT_EQ(told_debugger, "text stop");
}

} // namespace
