#include "thr/thr.h"
#include "thr/thr_lock.h"
#include "thr/thr_owner.h"
#include "thr/thr_report.h"
#include "thr/thr_system_text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <windows.h>

// --- creation -----------------------------------------------------------------------------------

namespace
{

// Creations are serialised from the making of the first pipe to the closing of the child's ends:
// any other child would inherit an end meanwhile, and end-of-file would never arrive.
struct ProcessState {
    int m_inherit_handles;
    THR_LOCK m_creation_lock;
};

ProcessState state;

// One creation. The owners hold the child's ends of the pipes and what was duplicated for the
// child, and nothing else: a handle copied from our own start-up record is not ours to close.
struct Creation {
    STARTUPINFOA m_startup = {};
    PROCESS_INFORMATION m_process = {};
    BOOL m_inherit = FALSE;
    THR_HANDLE m_child_out;
    THR_HANDLE m_child_err;
    THR_HANDLE m_child_in;
    bool m_is_in_job = false;
};

THR_HANDLE duplicate(HANDLE handle, BOOL inheritable)
{
    HANDLE copy = nullptr;
    if (handle == INVALID_HANDLE_VALUE) // as a handle, this value means the process itself
        return nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, inheritable,
                         DUPLICATE_SAME_ACCESS))
        return nullptr;
    return THR_HANDLE(copy);
}

// Makes a pipe whose child's end is inheritable and whose caller's end is not. False, with nothing
// left open, when refused.
bool make_pipe(bool child_reads, THR_HANDLE *child_end, void **caller_end)
{
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read_end;
    HANDLE write_end;
    if (!CreatePipe(&read_end, &write_end, &inheritable, 0))
        return false;
    THR_HANDLE child(child_reads ? read_end : write_end);
    THR_HANDLE caller(child_reads ? write_end : read_end);
    caller = duplicate(caller.get(), FALSE);
    if (!caller)
        return false;
    *child_end = std::move(child);
    *caller_end = caller.release();
    return true;
}

// Sets up one standard stream of the child: a pipe where the caller asked for one; otherwise, with
// the inherit-handles flag on, our own standard handle.
void redirect(Creation *creation, void **caller_end, DWORD std_handle, THR_HANDLE *child_end,
              HANDLE *startup_field)
{
    if (caller_end) {
        if (!make_pipe(std_handle == STD_INPUT_HANDLE, child_end, caller_end))
            return;
        creation->m_inherit = TRUE;
    } else {
        if (!state.m_inherit_handles)
            return;
        *child_end = duplicate(GetStdHandle(std_handle), TRUE);
        if (!*child_end)
            return;
    }
    *startup_field = child_end->get();
    STARTUPINFOA &startup = creation->m_startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    // a table of descriptors that was handed to us would overrule them in the child's runtime
    startup.cbReserved2 = 0;
    startup.lpReserved2 = nullptr;
}

void redirect_all(Creation *creation, void **out_pipe, void **err_pipe, void **in_pipe)
{
    STARTUPINFOA *startup = &creation->m_startup;
    redirect(creation, out_pipe, STD_OUTPUT_HANDLE, &creation->m_child_out, &startup->hStdOutput);
    if (err_pipe && err_pipe == out_pipe) {
        creation->m_child_err = duplicate(startup->hStdOutput, TRUE);
        startup->hStdError = creation->m_child_err.get();
    } else {
        redirect(creation, err_pipe, STD_ERROR_HANDLE, &creation->m_child_err, &startup->hStdError);
    }
    redirect(creation, in_pipe, STD_INPUT_HANDLE, &creation->m_child_in, &startup->hStdInput);
}

// A child of a process without a console gets no console window.
DWORD console_flag()
{
    DWORD mode;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) ? 0 : CREATE_NO_WINDOW;
}

// Jobs are named by the id of the process for which they were made.
struct JobName {
    char m_text[1024];
    explicit JobName(DWORD pid) { snprintf(m_text, sizeof m_text, "%lu", pid); }
};

// Whether this process was itself put into a job by this library, or sits below one that was.
bool is_in_process_job()
{
    THR_HANDLE job(OpenJobObjectA(JOB_OBJECT_QUERY, TRUE, JobName(GetCurrentProcessId()).m_text));
    return job != nullptr;
}

const char *text_or_empty(const THR_SYSTEM_TEXT &text)
{
    return text ? text.get() : "";
}

void tell_creation_failed(DWORD code, const char *command)
{
    THR_SYSTEM_TEXT text = thr_system_text(code);
    size_t length = strlen(text_or_empty(text));
    if (length > 0 && text.get()[length - 1] == '\n')
        text.get()[length - 1] = '\0';
    thr_debug_message("CreateProcess failed!");
    thr_debug_message("  Error Code     : %d", code);
    thr_debug_message("  System Message : %s", text_or_empty(text));
    thr_debug_message("  Command        : %s", command);
    perror("CreateProcess failed");
}

void tell_assignment_failed(DWORD code)
{
    THR_SYSTEM_TEXT text = thr_system_text(code);
    thr_debug_message("AssignProcessToJobObject failed with error(%d): \"%s\"", code,
                      text_or_empty(text));
}

bool create_suspended(Creation *creation, char *command, const char *directory, DWORD flags)
{
    const char *start_directory = directory && *directory ? directory : nullptr;
    auto create = [&](DWORD creation_flags) {
        return CreateProcessA(nullptr, command, nullptr, nullptr, creation->m_inherit,
                              creation_flags, nullptr, start_directory, &creation->m_startup,
                              &creation->m_process) != 0;
    };
    if (create(flags))
        return true;
    // our own job may forbid breaking away
    return (flags & CREATE_BREAKAWAY_FROM_JOB) && create(flags & ~CREATE_BREAKAWAY_FROM_JOB);
}

// The steps that no other creation may come between. The result is the code of a refused creation,
// else 0.
DWORD create_redirected(Creation *creation, char *command, const char *directory, void **out_pipe,
                        void **err_pipe, void **in_pipe)
{
    THR_LOCK_GUARD guard(state.m_creation_lock);
    redirect_all(creation, out_pipe, err_pipe, in_pipe);
    DWORD flags = CREATE_SUSPENDED | console_flag();
    creation->m_is_in_job = is_in_process_job();
    if (!creation->m_is_in_job)
        flags |= CREATE_BREAKAWAY_FROM_JOB;
    DWORD code = create_suspended(creation, command, directory, flags) ? 0 : GetLastError();
    creation->m_child_out.reset();
    creation->m_child_err.reset();
    creation->m_child_in.reset();
    return code;
}

// Lets the children of the job's processes break away.
void allow_breakaway(HANDLE job)
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION info = {};
    BOOL result = QueryInformationJobObject(job, JobObjectExtendedLimitInformation, &info,
                                            sizeof info, nullptr);
    THR_CHECK_WIN32("query job info", result);
    info.BasicLimitInformation.LimitFlags |= JOB_OBJECT_LIMIT_BREAKAWAY_OK;
    result = SetInformationJobObject(job, JobObjectExtendedLimitInformation, &info, sizeof info);
    THR_CHECK_WIN32("modify job info", result);
}

// Gives the suspended child a job of its own, which a child of a job member only has, but does not
// enter.
THR_HANDLE make_job(HANDLE process, bool is_in_job)
{
    THR_HANDLE job(CreateJobObjectA(nullptr, JobName(GetProcessId(process)).m_text));
    allow_breakaway(job.get());
    if (!is_in_job && !AssignProcessToJobObject(job.get(), process))
        tell_assignment_failed(GetLastError());
    return job;
}

} // namespace

void *thr_process_create_and_save_job(char *command, const char *directory, void **out_pipe,
                                      void **err_pipe, void **in_pipe, void *, void **job)
{
    THR_CHECK(command);
    Creation creation;
    GetStartupInfoA(&creation.m_startup);
    creation.m_inherit = state.m_inherit_handles;
    DWORD code = create_redirected(&creation, command, directory, out_pipe, err_pipe, in_pipe);
    THR_HANDLE process(creation.m_process.hProcess);
    THR_HANDLE thread(creation.m_process.hThread);
    if (!process) {
        tell_creation_failed(code, command);
        return nullptr;
    }
    THR_HANDLE child_job = make_job(process.get(), creation.m_is_in_job);
    if (ResumeThread(thread.get()) == static_cast<DWORD>(-1)) {
        // a child that never runs could not be started
        code = GetLastError();
        TerminateProcess(process.get(), static_cast<UINT>(-1));
        tell_creation_failed(code, command);
        return nullptr;
    }
    HANDLE kept_job = child_job.release(); // without a place for it, it stays open for good
    if (job)
        *job = kept_job;
    return process.release();
}

void *thr_process_create(char *command, const char *directory, void **out_pipe, void **err_pipe,
                         void **in_pipe, void *reserved)
{
    return thr_process_create_and_save_job(command, directory, out_pipe, err_pipe, in_pipe,
                                           reserved, nullptr);
}

void thr_process_set_inherit_handles(int inherit)
{
    state.m_inherit_handles = inherit;
}

// --- operations ---------------------------------------------------------------------------------

int thr_process_read(void *pipe, void *buffer, uint32_t size, uint32_t *count)
{
    DWORD done = 0;
    if (!ReadFile(pipe, buffer, size, &done, nullptr))
        return static_cast<int>(GetLastError());
    if (count)
        *count = done;
    return 0;
}

int thr_process_write(void *pipe, const void *buffer, uint32_t size, uint32_t *count)
{
    DWORD done = 0;
    if (!WriteFile(pipe, buffer, size, &done, nullptr))
        return static_cast<int>(GetLastError());
    if (count)
        *count = done;
    return 0;
}

int thr_process_peek(void *pipe, int *has_data)
{
    char byte;
    DWORD read = 0;
    DWORD available = 0;
    int code = 0;
    if (!PeekNamedPipe(pipe, &byte, sizeof byte, &read, &available, nullptr))
        code = static_cast<int>(GetLastError());
    if (has_data)
        *has_data = code == 0 && (read > 0 || available > 0);
    return code;
}

intptr_t thr_process_wait(void *process, thr_process_status *status, int options)
{
    if (!process)
        return -1;
    intptr_t outcome = 0;
    if (!(options & 1) && WaitForSingleObject(process, INFINITE) != WAIT_OBJECT_0)
        outcome = -1;
    DWORD exit_code;
    if (!GetExitCodeProcess(process, &exit_code))
        return -1;
    if (exit_code == STILL_ACTIVE)
        return outcome;
    if (status)
        status->status = status->exit_code = static_cast<int32_t>(exit_code);
    intptr_t ended = reinterpret_cast<intptr_t>(process);
    CloseHandle(process);
    return ended;
}

int thr_process_terminate(void *process, thr_process_status status)
{
    if (!process)
        return -1;
    if (!TerminateProcess(process, static_cast<UINT>(status.exit_code)))
        return static_cast<int>(GetLastError());
    CloseHandle(process);
    return 0;
}

void thr_process_close_handle(void *handle)
{
    if (handle)
        CloseHandle(handle);
}

int thr_process_close_pipe(void *pipe)
{
    CloseHandle(pipe);
    return 0;
}

void *thr_process_get_stdin()
{
    STARTUPINFOA startup;
    GetStartupInfoA(&startup);
    if (startup.hStdInput == INVALID_HANDLE_VALUE)
        return GetStdHandle(STD_INPUT_HANDLE);
    return startup.hStdInput;
}

int thr_process_lower_priority()
{
    return SetPriorityClass(GetCurrentProcess(), IDLE_PRIORITY_CLASS)
               ? 0
               : static_cast<int>(GetLastError());
}

void thr_process_exit(thr_process_status)
{
    PostQuitMessage(-1);
}

// --- running a command --------------------------------------------------------------------------

int thr_run(char *command)
{
    void *output = nullptr;
    void *job_handle = nullptr;
    void *process = thr_process_create_and_save_job(command, nullptr, &output, &output, nullptr,
                                                    nullptr, &job_handle);
    THR_HANDLE job(job_handle);
    thr_process_close_handle(output); // the child's output has no reader
    if (!process)
        return -1;
    thr_process_status status = {};
    if (thr_process_wait(process, &status, 0) == reinterpret_cast<intptr_t>(process))
        return status.exit_code;
    CloseHandle(process);
    return -1;
}

int thr_system(const char *command)
{
    return system(command);
}

// --- outcome records ----------------------------------------------------------------------------

// The record's third field bears the name of a macro of the runtime's headers.
#pragma push_macro("errno")
#undef errno

void thr_sys_func_init(thr_sys_func *record, int32_t name, int32_t error)
{
    thr_sys_func_waitpid_init(record, name, 0, error);
}

void thr_sys_func_waitpid_init(thr_sys_func *record, int32_t name, int32_t wstat, int32_t error)
{
    THR_CHECK(record);
    record->name = name;
    record->wstat = wstat;
    record->errno = error;
}

int32_t thr_sys_func_get_name(const thr_sys_func *record)
{
    THR_CHECK(record);
    return record->name;
}

int32_t thr_sys_func_get_wstat(const thr_sys_func *record)
{
    THR_CHECK(record);
    return record->wstat;
}

int32_t thr_sys_func_get_errno(const thr_sys_func *record)
{
    THR_CHECK(record);
    return record->errno;
}

#pragma pop_macro("errno")

char *thr_sys_func_create_msg()
{
    char *msg_buf = static_cast<char *>(malloc(1));
    THR_CHECK(msg_buf);
    *msg_buf = '\0';
    return msg_buf;
}

void thr_sys_func_delete_msg(char *message)
{
    free(message);
}
