/**
 * @file thr/thr.h
 * The plain functions, variables and records of thr, the thread, synchronisation and process
 * library of the Velkora tool suite. C11 and C++17; does not include <windows.h>: operating-system
 * handles are `void *`, and null means none unless a function says otherwise.
 *
 * Two kinds of report reach a host (see thr_set_report_func()):
 * - an *internal error*, a broken precondition, ends the process with exit status -1;
 * - an *OS failure*, a call that the operating system refused, ends the process the same way only
 *   when no report hook is installed. With a hook the report returns, and the function goes on as
 *   its description says.
 *
 * Unless a function says otherwise it may be called from any thread, texts are NUL-terminated and
 * in the process's ANSI code page, and a text or record that is handed out belongs to the caller.
 * Null for an argument is an internal error with the condition as its text where a function has no
 * use for it. GetLastError() and errno tell nothing after a call. Nothing may be called after the
 * library's shutdown. The manual's page of limits tells what cannot be relied on.
 */
#ifndef THR_THR_H
#define THR_THR_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/** @def THR_API
 *  What the DLL exports is declared with it. */
#ifdef THR_BUILDING
#define THR_API __declspec(dllexport)
#else
#define THR_API __declspec(dllimport)
#endif

/** @def THR_CALL
 *  The calling convention of the functions and of what they call. A host that is compiled with
 *  another default gives its hooks and callbacks this one: `void THR_CALL report(...)`. */
#define THR_CALL __cdecl

/** @def THR_NORETURN
 *  A function that does not return to its caller. */
/** @def THR_NODISCARD
 *  A function whose result must not be lost: compilers warn where it is. */
#ifdef __cplusplus
#define THR_NORETURN [[noreturn]]
#define THR_NODISCARD [[nodiscard]]
extern "C" {
#else
#define THR_NORETURN _Noreturn
#if defined(__GNUC__) || defined(__clang__)
#define THR_NODISCARD __attribute__((warn_unused_result))
#else
#define THR_NODISCARD
#endif
#endif

/** @defgroup reporting Reporting and debugging
 *  How a host learns of refused calls, broken preconditions and traces.
 *  @{ */

/** Receives reports. It may be called from any thread, and several times at once. As every hook and
 *  registered function here it must not throw, jump out or end its thread. It may use the library
 *  and wait for other threads: no lock of the library is held meanwhile (but a read-write semaphore
 *  whose event was refused).
 *  @param message    the report: for an internal error the broken condition alone, for an OS
 *                    failure the whole text; valid only during the call
 *  @param sub_system always "THR"
 *  @param file       the library's source file that reports, such as "thr/thr_event.cpp"
 *  @param line       the line in that file */
typedef void(THR_CALL *THR_REPORT_FUNC)(const char *message, const char *sub_system,
                                        const char *file, int line);

/** Receives debug messages. It may be called from any thread, and several times at once.
 *  @param sub_system always "THR"
 *  @param format     a printf format
 *  @param args       its arguments, for vprintf() and its like */
typedef void(THR_CALL *THR_DEBUG_FUNC)(const char *sub_system, const char *format, va_list args);

/** Installs the report hook, in place of the one before; null removes it.
 *
 *  Without a hook a report is written to standard error and the process ends with exit status -1.
 *  With a hook an internal error still ends the process as soon as the hook returns; after an OS
 *  failure the operation carries on. The process ends by exit() of the runtime that the library
 *  uses (msvcrt, or UCRT), on the thread that failed: that runtime's atexit functions and
 *  destructors run there while other threads still run. A host with another runtime does its last
 *  work in the hook. A program without a console ends silently unless it installs one. Install
 *  hooks before other threads use the library. */
THR_API void THR_CALL thr_set_report_func(THR_REPORT_FUNC func);

/** Installs the debug hook, in place of the one before; null removes it.
 *  @param func       receives every debug message, warnings included
 *  @param fake_debug non-zero: as long as no hook is installed, print debug messages to standard
 *                    output. Once set, this stays set for the life of the process. */
THR_API void THR_CALL thr_set_debug_func(THR_DEBUG_FUNC func, int fake_debug);

/** Executes a breakpoint instruction, for a debugger that is attached. Without a debugger the
 *  process ends with the platform's breakpoint exception. */
THR_API void THR_CALL thr_debug_break(void);

/** Passes a text to the debugger's output window (OutputDebugStringA), unchanged. */
THR_API void THR_CALL thr_win32_output_debug_string(const char *text);

/** @} */

/** @defgroup threads Threads
 *  Threads are run through the chain of wrappers that the host has registered. Each is represented
 *  by a record of the library, its id: the caller of thr_thread_create() owns it and gives it up
 *  exactly once, by thr_thread_wait(), thr_thread_detach() or
 *  thr_thread_terminate_and_possibly_crash(). A null id given to one of these is the internal error
 *  "thread_id". THR_THREAD_MAIN_ID is not for them.
 *  @{ */

/** A thread's id. */
typedef struct THR_THREAD_RECORD *THR_THREAD_ID;

/** What a thread runs; the result is its exit value. It must not throw. */
typedef void *(THR_CALL *THR_THREAD_FUNC)(void *arg);

/** Does its work around a call of the link in its own next slot, with the same function and
 *  argument, and returns what that call returns. */
typedef void *(THR_CALL *THR_THREAD_WRAPPER)(THR_THREAD_FUNC func, void *arg);

/** The id of the thread that loaded the library; null after the library's shutdown. */
extern THR_API THR_THREAD_ID THR_THREAD_MAIN_ID;

/** Starts a thread.
 *  @param func       what it runs; not null (internal error "func")
 *  @param arg        its argument
 *  @param stack_size in bytes; 0: the platform's default. A thread that may report a refused call,
 *                    or that changes the environment, needs 64 KiB more than its own work. A size
 *                    below that of the program's header does not make the reserved stack smaller.
 *  @return its id, never null: a failed allocation is the internal error "info". A refused start is
 *          the OS failure "create a thread"; with a report hook an id comes back all the same, of a
 *          thread that never runs. A thread whose start finds no room for its own id ends the
 *          process by an internal error. */
THR_NODISCARD THR_API THR_THREAD_ID THR_CALL thr_thread_create(THR_THREAD_FUNC func, void *arg,
                                                               uint32_t stack_size);

/** Waits, without limit, for a thread to end, and releases its id. Waiting for oneself is the
 *  internal error "thread_id != thr_thread_self()". Refused calls are the OS failure "shut down a
 *  thread".
 *  @return its exit value: what its function returned or it gave to thr_thread_exit(); null for a
 *          thread that never ran, and after a refused wait for one that has not finished */
THR_API void *THR_CALL thr_thread_wait(THR_THREAD_ID thread_id);

/** Gives the id up; the thread goes on and its record is released when both have happened. A thread
 *  may detach itself, also before its creator has got the id, which must then not be used. A
 *  refused close is the OS failure "detach a thread". */
THR_API void THR_CALL thr_thread_detach(THR_THREAD_ID thread_id);

/** Stops a thread where it stands and gives its id up. Nothing of it is unwound: locks that it
 *  holds stay held, its wrappers do not complete, and its record stays allocated unless it had
 *  finished before. Refused calls are the OS failure "terminate a thread". */
THR_API void THR_CALL thr_thread_terminate_and_possibly_crash(THR_THREAD_ID thread_id);

/** Ends the calling thread, which must be one of thr_thread_create() (on any other: an internal
 *  error), with an exit value. Its
 *  wrappers do not complete, and C++ objects on its stack are not destroyed. */
THR_NORETURN THR_API void THR_CALL thr_thread_exit(void *exit_value);

/** @return 1 while the thread's function has not finished, else 0; 0 for a thread that could not be
 *          started. Only while the id is owned. */
THR_API int THR_CALL thr_thread_is_running(THR_THREAD_ID thread_id);

/** @return the calling thread's id, which stays its owner's; THR_THREAD_MAIN_ID on the thread that
 *          loaded the library; null on any other thread that is not of thr_thread_create(), and
 *          once the thread's function is done (in destructors of its thread_local objects) */
THR_API THR_THREAD_ID THR_CALL thr_thread_self(void);

/** Appends a wrapper to the chain, for threads that start from now on; there is no removal:
 *  register once. The first one registered is the outermost. Must not overlap another registration;
 *  other threads may run the chain meanwhile.
 *  @param wrapper_func          the wrapper
 *  @param next_wrapper_func_ptr its next slot, null in it (internal error
 *                               "*next_wrapper_func_ptr == 0"); lives as long as the library, which
 *                               fills it with the next link */
THR_API void THR_CALL thr_thread_set_next_wrapper_func(THR_THREAD_WRAPPER wrapper_func,
                                                       THR_THREAD_WRAPPER *next_wrapper_func_ptr);

/** Runs a function through the chain of wrappers on the calling thread.
 *  @return what the chain returns */
THR_API void *THR_CALL thr_thread_wrapper(THR_THREAD_FUNC func, void *arg);

/** Has no effect; thr_thread_create() takes the stack size. */
THR_API void THR_CALL thr_thread_set_stack_size(uint32_t stack_size);

/** @} */

/** @defgroup thread_variables Thread variables, time, affinity
 *  @{ */

/** Storage of one thread variable: the operating system's slot index. Owned by the caller. Zero is
 *  a slot of somebody else's: thr_thread_var_init() it before anything else. */
typedef uint32_t THR_THREAD_VAR;

/** Allocates the slot of a thread variable. Every thread reads null until it sets its own value.
 *  @return 0, or the OS error code, which is also traced on the debug channel */
THR_API int THR_CALL thr_thread_var_init(THR_THREAD_VAR *var);

/** Frees the slot. No thread may use the variable any more.
 *  @return 0, or the OS error code */
THR_API int THR_CALL thr_thread_var_destroy(THR_THREAD_VAR *var);

/** Checks nothing: `var` must be an initialised variable.
 *  @return the calling thread's value; null if it never set one */
THR_API void *THR_CALL thr_thread_var_get(const THR_THREAD_VAR *var);

/** Sets the calling thread's value. The library never frees it. Checks nothing: `var` must be an
 *  initialised variable.
 *  @return 0, or the OS error code */
THR_API int THR_CALL thr_thread_var_set(const THR_THREAD_VAR *var, void *value);

/** Sleeps.
 *  @param seconds at most 4294967 (the milliseconds are computed in 32 bits); 0 gives up the rest
 *                 of the time slice */
THR_API void THR_CALL thr_sleep(uint32_t seconds);

/** Sleeps.
 *  @param milliseconds 0 gives up the rest of the time slice; 4294967295 never returns */
THR_API void THR_CALL thr_msleep(uint32_t milliseconds);

/** @return milliseconds since the system started; wraps to 0 after about 49.7 days */
THR_API uint32_t THR_CALL thr_get_tick_count(void);

/** @return the process's affinity mask, a bit for each logical processor; 0 when the system
 *          refused and the OS failure report ("set the process' CPU affinity mask") returned, and
 *          in a process that runs on several processor groups */
THR_API uintptr_t THR_CALL thr_get_cpu_affinity_mask(void);

/** Restricts the calling thread to the given processors.
 *  @param affinity_mask a bit for each logical processor; bits of processors that the process may
 *                       not use are dropped. If none is left: internal error "affinity_mask != 0".
 *  A refused call is the OS failure "set the thread's CPU affinity mask"; the process's mask is
 *  asked for first, as thr_get_cpu_affinity_mask() does. */
THR_API void THR_CALL thr_set_thread_affinity_mask(uintptr_t affinity_mask);

/** Names the calling thread for an attached debugger, by the exception 0x406D1388, which the host's
 *  own vectored handlers see too. Without a debugger it does nothing.
 *  @param name read only during the call */
THR_API void THR_CALL thr_rename_thread(const char *name);

/** @return the id of the calling process */
THR_API int THR_CALL thr_getpid(void);

/** @} */

/** @defgroup mutex Mutex
 *  A recursive lock for the threads of one process. A null mutex is the internal error
 *  "mutex != 0" in every function.
 *  @{ */

/** A mutex, made by thr_mutex_create() and released by thr_mutex_destroy() alone. */
typedef struct THR_MUTEX_RECORD *THR_MUTEX;

/** Creates an unlocked mutex.
 *  @return never null: a failed allocation is the internal error "mutex" */
THR_NODISCARD THR_API THR_MUTEX THR_CALL thr_mutex_create(void);

/** Releases a mutex that no thread owns or waits for. */
THR_API void THR_CALL thr_mutex_destroy(THR_MUTEX mutex);

/** Locks the mutex; waits without limit. The owner may lock it again, and unlocks it as often. */
THR_API void THR_CALL thr_mutex_lock(THR_MUTEX mutex);

/** Locks the mutex if that needs no waiting.
 *  @return 1 when it is locked (also again, by its owner), 0 while another thread owns it */
THR_NODISCARD THR_API int THR_CALL thr_mutex_try_lock(THR_MUTEX mutex);

/** Undoes one lock; only for the thread that owns the mutex. */
THR_API void THR_CALL thr_mutex_unlock(THR_MUTEX mutex);

/** @} */

/** @defgroup event Event
 *  A manual-reset signal for the threads of one process. A null event is the internal error
 *  "event != 0" in every function.
 *  @{ */

/** An event, made by thr_event_create() and released by thr_event_destroy() alone. */
typedef struct THR_EVENT_RECORD *THR_EVENT;

/** Creates an event that is not posted.
 *  @return never null: a failed allocation is the internal error "event"; a refused event is the OS
 *          failure "create an event", after which nothing works on the record but its release */
THR_NODISCARD THR_API THR_EVENT THR_CALL thr_event_create(void);

/** Releases an event that no thread waits for. A refused close is only a warning. */
THR_API void THR_CALL thr_event_destroy(THR_EVENT event);

/** Posts: every waiter, and every wait until the next reset, goes on. OS failure "set an event". */
THR_API void THR_CALL thr_event_post(THR_EVENT event);

/** Releases the threads that wait at this moment and leaves the event not posted. The platform may
 *  miss a waiter that is just then away from its wait: prefer post and reset. OS failure "set an
 *  event". */
THR_API void THR_CALL thr_event_pulse(THR_EVENT event);

/** Takes a post back. OS failure "reset an event". */
THR_API void THR_CALL thr_event_reset(THR_EVENT event);

/** @return 1 when posted, else 0 (also when the system refuses to tell) */
THR_API int THR_CALL thr_event_is_posted(THR_EVENT event);

/** Waits until the event is posted or the time is over. OS failure "wait for an event".
 *  @param timeout in milliseconds; 0 and 4294967295 mean no limit
 *  @return always 1: ask thr_event_is_posted() which it was */
THR_API int THR_CALL thr_event_wait(THR_EVENT event, uint32_t timeout);

/** @} */

/** @defgroup rw_sem Read-write semaphore
 *  Many readers or one writer, threads of one process, writers first: from the moment a writer
 *  asks, no new reader gets in. A null semaphore is always available: locks and unlocks do nothing
 *  and the try-locks return 1.
 *
 *  A write lock is undone by the thread that made it, and may be made again by that thread. A
 *  thread must not ask for the write lock while it reads, nor for the read lock while it writes,
 *  nor for a second read lock: each may wait for itself. The try-lock does not count as "again": it
 *  is 0 for the writer, too.
 *  @{ */

/** A read-write semaphore, made by thr_rw_sem_create(). */
typedef struct THR_RW_SEM_RECORD *THR_RW_SEM;

/** Creates a free semaphore.
 *  @return never null: a failed allocation is the internal error "new_sem", "mutex" or "event". A
 *          refused event is the OS failure "create an event"; with a report hook the semaphore then
 *          spins where it would wait, and reports there and at the locks and unlocks of a first or
 *          last holder. */
THR_NODISCARD THR_API THR_RW_SEM THR_CALL thr_rw_sem_create(void);

/** Releases what the semaphore is made of, but not its record: the caller then gives that to
 *  free() of the runtime that the library uses (msvcrt, or UCRT). No thread may be inside any of
 *  its functions, a returning unlock included. */
THR_API void THR_CALL thr_rw_sem_destroy(THR_RW_SEM sem);

/** Takes the read lock; waits, without limit, while a writer holds or waits. */
THR_API void THR_CALL thr_rw_sem_read_lock(THR_RW_SEM sem);

/** @return 1 when the read lock was taken, 0 when a writer holds or waits */
THR_NODISCARD THR_API int THR_CALL thr_rw_sem_read_try_lock(THR_RW_SEM sem);

/** Undoes a read lock. Not checked: without one the semaphore is broken. */
THR_API void THR_CALL thr_rw_sem_read_unlock(THR_RW_SEM sem);

/** Takes the write lock; waits, without limit, for the readers that are in and for writers before
 *  this one. */
THR_API void THR_CALL thr_rw_sem_write_lock(THR_RW_SEM sem);

/** @return 1 when the write lock was taken, 0 when anybody holds or waits */
THR_NODISCARD THR_API int THR_CALL thr_rw_sem_write_try_lock(THR_RW_SEM sem);

/** Undoes a write lock. Not checked: without one the semaphore is broken. */
THR_API void THR_CALL thr_rw_sem_write_unlock(THR_RW_SEM sem);

/** @} */

/** @defgroup processes Processes
 *  Child processes and what a caller does with them. Process handles and pipe ends are raw OS
 *  handles owned by the caller. "Returns an OS error code" means 0 on success and otherwise what
 *  GetLastError() says; nothing is reported unless a function says so.
 *  @{ */

/** How a process ended. */
typedef struct thr_process_status {
    int32_t status;    /**< filled by thr_process_wait() with the exit code too */
    int32_t exit_code; /**< the exit code */
} thr_process_status;

/** Starts a child process: suspended, with the requested pipes, put into a job object of its own
 *  that is named by the child's process id in decimal, then resumed. What the child starts through
 *  this library stays in that job. Creations are serialised, so that no child inherits another
 *  one's pipe ends.
 *
 *  @param command   the whole command line, program first; quote arguments with blanks as the
 *                   child's runtime expects. Must be writable; unchanged on return. Not null
 *                   (internal error "command").
 *  @param directory the child's working directory; null or empty: the caller's
 *  @param out_pipe  where to store the read end of the child's standard output; null: not
 *                   redirected
 *  @param err_pipe  the same for standard error; the same place as `out_pipe`: both streams go into
 *                   one pipe, whose read end is stored once
 *  @param in_pipe   where to store the write end of the child's standard input; null: not
 *                   redirected
 *  @param reserved  not used
 *  @param job       where to store the job object's handle, which the caller closes with
 *                   thr_process_close_handle() when the child has ended (its children would break
 *                   away otherwise); null is stored when the system refused the job and a report
 *                   hook let the creation go on. Null for the place: the library keeps the job open
 *                   for the life of the calling process. A caller that is itself in such a job
 *                   keeps its children in its own: the child's job is then empty.
 *  @return the process handle, which thr_process_wait(), thr_process_terminate() or
 *          thr_process_close_handle() releases; null when the child could not be started or
 *          resumed, with the reason on the debug channel and one line on standard error. `job` is
 *          then not written, and pipe ends that were stored stay the caller's to close.
 *
 *  A pipe that can't be made leaves its stream alone (but standard error, which shares the place of
 *  standard output, becomes a copy of that) and its place unwritten, so set the places to null
 *  before the call. The stored ends are not inheritable. Refused job limits are the OS failures
 *  "query job info" and "modify job info"; with a report hook the creation goes on. A caller whose
 *  standard output is no console starts its children without a console window.
 *
 *  A stream that is not redirected is what the caller's own start-up record says, or what a console
 *  gives: redirect all three, or let children inherit (thr_process_set_inherit_handles()); none
 *  only if this process is on a console itself. With any pipe the child inherits every inheritable
 *  handle of this process, too. */
THR_NODISCARD THR_API void *THR_CALL
thr_process_create_and_save_job(char *command, const char *directory, void **out_pipe,
                                void **err_pipe, void **in_pipe, void *reserved, void **job);

/** thr_process_create_and_save_job() with `job` null. */
THR_NODISCARD THR_API void *THR_CALL thr_process_create(char *command, const char *directory,
                                                        void **out_pipe, void **err_pipe,
                                                        void **in_pipe, void *reserved);

/** Sets whether children inherit: non-zero lets them inherit every inheritable handle of this
 *  process, and gives them this process's standard handles where no pipe is requested. Off when the
 *  library is loaded. For the whole process. */
THR_API void THR_CALL thr_process_set_inherit_handles(int inherit);

/** Reads from a pipe; blocks until there is something to read.
 *  @param pipe   a read end
 *  @param buffer receives at most `size` bytes
 *  @param size   in bytes
 *  @param count  receives the bytes read; may be null; untouched on failure
 *  @return an OS error code; 109 (ERROR_BROKEN_PIPE) when every writer has closed, which alone is
 *          the end: 0 with a count of 0 bytes is not */
THR_API int THR_CALL thr_process_read(void *pipe, void *buffer, uint32_t size, uint32_t *count);

/** Writes to a pipe; blocks while the pipe is full.
 *  @param pipe   a write end
 *  @param buffer `size` bytes
 *  @param size   in bytes
 *  @param count  receives the bytes written; may be null; untouched on failure
 *  @return an OS error code */
THR_API int THR_CALL thr_process_write(void *pipe, const void *buffer, uint32_t size,
                                       uint32_t *count);

/** Tells whether a pipe has something to read; takes nothing out of it. Blocks only while another
 *  thread reads from the same end.
 *  @param pipe     a read end
 *  @param has_data receives 1 or 0; may be null
 *  @return an OS error code */
THR_API int THR_CALL thr_process_peek(void *pipe, int *has_data);

/** Waits for a child to end, or asks whether it has.
 *  @param process a process handle
 *  @param status  receives the exit code, in both fields, once the child has ended; may be null
 *  @param options bit 0: do not wait
 *  @return the handle's value once the child has ended, and the handle is closed then; 0 while it
 *          runs; -1 for a null handle and on failure. A child that ended with exit code 259 can't
 *          be told from a running one: 0 from a call that waits means it, and the handle stays the
 *          caller's to close. */
THR_API intptr_t THR_CALL thr_process_wait(void *process, thr_process_status *status, int options);

/** Asks the system to end a child, with `status.exit_code`; the child may go on for a moment.
 *  @return 0, and the handle is closed; -1 for a null handle; else an OS error code, and the handle
 *          stays open: 5 (ERROR_ACCESS_DENIED) for a child that has ended, so wait for it then */
THR_API int THR_CALL thr_process_terminate(void *process, thr_process_status status);

/** Closes a process or job handle; null is left alone. */
THR_API void THR_CALL thr_process_close_handle(void *handle);

/** Closes a pipe end.
 *  @return 0, whatever the system says */
THR_API int THR_CALL thr_process_close_pipe(void *pipe);

/** @return the standard-input handle that this process was started with; owned by the process */
THR_API void *THR_CALL thr_process_get_stdin(void);

/** Gives the calling process idle priority, which its children inherit.
 *  @return an OS error code */
THR_API int THR_CALL thr_process_lower_priority(void);

/** Asks the calling thread's message loop to end: posts a quit message with exit code -1. The
 *  process goes on until that loop ends.
 *  @param status not used */
THR_API void THR_CALL thr_process_exit(thr_process_status status);

/** Runs a command to its end. Its output has no reader: writes of the child fail with 232
 *  (ERROR_NO_DATA).
 *  @param command as for thr_process_create_and_save_job()
 *  @return the exit code, which may be -1 too; -1 when the child could not be started or its exit
 *          code can't be had */
THR_API int THR_CALL thr_run(char *command);

/** @return what the runtime's system() gives for the command */
THR_API int THR_CALL thr_system(const char *command);

/* The record has a field that <errno.h> defines as a macro. */
#pragma push_macro("errno")
#undef errno
/** The outcome of a system function, in codes of the caller's own. Use the functions below: `errno`
 *  is a macro in most sources. */
typedef struct thr_sys_func {
    int32_t name;  /**< which function */
    int32_t wstat; /**< a wait status */
    int32_t errno; /**< an error number */
} thr_sys_func;
#pragma pop_macro("errno")

/** Fills a record; `wstat` becomes 0. In this and the following functions a null record is the
 *  internal error "record". */
THR_API void THR_CALL thr_sys_func_init(thr_sys_func *record, int32_t name, int32_t error);
/** Fills a record. */
THR_API void THR_CALL thr_sys_func_waitpid_init(thr_sys_func *record, int32_t name, int32_t wstat,
                                                int32_t error);
/** @return the field `name` */
THR_API int32_t THR_CALL thr_sys_func_get_name(const thr_sys_func *record);
/** @return the field `wstat` */
THR_API int32_t THR_CALL thr_sys_func_get_wstat(const thr_sys_func *record);
/** @return the field `errno` */
THR_API int32_t THR_CALL thr_sys_func_get_errno(const thr_sys_func *record);

/** @return a new empty text for thr_sys_func_delete_msg(); a failed allocation is the internal
 *          error "msg_buf" */
THR_NODISCARD THR_API char *THR_CALL thr_sys_func_create_msg(void);
/** Frees a text of thr_sys_func_create_msg(). */
THR_API void THR_CALL thr_sys_func_delete_msg(char *message);

/** @} */

/** @defgroup environment Environment and handlers
 *  Settings of the whole process. The environment functions exclude each other. A name or a value
 *  of more than 32,766 characters, the most that the system keeps, is refused with -1.
 *  @{ */

/** A handler of the C++ runtime. */
typedef void(THR_CALL *THR_HANDLER)(void);

/** Sets an environment variable; the system, later children and getenv() of the runtime that the
 *  library uses (msvcrt, or UCRT) see it.
 *  @param name  not null (internal error "name != 0"); without "=", which would end the name
 *  @param value null or empty removes the variable
 *  @return 0, or -1 when the runtime refuses; a failed allocation is the internal error "str" */
THR_API int THR_CALL thr_setenv(const char *name, const char *value);

/** Puts an entry in front of a list-valued variable such as PATH, with ";" between when the
 *  variable is set, also when it is set to the empty text. Reads the system's environment, and
 *  keeps what the ANSI code page can't spell.
 *  @param name  not null (internal error "name != 0")
 *  @param value null: nothing is changed
 *  @return 0, or -1 when `value` is null or the runtime refuses */
THR_API int THR_CALL thr_prepend_env(const char *name, const char *value);

/** Installs the C++ runtime's new handler; null removes it.
 *  @return the one before; threads that replace it at once each get the one that they replaced */
THR_API THR_HANDLER THR_CALL thr_set_new_handler(THR_HANDLER handler);

/** Installs the C++ runtime's terminate handler; null brings the runtime's own back.
 *  @return the one before; threads that replace it at once each get the one that they replaced */
THR_API THR_HANDLER THR_CALL thr_set_terminate_handler(THR_HANDLER handler);

/** @} */

/** @defgroup loading Libraries
 *  The suite's other libraries, by base name: "foo" is the file foo.dll. A library handle is the
 *  platform's module handle; the platform counts loads and unloads.
 *
 *  The library is set up when the process attaches it: an executable that runs from a directory
 *  below one named "velkora" (else "ostrevaline"; in lower case, the last on its path) gets that
 *  directory's "bin64" as the process's DLL directory.
 *
 *  The environment variable THR_DRL_DEBUG, read once when the library is loaded, traces failed
 *  loads and lookups on standard output when its value begins with a digit from 2 or a letter.
 *  @{ */

/** Loads a library in place of LoadLibrary; returns its handle or null. */
typedef void *(THR_CALL *THR_DRL_LOAD_FUNC)(const char *filename);
/** Unloads a library in place of FreeLibrary. */
typedef void(THR_CALL *THR_DRL_UNLOAD_FUNC)(void *library);
/** Is told of every load made with LoadLibrary, also of a failed one (null handle). It keeps the
 *  last error, which the account of the failure tells. */
typedef void(THR_CALL *THR_LOAD_SYMBOLS_FUNC)(void *library, const char *filename);

/** @return 1 after the host has called thr_drl_init() and before the library's shutdown, else 0 */
THR_API int THR_CALL is_thr_loaded(void);

/** Sets the flag that is_thr_loaded() returns; nothing else depends on it.
 *  @return 0 */
THR_API int THR_CALL thr_drl_init(void);

/** Does nothing; the library shuts down by itself when it is detached. */
THR_API void THR_CALL thr_drl_fini(void);

/** Makes the file name of a library: its directory part, its base name, ".dll". A ".dll" that the
 *  name ends with, in lower case, is not doubled; slashes stay as they are.
 *  @param destination    untouched when the file name is longer than `maximum_length`, which
 *                        nothing else tells; not null otherwise (internal error "destination")
 *  @param maximum_length in bytes, without the terminator: the destination holds one more
 *  @param name           not null (internal error "name") */
THR_API void THR_CALL thr_drl_construct_library_name(char *destination, size_t maximum_length,
                                                     const char *name);

/** Loads a library, or raises the count of one that is loaded.
 *  @param name base name, with or without directory; slashes count as backslashes
 *  @return its handle; null for a null name, and on failure, which thr_drl_get_error() describes */
THR_API void *THR_CALL thr_drl_load(const char *name);

/** Unloads a library. Null and the reserved handle value -3 are left alone. */
THR_API void THR_CALL thr_drl_unload(void *library);

/** @return 1 when the library is in the process, else 0 */
THR_API int THR_CALL thr_drl_is_loaded(const char *name);

/** Asks for a library's file; a name with a directory is read as UTF-8 here.
 *  @return 1 when the file is found: in its directory part, where any entry of that name counts,
 *          or, without one, on the platform's search path, of which the DLL directory is no part;
 *          else 0 */
THR_API int THR_CALL thr_drl_is_loadable(const char *name);

/** Finds a function.
 *  @param library null: the executable
 *  @param name    the exported name
 *  @return its address; null for a null name, and on failure, which thr_drl_get_error() describes
 */
THR_API void *THR_CALL thr_drl_find_function(void *library, const char *name);

/** Puts the host's functions in place of the platform's loader, for all loads and unloads from now
 *  on; null brings the platform's back. The load-symbols function is not called for them. */
THR_API void THR_CALL thr_drl_register_funcs(THR_DRL_LOAD_FUNC load, THR_DRL_UNLOAD_FUNC unload);

/** Installs the load-symbols function; null removes it. */
THR_API void THR_CALL thr_set_load_symbols_func(THR_LOAD_SYMBOLS_FUNC func);

/** @return the account of the last failed load or lookup, "" before any. It belongs to the library
 *          and lives until the next failure: read it right after the call that failed. */
THR_API const char *THR_CALL thr_drl_get_error(void);

/** @return the file or function name that the last failure was about, or "". As
 *          thr_drl_get_error(). */
THR_API const char *THR_CALL thr_drl_get_error_data(void);

/** @return the system's words for the last failure, with their line break, or "". As
 *          thr_drl_get_error(). */
THR_API const char *THR_CALL thr_drl_get_system_error(void);

/** @} */

/** @defgroup interprocess Interprocess mode, mutex and semaphore
 *  Processes of one machine exclude each other through lock files: empty files that exist while
 *  their holder has them open. A holder that ends, however it ends, lets go of its locks.
 *
 *  A path names the shared resource, usually a file to be guarded; the lock files lie beside it,
 *  so its directory must exist and be writable, on a local volume, and not be the root of a drive
 *  ("C:/db" means the current directory of that drive). Creating a mutex or semaphore enters that
 *  directory for a moment, one thread at a time, so other threads should not use relative paths or
 *  change the current directory just then. A directory that exists but can't be entered, such as
 *  one on a server share, is the internal error "len >= MAX_PATH". Paths are read as UTF-8 and made
 *  in the ANSI code page: keep to ASCII in the names of lock directories and of the current
 *  directory.
 *  @{ */

/** Switches interprocess mode on. The mode is a flag for hosts; no function of this library behaves
 *  differently by it. */
THR_API void THR_CALL thr_enable_interprocess_mode(void);

/** Switches interprocess mode off, as it is when the library is loaded. */
THR_API void THR_CALL thr_disable_interprocess_mode(void);

/** @return whether interprocess mode is on */
THR_API bool THR_CALL thr_is_interprocess_mode(void);

/** @return "flock", the extension of every lock file, without a dot; owned by the library */
THR_API const char *THR_CALL thr_get_interprocess_file_extension(void);

/** Tells whether a process lives.
 *  @return false for an id that no process has, and also when the process can't be opened for lack
 *          of rights; true also for a process that has ended with exit code 259 as long as somebody
 *          has it open. A process id is used again after its process has gone. */
THR_API bool THR_CALL thr_is_pid_active(uint32_t pid);

/** An interprocess mutex. One record may be used by one thread at a time; it counts its locks,
 *  whichever thread makes them: it excludes processes, not the threads of one. */
typedef struct THR_IP_MUTEX_RECORD *THR_IP_MUTEX;

/** Creates an interprocess mutex; touches no file. The lock file's name is the absolute path
 *  followed by ".mtx.flock".
 *  @param filepath not null or empty (internal error "filepath && *filepath")
 *  @return never null (a failed allocation is the internal error "mutex"). A path whose directory
 *          does not exist gives a mutex that is not good: every lock of it fails. */
THR_NODISCARD THR_API THR_IP_MUTEX THR_CALL thr_ip_mutex_create(const char *filepath);

/** Gives up every hold of this record at once and releases the record.
 *  In this and the following functions a null mutex is the internal error "mutex != 0". */
THR_API void THR_CALL thr_ip_mutex_destroy(THR_IP_MUTEX mutex);

/** @return whether a path for the lock file could be made; a lock can be refused all the same */
THR_API bool THR_CALL thr_ip_mutex_is_good(THR_IP_MUTEX mutex);

/** Locks the mutex: takes the lock file, or raises the count of a record that holds it already.
 *  While another holder has the file it tries again every 10 milliseconds, without limit. Another
 *  record for the same path is another holder, in this process too, and so is a program that has
 *  the file open.
 *  @return 1 when held; 0 when the lock file is refused for any other reason, such as a missing
 *          directory or missing rights, or, for an instant, because the file is just being deleted:
 *          ask again before giving up */
THR_NODISCARD THR_API int THR_CALL thr_ip_mutex_lock(THR_IP_MUTEX mutex);

/** As thr_ip_mutex_lock(), but never waits.
 *  @return 1 when held, else 0 */
THR_NODISCARD THR_API int THR_CALL thr_ip_mutex_try_lock(THR_IP_MUTEX mutex);

/** Undoes one lock; the last one lets the lock file go. Without a lock: internal error
 *  "mutex->m_ref_count > 0". */
THR_API void THR_CALL thr_ip_mutex_unlock(THR_IP_MUTEX mutex);

/** An interprocess read-write semaphore. One record may be used by one thread at a time; it counts
 *  its locks. Use one record for a path in a process, and a directory of its own for each path:
 *  semaphores that share a directory count each other's readers and writers. The whole path must be
 *  ASCII: a process that does not recognise its own lock files excludes nobody.
 *
 *  The locks and try-locks are internal errors when the system goes on refusing their files: for a
 *  second or longer one of the semaphore's own mutexes ("mutex->m_ref_count > 0"), for a tenth of a
 *  second the reader or writer file ("sem->m_readers_sem_fh != THR_BAD_FILE_HANDLE",
 *  "sem->m_writers_sem_fh != THR_BAD_FILE_HANDLE"). No other process is held up by that report. */
typedef struct THR_IP_RW_SEM_RECORD *THR_IP_RW_SEM;

/** Creates an interprocess read-write semaphore; touches no file. Its lock files' names are the
 *  absolute path followed by ".cri.mtx.flock", ".wri.mtx.flock" and, with the process id in front,
 *  ".rdr.flock" and ".wtr.flock".
 *  @param filepath not null or empty (internal error "filepath && *filepath")
 *  @return null when its directory does not exist, or where it is can't be told; a failed
 *          allocation is an internal error. A directory in which no file can be made is found out
 *          by the first lock. */
THR_NODISCARD THR_API THR_IP_RW_SEM THR_CALL thr_ip_rw_sem_create(const char *filepath);

/** Lets go of every hold of this record at once and releases the record.
 *  In this and the following functions a null semaphore is the internal error "sem". */
THR_API void THR_CALL thr_ip_rw_sem_destroy(THR_IP_RW_SEM sem);

/** Takes the read lock, or raises the count of a record that reads already. Waits, without limit
 *  and without pause, while any process writes or waits to write. Internal error: the record itself
 *  writes ("sem->m_writers_ref_count == 0"). */
THR_API void THR_CALL thr_ip_rw_sem_read_lock(THR_IP_RW_SEM sem);

/** Waits for the semaphore's atomic lock, which others hold for a moment, but for nobody's reading
 *  or writing; so does thr_ip_rw_sem_write_try_lock().
 *  @return 1 when the read lock is held, 0 when any process (this record included) writes or waits
 *          to write */
THR_NODISCARD THR_API int THR_CALL thr_ip_rw_sem_read_try_lock(THR_IP_RW_SEM sem);

/** Undoes a read lock. Without one: internal error "sem->m_readers_ref_count > 0". */
THR_API void THR_CALL thr_ip_rw_sem_read_unlock(THR_IP_RW_SEM sem);

/** Takes the write lock, or raises the count of a record that writes already. From the moment it
 *  asks, no process gets a new read lock; it waits, without limit, for the readers that are in and
 *  for writers before it. Internal error: the record itself reads
 *  ("sem->m_readers_ref_count == 0"). */
THR_API void THR_CALL thr_ip_rw_sem_write_lock(THR_IP_RW_SEM sem);

/** @return 1 when the write lock is held, 0 when any process (this record included) reads, another
 *          one writes, or, for an instant, a lock file is just being deleted */
THR_NODISCARD THR_API int THR_CALL thr_ip_rw_sem_write_try_lock(THR_IP_RW_SEM sem);

/** Undoes a write lock. Without one: internal error "sem->m_writers_ref_count > 0". */
THR_API void THR_CALL thr_ip_rw_sem_write_unlock(THR_IP_RW_SEM sem);

/** @} */

/** @defgroup pump Message pumps
 *  The main thread's window messages, or the host's own event loop. The main thread is the one that
 *  loaded the library.
 *  @{ */

/** Replaces the pump: takes the pump's limit and returns its result. */
typedef uint64_t(THR_CALL *THR_WIN32_PUMP_FUNC)(uint64_t limit);

/** Processes the pending events of the host's Qt loop. */
typedef void(THR_CALL *THR_QT_PROCESS_EVENT_FUNC)(void);

/** Posted to make the pump report an exit; null until it is first needed, never destroyed by the
 *  library. */
extern THR_API THR_EVENT thr_win32_pump_exit_event;

/** What the pump returns when it finds the exit event posted: 95134, or what the host stores. */
extern THR_API uint64_t thr_win32_pump_exit_retcode;

/** Posted to ask the host's Qt loop to stop; null until it is first needed, never destroyed by the
 *  library. The host's hook tests and resets it. */
extern THR_API THR_EVENT thr_qt_exit_event;

/** @return 1: the library runs on Win32 */
THR_API int THR_CALL thr_win32_is(void);

/** @return the id of the window message registered under that name; 0 when the system refuses */
THR_API uint32_t THR_CALL thr_win32_get_registered_message(const char *name);

/** Replaces the pump; null brings the library's own back. The function must not call
 *  thr_win32_pump_messages(), which calls it. */
THR_API void THR_CALL thr_win32_set_msg_pump_func(THR_WIN32_PUMP_FUNC func);

/** Handles the messages that wait in the main thread's queue; does not wait for any.
 *  @param limit 0: no limit, and the largest number: none for a quit; N: at most N + 1 messages
 *  @return 0 on any other thread; what the host's pump returns, if there is one;
 *          thr_win32_pump_exit_retcode when the exit event was posted and a message came (the event
 *          is reset, and the message lost); else 0 without a limit, or the messages handled.
 *
 *  A quit message is put back for the host's own loop; without a limit it ends the pump. The host
 *  has to look for it: every later call meets it again. */
THR_API uint64_t THR_CALL thr_win32_pump_messages(uint64_t limit);

/** Posts the pump's exit event, which the next pump that takes a message, other than a quit,
 *  sees. */
THR_API void THR_CALL thr_win32_post_pump_exit_event(void);

/** Installs the Qt hook; null removes it. */
THR_API void THR_CALL thr_qt_set_process_event_func(THR_QT_PROCESS_EVENT_FUNC func);

/** On the main thread, runs the Qt hook.
 *  @return 0 without a hook; else thr_win32_pump_exit_retcode as it was before the hook ran, on any
 *          thread */
THR_API uint64_t THR_CALL thr_qt_process_events(void);

/** Posts the Qt exit event.
 *  @return 1; 0 without a Qt hook, and nothing is posted then */
THR_API int THR_CALL thr_qt_post_exit_event(void);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
