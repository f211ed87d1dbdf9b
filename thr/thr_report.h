// The reporting frame: every report of a refused call or a broken precondition goes through here.
// Nothing in it allocates.
#ifndef THR_THR_REPORT_H
#define THR_THR_REPORT_H

// Reports a broken precondition and ends the process, with or without a report hook.
[[noreturn]] void thr_report_internal_error(const char *message, const char *file, int line);

// Reports the calling thread's last OS error; call it right after the refused call. A failure
// returns only when a report hook is installed, a warning always does.
void thr_report_win32_failure(const char *action, const char *api_text, const char *file, int line,
                              int is_warning);

// The platform-neutral body of the above. `os_message` may be null.
void thr_report_os_failure(const char *os_name, const char *advice, const char *api_text,
                           int os_code, const char *os_message, const char *action,
                           const char *file, int line, int is_warning);

// Reports a null handle (and only null); returns the handle in every case.
void *thr_check_win32_handle(void *handle, const char *action, const char *api_text,
                             const char *file, int line, int is_warning);

// A printf for the debug channel: the debug hook, else fake debug, else nowhere.
void thr_debug_message(const char *format, ...);

// Checks. The text of a report is the source text of its condition or call, so each is a macro of
// one layer: a second layer would expand the constants in it.
#define THR_CHECK_AS(condition, text)                                                              \
    do {                                                                                           \
        if (!(condition))                                                                          \
            thr_report_internal_error(text, __FILE__, __LINE__);                                   \
    } while (0)

#define THR_CHECK(condition)                                                                       \
    do {                                                                                           \
        if (!(condition))                                                                          \
            thr_report_internal_error(#condition, __FILE__, __LINE__);                             \
    } while (0)

#define THR_CHECK_WIN32(action, call)                                                              \
    do {                                                                                           \
        if (!(call))                                                                               \
            thr_report_win32_failure(action, #call, __FILE__, __LINE__, 0);                        \
    } while (0)

#define THR_CHECK_WIN32_AS(action, call, text)                                                     \
    do {                                                                                           \
        if (!(call))                                                                               \
            thr_report_win32_failure(action, text, __FILE__, __LINE__, 0);                         \
    } while (0)

#define THR_WARN_WIN32(action, call)                                                               \
    do {                                                                                           \
        if (!(call))                                                                               \
            thr_report_win32_failure(action, #call, __FILE__, __LINE__, 1);                        \
    } while (0)

// For a call that gives a handle or null; the value is the handle.
#define THR_CHECK_HANDLE(action, call)                                                             \
    thr_check_win32_handle(call, action, #call, __FILE__, __LINE__, 0)

#endif
