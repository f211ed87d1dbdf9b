// The reporting operations that every family calls and that are not exported.
#include "thr/thr.h"
#include "thr/thr_report.h"

#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

const std::string REPORT_START = "OS Failure: Os could not ";

void report(const char *action, const char *os_message, int is_warning)
{
    thr_report_os_failure("Os", "Take advice", "Call(x)", -7, os_message, action, "some/file.cpp",
                          21, is_warning);
}

// --- the text -----------------------------------------------------------------------------------

TEST(OsFailureReport, HasItsValuesInTheirPlaces)
{
    ReportRecorder reports;
    report("do it", nullptr, 0);
    report("do it", "50%s full", 0);
    std::vector<Report> taken = reports.take();
    ASSERT_EQ(taken.size(), 2u);
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
    EXPECT_EQ(taken[0].message, head + "(no additional information available)\n");
    EXPECT_EQ(taken[0].sub_system, "THR");
    EXPECT_EQ(taken[0].file, "some/file.cpp");
    EXPECT_EQ(taken[0].line, 21);
    EXPECT_EQ(taken[1].message, head + "(50%s full)\n");
}

TEST(OsFailureReport, IsCutAt32767Characters)
{
    ReportRecorder reports;
    report("do it", "", 0);
    const size_t without_message = reports.take_messages().at(0).size();
    for (size_t whole : {32766, 32767, 32768, 40000}) {
        std::string os_message(whole - without_message, 'm');
        report("do it", os_message.c_str(), 0);
        std::string text = reports.take_messages().at(0);
        EXPECT_EQ(text.size(), whole < 32768 ? whole : 32767u);
        EXPECT_EQ(text.substr(0, REPORT_START.size()), REPORT_START);
        std::string end = whole < 32768 ? "mm)\n" : whole == 32768 ? "mmm)" : "mmmm";
        EXPECT_EQ(text.substr(text.size() - 4), end) << whole;
    }
}

// --- the system's words
// ---------------------------------------------------------------------------

// What the system gives for the full buffer size, and for one unit less.
std::string words_at_full_size, words_at_less;
std::vector<DWORD> asked_sizes;

DWORD WINAPI scripted_format_message(DWORD flags, LPCVOID source, DWORD, DWORD language,
                                     LPSTR buffer, DWORD size, va_list *args)
{
    EXPECT_EQ(flags, static_cast<DWORD>(FORMAT_MESSAGE_FROM_SYSTEM));
    EXPECT_TRUE(!source && !language && !args);
    asked_sizes.push_back(size);
    const std::string &words = size == 32768 ? words_at_full_size : words_at_less;
    memcpy(buffer, words.c_str(), words.size() + 1);
    SetLastError(ERROR_INVALID_PARAMETER);
    return static_cast<DWORD>(words.size());
}

TEST(Win32Failure, ShowsTheSystemsWordsWithoutTheirLineBreak)
{
    const struct {
        std::string full_size, less;
        std::vector<DWORD> asked_sizes;
        std::string shown;
    } cases[] = {{"Access denied.\r\n", "", {32768}, "Access denied."},
                 {"\r\n", "", {32768}, ""},
                 {"", "Access denied.\r\n", {32768, 32767}, "Access denied."},
                 {"x", "", {32768, 32767}, "no additional information available"},
                 {"", "", {32768, 32767}, "no additional information available"}};
    ReportRecorder reports;
    ImportPatch patch("FormatMessageA", &scripted_format_message, GetModuleHandleA(nullptr));
    for (auto &c : cases) {
        words_at_full_size = c.full_size;
        words_at_less = c.less;
        asked_sizes.clear();
        SetLastError(0x80000005);
        thr_report_win32_failure("do it", "Call(x)", "f", 1, 0);
        std::string text = reports.take_messages().at(0);
        std::string end = "   * OS code: -2147483643 (" + c.shown + ")\n";
        EXPECT_EQ(text.substr(text.size() - end.size()), end);
        EXPECT_EQ(asked_sizes, c.asked_sizes);
    }
}

TEST(Win32Failure, NamesThePlatformAndTheLastError)
{
    ReportRecorder reports;
    SetLastError(ERROR_ACCESS_DENIED);
    thr_report_win32_failure("do it", "Call(x)", "f", 1, 0);
    SetLastError(0xE0001234); // no text for that
    thr_report_win32_failure("do it", "Call(x)", "f", 1, 0);
    EXPECT_EQ(reports.take_messages(),
              (std::vector<std::string>{os_failure_text("do it", "Call(x)", ERROR_ACCESS_DENIED),
                                        os_failure_text("do it", "Call(x)", 0xE0001234)}));
}

// --- delivery -----------------------------------------------------------------------------------

TEST(Warning, GoesToTheDebugChannelAlone)
{
    ReportRecorder reports;
    report("pass unseen", nullptr, 1);
    DebugRecorder debug;
    report("do 100%s of it", "words", 1);
    std::string text = debug.take().at(0);
    EXPECT_EQ(text.substr(0, text.find('\n')), "OS Warning: Os could not do 100%s of it");
    const std::string end = "(words)\nWarning location: some/file.cpp:21\n";
    EXPECT_EQ(text.substr(text.size() - end.size()), end);

    report(std::string(40000, 'a').c_str(), "words", 1);
    text = debug.take().at(0);
    EXPECT_EQ(text.substr(32767), "Warning location: some/file.cpp:21\n");
    EXPECT_TRUE(reports.take().empty());
}

ROLE(fake_debug_warning)
{
    report("pass unseen", "words", 1);
    thr_set_debug_func(nullptr, 1);
    report("do it", "words", 1);
    thr_debug_message("%s %d", "trace", 7);
    return 0;
}

TEST(Warning, IsPrintedAsFakeDebug)
{
    Child child("fake_debug_warning");
    EXPECT_EQ(child.read_line(), "Fake Debug: THR: OS Warning: Os could not do it");
    for (int lines = 10; lines > 0; --lines)
        EXPECT_TRUE(child.read_line());
    EXPECT_EQ(child.read_line(), "   * OS code: -7 (words)");
    EXPECT_EQ(child.read_line(), "Warning location: some/file.cpp:21");
    EXPECT_EQ(child.read_line(), "");
    EXPECT_EQ(child.read_line(), "Fake Debug: THR: trace 7");
    EXPECT_EQ(child.read_line(), std::nullopt);
    EXPECT_EQ(child.wait(), 0);
}

TEST(HandleCheck, ReportsNullOnlyAndReturnsTheHandle)
{
    int object;
    ReportRecorder reports;
    DebugRecorder debug;
    for (void *handle : {static_cast<void *>(&object), INVALID_HANDLE_VALUE})
        EXPECT_EQ(thr_check_win32_handle(handle, "do it", "Call(x)", "f", 1, 0), handle);
    EXPECT_TRUE(reports.take().empty());
    SetLastError(ERROR_INVALID_NAME);
    EXPECT_EQ(thr_check_win32_handle(nullptr, "do it", "Call(x)", "f", 1, 0), nullptr);
    EXPECT_EQ(reports.take_messages(),
              std::vector<std::string>{os_failure_text("do it", "Call(x)", ERROR_INVALID_NAME)});
    EXPECT_TRUE(debug.take().empty());
    EXPECT_EQ(thr_check_win32_handle(nullptr, "do it", "Call(x)", "f", 1, 1), nullptr);
    EXPECT_TRUE(reports.take().empty());
    EXPECT_EQ(debug.take().size(), 1u);
}

TEST(ReportDeathTest, EndsTheProcess)
{
    EXPECT_EXIT(thr_report_internal_error("50%s broken", "some/file.cpp", 21),
                testing::ExitedWithCode(-1),
                "^Internal Error: Sub-system: THR, File: some/file\\.cpp, Line: 21\n"
                "50%s broken\n$");
    EXPECT_EXIT(report("do it", "50%s full", 0), testing::ExitedWithCode(-1),
                "\n   \\* OS code: -7 \\(50%s full\\)\n\nLocation: some/file\\.cpp:21\n$");
}

// --- storage ------------------------------------------------------------------------------------

size_t reported_size;

void measure_report(const char *message, const char *, const char *, int)
{
    reported_size = strlen(message);
}

TEST(Report, AllocatesNothing)
{
    HMODULE program = GetModuleHandleA(nullptr);
    RefusedMalloc heap(1, program);
    thr_set_report_func(measure_report);
    SetLastError(ERROR_ACCESS_DENIED);
    thr_report_win32_failure("do it", "Call(x)", "f", 1, 0);
    thr_set_report_func(nullptr);
    EXPECT_GT(reported_size, 0u);
    EXPECT_FALSE(heap.happened());
}

} // namespace
