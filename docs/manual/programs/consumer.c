/* A user's program in C11, on thr/thr.h and the installed package alone. The marked parts are the
   manual's examples. */
#include "thr/thr.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <windows.h>

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "consumer.c:%d: %s\n", __LINE__, #condition);                          \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

static char program[MAX_PATH];

/* A command line that starts this program as a child. */
static char *self(const char *arguments)
{
    static char command[4 * MAX_PATH];
    snprintf(command, sizeof command, "\"%s\" %s", program, arguments);
    return command;
}

//! [reporting]
static void log_report(const char *message, const char *sub_system, const char *file, int line)
{
    printf("%s reports, at %s:%d: %s\n", sub_system, file, line, message);
    fflush(stdout); /* after an internal error the process ends when we return */
}

static void log_debug(const char *sub_system, const char *format, va_list args)
{
    printf("[%s] ", sub_system);
    vprintf(format, args);
    printf("\n");
}

static void install_hooks(void)
{
    thr_set_report_func(log_report); /* before other threads use the library */
    thr_set_debug_func(log_debug, 0);
}
//! [reporting]

//! [threads]
static THR_THREAD_WRAPPER next_wrapper; /* the library fills it */
static volatile LONG threads_seen;

/* Runs around the function of every thread: a place for what each of them needs. */
static void *count_threads(THR_THREAD_FUNC func, void *arg)
{
    InterlockedIncrement(&threads_seen);
    return next_wrapper(func, arg);
}

static void *square(void *number)
{
    intptr_t value = (intptr_t)number;
    return (void *)(value * value);
}

/* Once in the life of the process: a second time would be an internal error. */
static void prepare_threads(void)
{
    thr_thread_set_next_wrapper_func(count_threads, &next_wrapper);
}

static intptr_t square_on_a_thread(intptr_t number)
{
    THR_THREAD_ID thread = thr_thread_create(square, (void *)number, 0);
    return (intptr_t)thr_thread_wait(thread); /* and the id is gone */
}
//! [threads]

//! [thread_variables]
static THR_THREAD_VAR scratch; /* every thread has its own buffer in it */

/* First of all: until then the variable is a slot of somebody else's. */
static int prepare_scratch(void)
{
    return thr_thread_var_init(&scratch) == 0;
}

static char *scratch_buffer(void)
{
    char *buffer = thr_thread_var_get(&scratch);
    if (!buffer) {
        buffer = malloc(256);
        if (thr_thread_var_set(&scratch, buffer) != 0)
            abort();
    }
    return buffer; /* a thread frees its own before it ends: the library never does */
}
//! [thread_variables]

static void *use_scratch(void *main_buffer)
{
    int is_own = scratch_buffer() != main_buffer && scratch_buffer() == scratch_buffer();
    free(scratch_buffer());
    return (void *)(intptr_t)is_own;
}

//! [mutex]
typedef struct {
    THR_MUTEX mutex;
    int value; /* under the mutex */
} COUNTER;

static void *count_to_1000(void *counter)
{
    COUNTER *shared = counter;
    for (int i = 0; i < 1000; i++) {
        thr_mutex_lock(shared->mutex);
        shared->value++;
        thr_mutex_unlock(shared->mutex);
    }
    return NULL;
}

static int count_with_two_threads(void)
{
    COUNTER counter = {thr_mutex_create(), 0};
    THR_THREAD_ID other = thr_thread_create(count_to_1000, &counter, 0);
    count_to_1000(&counter);
    thr_thread_wait(other);
    thr_mutex_destroy(counter.mutex);
    return counter.value;
}
//! [mutex]

//! [event]
static void *post(void *event)
{
    thr_event_post(event);
    return NULL;
}

static int wait_for_another_thread(void)
{
    THR_EVENT ready = thr_event_create();
    THR_THREAD_ID other = thr_thread_create(post, ready, 0);
    thr_event_wait(ready, 10000);                /* at most ten seconds */
    int was_posted = thr_event_is_posted(ready); /* or was it the time? */
    thr_thread_wait(other);
    thr_event_destroy(ready);
    return was_posted;
}
//! [event]

//! [processes]
/* Sends a text through a child process, and gives back its exit code, or -1. All three streams are
   redirected: one that is left alone is whatever this process was started with. */
static int filter(char *command, const char *text, char *result, uint32_t size)
{
    void *from_child = NULL, *to_child = NULL, *job = NULL;
    void *child = thr_process_create_and_save_job(command, NULL, &from_child, &from_child,
                                                  &to_child, NULL, &job);
    thr_process_status status = {0, -1};
    if (size > 0)
        *result = '\0';
    if (child && to_child && from_child) {
        uint32_t length = 0, count = 0;
        thr_process_write(to_child, text, (uint32_t)strlen(text), NULL);
        thr_process_close_pipe(to_child); /* the end of the child's input */
        to_child = NULL;
        while (length + 1 < size &&
               thr_process_read(from_child, result + length, size - 1 - length, &count) == 0)
            result[length += count] = '\0'; /* until 109: the child has closed its output */
    }
    if (to_child)
        thr_process_close_pipe(to_child);
    if (from_child)
        thr_process_close_pipe(from_child);
    if (thr_process_wait(child, &status, 0) <= 0) /* closes the handle when the child has ended */
        thr_process_close_handle(child);
    thr_process_close_handle(job);
    return status.exit_code;
}
//! [processes]

//! [loading]
typedef int (*GETPID_FUNC)(void);

static int process_id_by_name(const char *library_name)
{
    void *library = thr_drl_load(library_name); /* the file's name without ".dll" */
    if (!library) {
        printf("%s", thr_drl_get_error()); /* at once, before anything else fails */
        return -1;
    }
    GETPID_FUNC getpid = (GETPID_FUNC)(uintptr_t)thr_drl_find_function(library, "thr_getpid");
    int id = getpid ? getpid() : -1;
    thr_drl_unload(library);
    return id;
}
//! [loading]

//! [environment]
static void prepare_environment_of_children(void)
{
    thr_setenv("CONSUMER_MODE", "batch");
    thr_setenv("CONSUMER_TRACE", NULL); /* removed */
    thr_prepend_env("CONSUMER_PATH", "C:\\tools");
}
//! [environment]

//! [interprocess]
/* Appends a line to a file that several processes write to. Its folder must exist. A lock can be
   refused for an instant, while its file is just being deleted: it is asked for again. */
static int append_line(const char *path, const char *line)
{
    THR_IP_MUTEX lock = thr_ip_mutex_create(path); /* makes path.mtx.flock its lock file */
    int done = 0, taken = 0;
    for (int tries = 0; tries < 50 && !taken; tries++)
        taken = thr_ip_mutex_lock(lock);
    if (taken) {
        FILE *file = fopen(path, "a");
        if (file) {
            done = fprintf(file, "%s\n", line) > 0;
            done = fclose(file) == 0 && done;
        }
        thr_ip_mutex_unlock(lock);
    }
    thr_ip_mutex_destroy(lock);
    return done;
}
//! [interprocess]

//! [pump]
/* Handles window messages until there are none left. Returns whether we were asked to stop: by the
   exit event, which shows when the pump takes a message, or by a quit message, which it leaves. */
static int handle_messages(void)
{
    MSG quit;
    int is_exit = thr_win32_pump_messages(0) == thr_win32_pump_exit_retcode;
    return is_exit || PeekMessageA(&quit, NULL, WM_QUIT, WM_QUIT, PM_REMOVE);
}
//! [pump]

static void check_reports(void)
{
    char output[1024];
    CHECK(filter(self("--break"), "", output, sizeof output) == -1);
    CHECK(strstr(output, "THR reports, at thr/thr_mutex.cpp:"));
    CHECK(strstr(output, ": mutex != 0\r\n"));
}

static void check_threads(void)
{
    prepare_threads();
    CHECK(square_on_a_thread(7) == 49);
    CHECK(threads_seen == 1);
    CHECK(count_with_two_threads() == 2000);
    CHECK(threads_seen == 2);
    CHECK(wait_for_another_thread() == 1);
    CHECK(thr_thread_self() == THR_THREAD_MAIN_ID);

    CHECK(prepare_scratch());
    THR_THREAD_ID other = thr_thread_create(use_scratch, scratch_buffer(), 0);
    CHECK(thr_thread_wait(other));
    free(scratch_buffer());
    CHECK(thr_thread_var_destroy(&scratch) == 0);
}

static void check_processes(void)
{
    char output[64];
    CHECK(filter(self("--upper"), "through a child", output, sizeof output) == 5);
    CHECK(strcmp(output, "THROUGH A CHILD") == 0);
    char missing[] = "no_such_program";
    CHECK(thr_run(missing) == -1);

    thr_sys_func outcome;
    thr_sys_func_waitpid_init(&outcome, 1, 2, 3);
    CHECK(thr_sys_func_get_wstat(&outcome) == 2 && thr_sys_func_get_errno(&outcome) == 3);

    putenv("CONSUMER_PATH=C:\\bin");
    prepare_environment_of_children();
    CHECK(thr_run(self("--environment")) == 0);
}

static void check_libraries(void)
{
    CHECK(process_id_by_name("thr") == thr_getpid());
    CHECK(process_id_by_name("no_such_library") == -1);
    CHECK(strncmp(thr_drl_get_error(), "Cannot load library ", 20) == 0);
    CHECK(strstr(thr_drl_get_error_data(), "no_such_library"));
}

static void check_interprocess(void)
{
    char folder[MAX_PATH], path[MAX_PATH + 16], arguments[MAX_PATH + 64], line[16] = "";
    CHECK(GetTempPathA(sizeof folder - 32, folder));
    snprintf(folder + strlen(folder), 32, "consumer-%d", thr_getpid());
    CHECK(CreateDirectoryA(folder, NULL));
    snprintf(path, sizeof path, "%s/db", folder);
    CHECK(append_line(path, "one"));
    CHECK(!append_line("no_such_folder/db", "one"));

    snprintf(arguments, sizeof arguments, "--try-lock \"%s\"", path);
    CHECK(thr_run(self(arguments)) == 1);
    THR_IP_MUTEX lock = thr_ip_mutex_create(path);
    CHECK(thr_ip_mutex_lock(lock));
    CHECK(thr_run(self(arguments)) == 0); /* another process does not get it */
    thr_ip_mutex_destroy(lock);

    FILE *file = fopen(path, "r");
    CHECK(file && fgets(line, sizeof line, file) && strcmp(line, "one\n") == 0);
    fclose(file);
    CHECK(DeleteFileA(path) && RemoveDirectoryA(folder)); /* no lock file is left */
}

static void check_pump(void)
{
    UINT message = thr_win32_get_registered_message("consumer_wakes_up");
    CHECK(message != 0 && handle_messages() == 0);
    thr_win32_post_pump_exit_event();
    CHECK(PostThreadMessageA(GetCurrentThreadId(), message, 0, 0));
    CHECK(handle_messages() == 1);
    thr_process_exit((thr_process_status){0, 0});
    CHECK(handle_messages() == 1 && handle_messages() == 0);
}

/* What the children of the checks do. */
static int run_child(const char *mode, const char *argument)
{
    if (strcmp(mode, "--break") == 0) {
        install_hooks();
        thr_mutex_lock(NULL);
    } else if (strcmp(mode, "--upper") == 0) {
        int character;
        while ((character = getchar()) != EOF)
            putchar(toupper(character));
        return 5;
    } else if (strcmp(mode, "--environment") == 0) {
        const char *setting = getenv("CONSUMER_MODE"), *path = getenv("CONSUMER_PATH");
        return !setting || strcmp(setting, "batch") != 0 || getenv("CONSUMER_TRACE") || !path ||
               strcmp(path, "C:\\tools;C:\\bin") != 0;
    } else if (strcmp(mode, "--try-lock") == 0) {
        THR_IP_MUTEX lock = thr_ip_mutex_create(argument);
        int taken = thr_ip_mutex_try_lock(lock);
        thr_ip_mutex_destroy(lock);
        return taken;
    }
    return 2;
}

int main(int argc, char **argv)
{
    if (argc > 1)
        return run_child(argv[1], argv[2]);
    CHECK(GetModuleFileNameA(NULL, program, sizeof program));
    check_reports();
    check_threads();
    check_processes();
    check_libraries();
    check_interprocess();
    check_pump();
    printf("consumer.c: all checks passed\n");
    return 0;
}
