#include "thr/thr_report.h"

#include "thr/thr.h"
#include "thr/thr_lock.h"

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include <windows.h>

namespace
{

const char SUB_SYSTEM[] = "THR";
const char OS_NAME[] = "Windows";
const char ADVICE[] = "Ensure all service packs and patches from Microsoft are installed";

struct ReportState {
    THR_REPORT_FUNC m_report_func;
    THR_DEBUG_FUNC m_debug_func;
    int m_fake_debug;
};

ReportState state;

const DWORD MESSAGE_SIZE = 32768;

// Reads the system's words for an error code. Wine refuses the full size, which would leave every
// report without them: then one unit less is asked for. Returns null when the system has none.
const char *system_message(DWORD code, char (&buffer)[MESSAGE_SIZE])
{
    for (DWORD size : {MESSAGE_SIZE, MESSAGE_SIZE - 1}) {
        DWORD length =
            FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0, buffer, size, nullptr);
        if (length >= 2) {
            buffer[length - 2] = '\0'; // the line break that ends every system message
            return buffer;
        }
    }
    return nullptr;
}

} // namespace

void thr_set_report_func(THR_REPORT_FUNC func)
{
    state.m_report_func = func;
}

void thr_set_debug_func(THR_DEBUG_FUNC func, int fake_debug)
{
    state.m_debug_func = func;
    state.m_fake_debug = state.m_fake_debug || fake_debug;
}

void thr_debug_break()
{
    DebugBreak();
}

void thr_win32_output_debug_string(const char *text)
{
    OutputDebugStringA(text);
}

void thr_report_internal_error(const char *message, const char *file, int line)
{
    THR_LOCK::let_all_go();
    if (THR_REPORT_FUNC report = state.m_report_func)
        report(message, SUB_SYSTEM, file, line);
    else
        fprintf(stderr, "Internal Error: Sub-system: %s, File: %s, Line: %d\n%s\n", SUB_SYSTEM,
                file, line, message);
    exit(-1);
}

void thr_report_win32_failure(const char *action, const char *api_text, const char *file, int line,
                              int is_warning)
{
    DWORD code = GetLastError();
    char buffer[MESSAGE_SIZE];
    const char *message = system_message(code, buffer);
    thr_report_os_failure(OS_NAME, ADVICE, api_text, static_cast<int>(code), message, action, file,
                          line, is_warning);
}

void thr_report_os_failure(const char *os_name, const char *advice, const char *api_text,
                           int os_code, const char *os_message, const char *action,
                           const char *file, int line, int is_warning)
{
    char report[32768];
    snprintf(report, sizeof report,
             "OS %s: %s could not %s\n"
             "\n"
             "Velkora requested that %s %s, but %s could not do so.\n"
             "Please report the full text of this message to Orvex so we can investigate its "
             "causes.\n"
             "In the meantime, you may wish to take the following steps to work around the "
             "problem:\n"
             "   * Disable parallel compilation if it is enabled\n"
             "   * Ensure you have sufficient memory to run Velkora.\n"
             "   * %s\n"
             "\n"
             "Technical details:\n"
             "   * API: %s\n"
             "   * OS code: %d (%s)\n",
             is_warning ? "Warning" : "Failure", os_name, action, os_name, action, os_name, advice,
             api_text, os_code, os_message ? os_message : "no additional information available");
    if (is_warning) {
        thr_debug_message("%sWarning location: %s:%d\n", report, file, line);
    } else if (THR_REPORT_FUNC hook = state.m_report_func) {
        hook(report, SUB_SYSTEM, file, line);
    } else {
        fprintf(stderr, "%s\nLocation: %s:%d\n", report, file, line);
        exit(-1);
    }
}

void *thr_check_win32_handle(void *handle, const char *action, const char *api_text,
                             const char *file, int line, int is_warning)
{
    if (!handle)
        thr_report_win32_failure(action, api_text, file, line, is_warning);
    return handle;
}

void thr_debug_message(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    if (THR_DEBUG_FUNC debug = state.m_debug_func) {
        debug(SUB_SYSTEM, format, args);
    } else if (state.m_fake_debug) {
        fprintf(stdout, "Fake Debug: %s: ", SUB_SYSTEM);
        vfprintf(stdout, format, args);
        fprintf(stdout, "\n");
    }
    va_end(args);
}
