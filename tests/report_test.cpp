// The reporting frame, through the library's objects: most of it is not exported.
#include "support/test.h"

#include "thr/thr_report.h"

#include <cstdio>
#include <cstdlib>

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

// Up to the system's words.
std::string head_of_failure(const std::string &os, const std::string &advice, int code)
{
    return "OS Failure: " + os + " could not do it\n\nVelkora requested that " + os +
           " do it, but " + os + " could not do so.\n" +
           "Please report the full text of this message to Orvex so we can investigate its "
           "causes.\n"
           "In the meantime, you may wish to take the following steps to work around the "
           "problem:\n"
           "   * Disable parallel compilation if it is enabled\n"
           "   * Ensure you have sufficient memory to run Velkora.\n"
           "   * " +
           advice +
           "\n\nTechnical details:\n   * API: Call(x)\n   * OS code: " + std::to_string(code) +
           " (";
}

std::string win32_failure(DWORD code)
{
    const std::string advice = "Ensure all service packs and patches from Microsoft are installed";
    return head_of_failure("Windows", advice, code) + system_words(code) + ")\n";
}

// --- texts --------------------------------------------------------------------------------------

TEST(OsFailureReport, HasItsValuesInTheirPlacesAndIsCutAt32767Characters)
{
    const std::string head = head_of_failure("Os", "Take advice", -7);
    const std::string longest(32765 - head.size(), 'm');
    Recorder reports;
    for (const std::string &words : {std::string("50%s full"), longest, longest + "m"})
        report("do it", words.c_str(), 0);
    report("do it", nullptr, 0);
    const std::vector<std::string> expected = {head + "50%s full)\n", head + longest + ")\n",
                                               head + longest + "m)",
                                               head + "no additional information available)\n"};
    EXPECT_EQ(reports.take(), expected);
}

TEST(Win32Failure, ShowsTheSystemsWordsWithoutTheirLineBreak)
{
    // What the system gives for the full buffer size, what for one unit less, and what is shown.
    const char *const cases[][3] = {{"Access denied.\r\n", "no", "Access denied."},
                                    {"\r\n", "no", ""},
                                    {"", "Access denied.\r\n", "Access denied."},
                                    {"x", "", "no additional information available"}};
    for (auto &words : cases) {
        Recorder reports;
        auto say_words = [&](const Call &call) {
            SetLastError(ERROR_INVALID_PARAMETER);
            const char *said = words[call.arg<DWORD>(5) < 32768];
            return static_cast<intptr_t>(strlen(strcpy(call.arg<char *>(4), said)));
        };
        Gate gate("FormatMessageA", say_words, OWN);
        report_with_code(0x80000005);
        const std::string text = reports.take().at(0), shown = words[2];
        EXPECT_EQ(text.substr(text.rfind("OS")), "OS code: -2147483643 (" + shown + ")\n");
    }
}

TEST(Warning, GoesToTheDebugChannelAlone)
{
    Recorder told;
    report("do 100%s of it", "words", 1);
    const std::string text = told.take().at(0);
    EXPECT_EQ(text.substr(0, text.find('\n')), "OS Warning: Os could not do 100%s of it");
    EXPECT_EQ(text.substr(text.rfind('(')), "(words)\nWarning location: some/file.cpp:21\n");
    report(std::string(40000, 'a').c_str(), "words", 1);
    EXPECT_EQ(told.take().at(0).substr(32767), "Warning location: some/file.cpp:21\n");
    thr_set_debug_func(nullptr, 0);
    report("pass unseen", nullptr, 1);
    EXPECT_TRUE(told.take().empty());
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
                "^" + literal_regex(win32_failure(ERROR_ACCESS_DENIED)) +
                    "\nLocation: some/file\\.cpp:21\ngoodbye\n$");
}

// Waits until so many threads are there, as long as the patience lasts.
bool is_reached(const std::atomic<int> &count, int wanted)
{
    const ULONGLONG deadline = GetTickCount64() + PATIENCE_MS;
    while (count < wanted && GetTickCount64() < deadline)
        Sleep(1);
    return count >= wanted;
}

std::atomic<int> makers;

// The directory lock is held when the library finds that a directory can't be entered.
void report_under_a_lock()
{
    Gate gate(Refusal{"SetCurrentDirectoryW", EVERY, FALSE, ERROR_ACCESS_DENIED}, OWN);
    thr_set_report_func([](auto...) {
        std::thread([] {
            (void)thr_ip_mutex_create("needs the lock");
            ++makers;
        }).detach();
        fputs(is_reached(makers, 1) ? "went on" : "still waits", stderr);
    });
    (void)thr_ip_mutex_create("./db");
}

TEST(ReportDeathTest, LetsGoOfTheLibrarysLocks)
{
    EXPECT_EXIT(report_under_a_lock(), testing::ExitedWithCode(-1), "^went on$");
}

thread_local DWORD code_of_thread;
std::atomic<int> own_reports;

// Two threads stand at once where each has the system's words, and then in the hook.
intptr_t meet(const Call &call)
{
    static std::atomic<int> threads;
    const intptr_t length = call.go_on();
    threads += length != 0;
    is_reached(threads, length != 0 ? 2 : 0);
    return length;
}

TEST(Report, GoesToTheHookAndReturnsOnThreadsAtOnceAndAllocatesNothing)
{
    Gate allocations("malloc", &Call::go_on, OWN), words("FormatMessageA", meet, OWN);
    thr_set_report_func([](const char *message, const char *, const char *, int) {
        static std::atomic<int> threads;
        ++threads;
        is_reached(threads, 2);
        own_reports += message == win32_failure(code_of_thread);
    });
    auto report_on_thread = [](DWORD code) { report_with_code(code_of_thread = code); };
    std::thread other(report_on_thread, ERROR_ACCESS_DENIED);
    report_on_thread(ERROR_ALREADY_EXISTS);
    other.join();
    thr_set_report_func(nullptr);
    EXPECT_EQ(own_reports, 2);
    EXPECT_EQ(allocations.calls(), 0);
}

void print_debug(const char *sub_system, const char *format, va_list args)
{
    printf("hook: %s: ", sub_system);
    vprintf(format, args);
}

void use_debug_channel()
{
    _dup2(2, 1); // standard error is what the test sees
    const struct {
        THR_DEBUG_FUNC hook;
        int fake_debug;
    } settings[] = {{nullptr, 0}, {print_debug, 0}, {nullptr, 2}, {nullptr, 0}, {print_debug, 0}};
    for (auto [hook, fake_debug] : settings) {
        thr_set_debug_func(hook, fake_debug);
        thr_debug_message("%s %d", "word", 7);
        puts(";");
    }
    exit(0);
}

TEST(DebugChannelDeathTest, GoesToTheHookElseToFakeDebugElseNowhere)
{
    EXPECT_EXIT(use_debug_channel(), testing::ExitedWithCode(0),
                "^;\nhook: THR: word 7;\nFake Debug: THR: word 7\n;\n"
                "Fake Debug: THR: word 7\n;\nhook: THR: word 7;\n$");
}

// --- the debugger -------------------------------------------------------------------------------

TEST(Debugger, IsToldAndStoppedIn)
{
    std::string told;
    Gate tell(
        "OutputDebugStringA", [&](const Call &call) { return told += call.arg<char *>(0), 0; },
        OWN);
    Gate stop(
        "DebugBreak", [&](const Call &) { return told += "stop", 0; }, OWN);
    thr_win32_output_debug_string("text ");
    thr_debug_break();
    EXPECT_EQ(told, "text stop");
}

} // namespace
