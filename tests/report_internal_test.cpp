// The reporting operations that every family calls and that are not exported.
#include "thr/thr.h"
#include "thr/thr_report.h"

#include "support/import_patch.h"
#include "support/recorders.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

void report(const char *action, const char *os_message, int is_warning)
{
    thr_report_os_failure("Os", "Take advice", "Call(x)", -7, os_message, action, "some/file.cpp",
                          21, is_warning);
}

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
        std::string os_message(whole - without_message, 'm');
        report("do it", os_message.c_str(), 0);
        std::string text = reports.take_messages().at(0);
        EXPECT_EQ(text.size(), 32767u);
        std::string end = whole == 32767 ? "mm)\n" : "mmm)";
        EXPECT_EQ(text.substr(text.size() - 4), end);
    }
}

// What the system gives for the full buffer size, and for one unit less.
std::string words_at_full_size, words_at_less;

DWORD WINAPI scripted_format_message(DWORD, LPCVOID, DWORD, DWORD, LPSTR buffer, DWORD size,
                                     va_list *)
{
    const std::string &words = size == 32768 ? words_at_full_size : words_at_less;
    memcpy(buffer, words.c_str(), words.size() + 1);
    SetLastError(ERROR_INVALID_PARAMETER);
    return static_cast<DWORD>(words.size());
}

TEST(Win32Failure, ShowsTheSystemsWordsWithoutTheirLineBreak)
{
    const struct {
        std::string full_size, less, shown;
    } cases[] = {{"Access denied.\r\n", "no", "Access denied."},
                 {"\r\n", "no", ""},
                 {"", "Access denied.\r\n", "Access denied."},
                 {"x", "", "no additional information available"}};
    ReportRecorder reports;
    ImportPatch patch("FormatMessageA", &scripted_format_message, GetModuleHandleA(nullptr));
    for (auto &c : cases) {
        words_at_full_size = c.full_size;
        words_at_less = c.less;
        SetLastError(0x80000005);
        thr_report_win32_failure("do it", "Call(x)", "f", 1, 0);
        std::string text = reports.take_messages().at(0);
        EXPECT_EQ(text.substr(text.rfind("OS")), "OS code: -2147483643 (" + c.shown + ")\n");
    }
}

TEST(Warning, GoesToTheDebugChannelAlone)
{
    ReportRecorder reports;
    report("pass unseen", nullptr, 1);
    DebugRecorder debug;
    report("do 100%s of it", "words", 1);
    std::string text = debug.take().at(0);
    EXPECT_EQ(text.substr(0, text.find('\n')), "OS Warning: Os could not do 100%s of it");
    EXPECT_EQ(text.substr(text.rfind('(')), "(words)\nWarning location: some/file.cpp:21\n");
    report(std::string(40000, 'a').c_str(), "words", 1);
    EXPECT_EQ(debug.take().at(0).substr(32767), "Warning location: some/file.cpp:21\n");
    EXPECT_TRUE(reports.take().empty());
}

TEST(Report, AllocatesNothing)
{
    static size_t reported_size = 0;
    RefusedMalloc heap(1, GetModuleHandleA(nullptr));
    thr_set_report_func([](const char *message, const char *, const char *, int) {
        reported_size = strlen(message);
    });
    thr_check_win32_handle(nullptr, "do it", "Call(x)", "f", 1, 0);
    thr_set_report_func(nullptr);
    EXPECT_GT(reported_size, 0u);
    EXPECT_FALSE(heap.happened());
}

} // namespace
