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

TEST(OsFailureReport, HasItsValuesInTheirPlaces)
{
    ReportRecorder reports;
    report("do it", nullptr, 0);
    report("do it", "50%s full", 0);
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
        "   * OS code: -7 ";
    EXPECT_EQ(reports.take_messages(),
              (std::vector<std::string>{head + "(no additional information available)\n",
                                        head + "(50%s full)\n"}));
}

TEST(OsFailureReport, IsCutAt32767Characters)
{
    ReportRecorder reports;
    report("do it", "", 0);
    const size_t without_message = reports.take_messages().at(0).size();
    for (size_t whole : {32767, 32768}) {
        report("do it", std::string(whole - without_message, 'm').c_str(), 0);
        const std::string text = reports.take_messages().at(0);
        EXPECT_EQ(text.size(), 32767u);
        EXPECT_EQ(text.substr(32763), whole == 32767 ? "mm)\n" : "mmm)");
    }
}

// What the system gives for the full buffer size, and for one unit less.
std::string words_at_full_size, words_at_less;

DWORD scripted_format_message(DWORD, LPCVOID, DWORD, DWORD, LPSTR buffer, DWORD size)
{
    SetLastError(ERROR_INVALID_PARAMETER);
    strcpy(buffer, (size == 32768 ? words_at_full_size : words_at_less).c_str());
    return static_cast<DWORD>(strlen(buffer));
}

TEST(Win32Failure, ShowsTheSystemsWordsWithoutTheirLineBreak)
{
    const char *const cases[][3] = {{"Access denied.\r\n", "no", "Access denied."},
                                    {"\r\n", "no", ""},
                                    {"", "Access denied.\r\n", "Access denied."},
                                    {"x", "", "no additional information available"}};
    ReportRecorder reports;
    ImportPatch patch("FormatMessageA", &scripted_format_message, OWN);
    for (auto &[full_size, less, shown] : cases) {
        words_at_full_size = full_size;
        words_at_less = less;
        report_with_code(0x80000005);
        const std::string text = reports.take_messages().at(0);
        EXPECT_EQ(text.substr(text.rfind("OS")),
                  "OS code: -2147483643 (" + std::string(shown) + ")\n");
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

thread_local DWORD code_of_thread;
std::atomic<int> reports_in_hook, own_reports;

// Two threads stand in the hook at once before either looks at its report.
void compare_when_both_report(const char *message, const char *, const char *, int)
{
    ++reports_in_hook;
    for (int tries = 0; tries < 10000 && reports_in_hook < 2; ++tries)
        Sleep(1);
    own_reports += message == os_failure_text("do it", "Call(x)", code_of_thread);
}

TEST(Report, GoesToTheHookAndReturnsOnThreadsAtOnce)
{
    reports_in_hook = own_reports = 0;
    thr_set_report_func(compare_when_both_report);
    std::vector<std::thread> threads;
    for (DWORD code : {ERROR_ACCESS_DENIED, ERROR_ALREADY_EXISTS})
        threads.emplace_back([code] { report_with_code(code_of_thread = code); });
    for (std::thread &thread : threads)
        thread.join();
    thr_set_report_func(nullptr);
    EXPECT_EQ(own_reports, 2);
}

TEST(Report, AllocatesNothing)
{
    static bool is_reported;
    RefusedMalloc heap(1, OWN);
    thr_set_report_func([](auto...) { is_reported = true; });
    thr_check_win32_handle(nullptr, "do it", "Call(x)", "f", 1, 0);
    thr_set_report_func(nullptr);
    EXPECT_TRUE(is_reported);
    EXPECT_FALSE(heap.happened());
}

void print_debug(const char *sub_system, const char *format, va_list args)
{
    printf("hook: %s: ", sub_system);
    vprintf(format, args);
    printf("\n");
}

ROLE(debug_channel)
{
    const struct {
        THR_DEBUG_FUNC hook;
        int fake_debug;
    } steps[] = {{nullptr, 0}, {print_debug, 0}, {nullptr, 2}, {nullptr, 0}, {print_debug, 0}};
    for (auto &step : steps) {
        thr_set_debug_func(step.hook, step.fake_debug);
        thr_debug_message("%s %d", "word", 7);
        say("done");
    }
    return 0;
}

TEST(DebugChannel, GoesToTheHookElseToFakeDebugElseNowhere)
{
    Child child("debug_channel");
    for (const char *line : {"done", "hook: THR: word 7", "done", "Fake Debug: THR: word 7", "done",
                             "Fake Debug: THR: word 7", "done", "hook: THR: word 7", "done"})
        EXPECT_EQ(child.read_line(), line);
    EXPECT_EQ(child.wait(), 0);
}

// --- the debugger -------------------------------------------------------------------------------

std::string told_debugger;

TEST(Debugger, IsToldAndStoppedIn)
{
    ImportPatch tell(
        "OutputDebugStringA", +[](const char *text) { told_debugger += text; }, OWN);
    ImportPatch stop(
        "DebugBreak", +[] { told_debugger += "stop"; }, OWN);
    thr_win32_output_debug_string("text ");
    thr_debug_break();
    EXPECT_EQ(told_debugger, "text stop");
}

} // namespace
