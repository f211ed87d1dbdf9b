// What is run again and again: together the scenarios reach every import. They use the library as a
// host does that looks at each result, and keep to plain Win32 calls, which nothing refuses, where
// they wait for each other.
#include "sweep.h"

#include "support/child.h"
#include "support/import_patch.h"

#include "thr/thr_classes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace sweep
{

Run run;

namespace
{

const DWORD LONG_ENOUGH = 20000; // milliseconds

// An operation that may fail has told how it went.
bool result(bool is_done)
{
    run.results += !is_done;
    return is_done;
}

// What has to be so, unless something has told of the refusal.
void expect(bool holds, const char *what)
{
    if (!holds && run.reports == 0 && run.results == 0 && !run.fault)
        run.fault = what;
}

// What has to be so in any case.
void must(bool holds, const char *what)
{
    if (!holds && !run.fault)
        run.fault = what;
}

Gate &gate_of(const std::string &name)
{
    size_t i = 0;
    while (gates[i].name != name)
        ++i;
    return gates[i];
}

// --- start-up -----------------------------------------------------------------------------------

DWORD WINAPI module_file_name(HMODULE, char *path, DWORD)
{
    strcpy(path, "C:\\velkora\\tools\\tool.exe");
    return static_cast<DWORD>(strlen(path));
}

// Attaches and detaches a second copy of the library, whose imports are those of the first one.
void start_up(const std::string &directory)
{
    gate_of("GetModuleFileNameA").target = reinterpret_cast<void *>(module_file_name);
    char original[MAX_PATH];
    GetModuleFileNameA(support::thr_module(), original, sizeof original);
    std::string path = directory + "\\copy.dll";
    CopyFileA(original, path.c_str(), FALSE);
    HMODULE copy = LoadLibraryExA(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    must(copy != nullptr, "a copy of the library");
    if (!copy)
        return;
    std::vector<support::Import> from = support::imports_of(support::thr_module());
    std::vector<support::Import> to = support::imports_of(copy);
    for (size_t i = 0; i < to.size(); ++i) {
        DWORD protection;
        VirtualProtect(to[i].slot, sizeof(void *), PAGE_READWRITE, &protection);
        *to[i].slot = *from[i].slot;
    }
    auto *base = reinterpret_cast<char *>(copy);
    auto *headers = reinterpret_cast<IMAGE_NT_HEADERS64 *>(
        base + reinterpret_cast<IMAGE_DOS_HEADER *>(base)->e_lfanew);
    auto entry = reinterpret_cast<BOOL(WINAPI *)(HMODULE, DWORD, void *)>(
        base + headers->OptionalHeader.AddressOfEntryPoint);
    if (result(entry(copy, DLL_PROCESS_ATTACH, nullptr))) {
        auto get = reinterpret_cast<decltype(&thr_thread_self)>(
            reinterpret_cast<void *>(GetProcAddress(copy, "thr_thread_self")));
        result(get() != nullptr);
        entry(copy, DLL_PROCESS_DETACH, nullptr);
    }
    FreeLibrary(copy);
}

// --- threads ------------------------------------------------------------------------------------

// A thread of the scenario: it says that it runs, and goes on when it may.
struct Worker {
    HANDLE running = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE may_go_on = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE thread = nullptr;
    bool calls_exit = false;
    bool is_finished = false;
    THR_THREAD_ID id = nullptr;

    explicit Worker(bool exits = false) : calls_exit(exits)
    {
        int reports = run.reports;
        id = thr_thread_create(work, this, 0);
        if (run.reports == reports)
            WaitForSingleObject(running, LONG_ENOUGH);
        must(id != nullptr, "an id");
    }
    ~Worker()
    {
        SetEvent(may_go_on);
        if (thread) {
            must(WaitForSingleObject(thread, LONG_ENOUGH) == WAIT_OBJECT_0, "the thread's end");
            run.stopped_threads += !is_finished;
        }
        for (HANDLE handle : {running, may_go_on, thread})
            CloseHandle(handle);
    }
    static void *work(void *argument)
    {
        Worker *self = static_cast<Worker *>(argument);
        self->thread = OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId());
        result(thr_thread_self() != nullptr);
        SetEvent(self->running);
        WaitForSingleObject(self->may_go_on, LONG_ENOUGH);
        self->is_finished = true;
        if (self->calls_exit)
            thr_thread_exit(self);
        return self;
    }
};

void threads(const std::string &)
{
    for (bool exits : {false, true}) {
        Worker waited(exits);
        SetEvent(waited.may_go_on);
        expect(thr_thread_wait(waited.id) == &waited, "the exit value");
    }
    {
        Worker detached;
        expect(thr_thread_is_running(detached.id) == 1, "a thread that runs");
        thr_thread_detach(detached.id);
    }
    {
        Worker stopped;
        thr_thread_terminate_and_possibly_crash(stopped.id);
    }
    THR_THREAD_VAR variable;
    if (result(thr_thread_var_init(&variable) == 0)) {
        if (result(thr_thread_var_set(&variable, &variable) == 0))
            must(thr_thread_var_get(&variable) == &variable, "the variable's value");
        result(thr_thread_var_destroy(&variable) == 0);
    }
    uintptr_t processors = thr_get_cpu_affinity_mask();
    expect(processors != 0, "a processor");
    thr_set_thread_affinity_mask(~uintptr_t(0));
    thr_rename_thread("sweep");
    thr_msleep(0);
}

void locks(const std::string &)
{
    THR_MUTEX_OBJ mutex;
    {
        THR_SCOPED_MUTEX guard(mutex);
        THR_SCOPED_MUTEX again(mutex);
    }
    THR_EVENT_OBJ event;
    event.post();
    result(event.is_posted());
    event.wait(1);
    event.pulse();
    event.reset();
    THR_READ_WRITE_SEMAPHORE semaphore;
    {
        THR_SCOPED_READ_LOCK reader(semaphore);
        must(!semaphore.try_write_lock(), "no writer beside a reader");
    }
    {
        THR_SCOPED_WRITE_LOCK writer(semaphore);
        must(!semaphore.try_read_lock(), "no reader beside a writer");
    }
    must(semaphore.try_read_lock(), "a free semaphore");
    semaphore.read_unlock();
    must(semaphore.try_write_lock(), "a free semaphore");
    semaphore.write_unlock();
}

// --- processes ----------------------------------------------------------------------------------

// Echoes a line, and ends with 7.
ROLE(sweep_child)
{
    support::say(support::hear().value_or("closed"));
    return 7;
}

// A caller without a console has one made for each child, which takes its time.
BOOL WINAPI console_mode(HANDLE, DWORD *)
{
    return TRUE;
}

// Tells who was started: when the library ends the process, its child may be left.
BOOL WINAPI create_process(LPCSTR program, LPSTR command, SECURITY_ATTRIBUTES *process_security,
                           SECURITY_ATTRIBUTES *thread_security, BOOL inherits, DWORD flags,
                           LPVOID variables, LPCSTR directory, STARTUPINFOA *startup,
                           PROCESS_INFORMATION *process)
{
    BOOL is_started = CreateProcessA(program, command, process_security, thread_security, inherits,
                                     flags, variables, directory, startup, process);
    if (is_started)
        support::say("started " + std::to_string(process->dwProcessId));
    return is_started;
}

void prepare_processes()
{
    gate_of("GetConsoleMode").target = reinterpret_cast<void *>(console_mode);
    gate_of("CreateProcessA").target = reinterpret_cast<void *>(create_process);
}

struct Started {
    std::string command = support::role_command("sweep_child");
    void *out = nullptr;
    void *err = nullptr;
    void *in = nullptr;
    void *job = nullptr;
    void *process = nullptr;

    explicit Started(bool merged)
    {
        prepare_processes();
        process = thr_process_create_and_save_job(command.data(), "", &out, merged ? &out : &err,
                                                  merged ? nullptr : &in, nullptr, &job);
        result(process && out && (merged || (err && in)));
    }
    // Ends the child, should it still be there.
    ~Started()
    {
        thr_process_close_handle(in);
        thr_process_close_handle(err);
        thr_process_close_pipe(out);
        thr_process_close_handle(job);
        if (process) {
            TerminateProcess(process, 1);
            must(WaitForSingleObject(process, LONG_ENOUGH) == WAIT_OBJECT_0, "the child's end");
            CloseHandle(process);
        }
    }
};

void pipes(const std::string &)
{
    Started child(false);
    uint32_t count = 0;
    char line[16];
    int has_data;
    if (child.err)
        result(thr_process_peek(child.err, &has_data) == 0);
    if (child.in)
        result(thr_process_write(child.in, "echo\n", 5, &count) == 0 && count == 5);
    thr_process_close_handle(child.in);
    child.in = nullptr;
    if (child.out && child.process &&
        result(thr_process_read(child.out, line, sizeof line, &count) == 0))
        expect(strncmp(line, "echo", 4) == 0, "the child's output");
    thr_process_status status = {};
    intptr_t waited = thr_process_wait(child.process, &status, 0);
    if (result(waited > 0)) {
        must(status.exit_code == 7, "the exit code");
        child.process = nullptr;
    }
}

void stopping(const std::string &)
{
    thr_process_set_inherit_handles(1);
    Started child(true);
    thr_process_set_inherit_handles(0);
    thr_process_status status = {0, 9};
    result(thr_process_wait(child.process, &status, 1) == 0);
    if (result(thr_process_terminate(child.process, status) == 0))
        child.process = nullptr;
    thr_sys_func_delete_msg(thr_sys_func_create_msg());
    result(thr_process_lower_priority() == 0);
    SetPriorityClass(GetCurrentProcess(), NORMAL_PRIORITY_CLASS);
    expect(thr_process_get_stdin() != nullptr, "a standard input");
}

void running(const std::string &)
{
    prepare_processes();
    std::string command = support::role_command("sweep_child");
    result(thr_run(command.data()) == 7);
}

// --- environment and loading --------------------------------------------------------------------

void handle_nothing() {}

void environment(const std::string &)
{
    if (result(thr_setenv("THR_SWEEP", "b") == 0) && result(thr_prepend_env("THR_SWEEP", "a") == 0))
        must(getenv("THR_SWEEP") && strcmp(getenv("THR_SWEEP"), "a;b") == 0, "the value");
    result(thr_setenv("THR_SWEEP", nullptr) == 0);
    _putenv("THR_SWEEP=");
    THR_HANDLER handler = thr_set_new_handler(handle_nothing);
    must(thr_set_new_handler(handler) == handle_nothing, "the new handler");
    handler = thr_set_terminate_handler(handle_nothing);
    must(thr_set_terminate_handler(handler) == handle_nothing, "the terminate handler");
    result(thr_system(nullptr) == 1);
}

void loading(const std::string &directory)
{
    char name[64] = "";
    thr_drl_construct_library_name(name, sizeof name - 1, "lib/version.dll");
    must(strcmp(name, "lib/version.dll") == 0, "the file name");
    result(thr_drl_is_loadable("version") == 1);
    CloseHandle(CreateFileA((directory + "/there.dll").c_str(), GENERIC_WRITE, 0, nullptr,
                            CREATE_ALWAYS, 0, nullptr));
    result(thr_drl_is_loadable((directory + "/there").c_str()) == 1);
    void *library = thr_drl_load("version");
    if (result(library != nullptr)) {
        result(thr_drl_is_loaded("version") == 1);
        result(thr_drl_find_function(library, "VerQueryValueA") != nullptr);
        must(!thr_drl_find_function(library, "no_such"), "no function");
        must(strcmp(thr_drl_get_error_data(), "no_such") == 0, "the name in the account");
        result(*thr_drl_get_system_error() != '\0');
        thr_drl_unload(library);
    }
    must(!thr_drl_find_function(nullptr, "no_such_function"), "no function");
    result(*thr_drl_get_system_error() != '\0');
    must(!thr_drl_load((directory + "/none").c_str()), "no library");
    result(*thr_drl_get_system_error() != '\0');
}

// --- lock files ---------------------------------------------------------------------------------

// What comes in between the closing of a lock file and its removal. It goes in the end.
enum { NOBODY, A_DIRECTORY, A_FILE } next_holder;
int looks_left;

DWORD WINAPI file_attributes(const wchar_t *path)
{
    if (--looks_left == 0)
        DeleteFileW(path);
    return GetFileAttributesW(path);
}

BOOL WINAPI delete_file(const wchar_t *path)
{
    auto holder = next_holder;
    next_holder = NOBODY;
    if (holder == A_DIRECTORY)
        CreateDirectoryW(path, nullptr);
    if (holder == A_FILE) {
        looks_left = 100;
        CloseHandle(CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
        SetLastError(ERROR_SHARING_VIOLATION);
        return FALSE;
    }
    return DeleteFileW(path);
}

void lock_files(const std::string &directory)
{
    next_holder = NOBODY;
    gate_of("GetFileAttributesW").target = reinterpret_cast<void *>(file_attributes);
    gate_of("DeleteFileW").target = reinterpret_cast<void *>(delete_file);
    THR_IP_MUTEX relative = thr_ip_mutex_create("relative");
    result(thr_ip_mutex_is_good(relative));
    thr_ip_mutex_destroy(relative);
    std::string path = directory + "/db";
    THR_IP_MUTEX_OBJ object(path.c_str());
    {
        THR_IP_SCOPED_MUTEX guard(&object);
        result(guard.was_lock_successful());
    }
    THR_IP_MUTEX mutex = thr_ip_mutex_create(path.c_str());
    result(thr_ip_mutex_is_good(mutex));
    if (result(thr_ip_mutex_lock(mutex) == 1)) {
        must(thr_ip_mutex_lock(mutex) == 1, "a second hold");
        thr_ip_mutex_unlock(mutex);
        must(!object.try_lock(), "no second holder");
        next_holder = A_DIRECTORY;
        thr_ip_mutex_unlock(mutex);
        next_holder = NOBODY;
        RemoveDirectoryA((path + ".mtx.flock").c_str()); // where the removal was refused
    }
    if (result(thr_ip_mutex_try_lock(mutex) == 1)) {
        next_holder = A_FILE;
        thr_ip_mutex_unlock(mutex);
        next_holder = NOBODY;
    }
    result(thr_ip_mutex_try_lock(mutex) == 1);
    thr_ip_mutex_destroy(mutex); // held
    must(!thr_is_pid_active(0xfffffff0), "no such process");
}

void ip_semaphore(const std::string &directory)
{
    std::string path = directory + "/db";
    try {
        THR_IP_READ_WRITE_SEMAPHORE semaphore(path.c_str());
        semaphore.read_lock();
        result(!semaphore.try_write_lock());
        semaphore.read_unlock();
        semaphore.write_lock();
        result(!semaphore.try_read_lock());
        semaphore.write_unlock();
        if (result(semaphore.try_read_lock()))
            semaphore.read_unlock();
        // a file whose reader is gone
        CloseHandle(CreateFileA((path + ".9.rdr.flock").c_str(), GENERIC_WRITE, 0, nullptr,
                                CREATE_ALWAYS, 0, nullptr));
        result(semaphore.try_write_lock()); // held when it goes
    } catch (const VELKORA_EXCEPTION &) {
        result(false);
    }
    try {
        THR_IP_READ_WRITE_SEMAPHORE none((directory + "/none/db").c_str());
        must(false, "an exception");
    } catch (const VELKORA_EXCEPTION &exception) {
        try {
            VELKORA_ERROR_MESSAGE message("", 0, {});
            message = VELKORA_EXCEPTION(exception).get_errc().get_error_message();
            must(message[0].m_text.find("/none/db") != std::string::npos, "the message");
        } catch (const std::bad_alloc &) {
            result(false);
        }
    } catch (const std::bad_alloc &) {
        result(false);
    }
}

// --- named pipes --------------------------------------------------------------------------------

void named_pipes(const std::string &)
{
    char text[8];
    {
        THR_NAMED_PIPE server;
        if (result(server.create())) {
            THR_NAMED_PIPE client(server.get_name());
            if (result(client.open())) {
                result(server.connect());
                if (result(server.write("abc", 3) == 3)) {
                    result(client.peek(text, sizeof text) == 3);
                    result(client.read(text, sizeof text) == 3);
                }
                result(client.close());
            }
            result(server.remove());
        }
    }
    std::string name = "thr-sweep-" + std::to_string(GetCurrentProcessId());
    THR_NAMED_PIPE none((name + "-none").c_str());
    must(!none.open(), "no such pipe");
    THR_NAMED_PIPE server(name.c_str());
    if (result(server.create_r())) {
        THR_NAMED_PIPE client(name.c_str());
        if (result(client.open_w())) {
            result(server.connect_r());
            result(client.write("abcd", 4) == 4);
            result(server.read(text, 2) == 2);
            result(client.close());
        }
    }
}

// --- message pump -------------------------------------------------------------------------------

void no_events() {}

void pump(const std::string &)
{
    UINT number = thr_win32_get_registered_message("thr sweep");
    result(number != 0);
    if (!number)
        number = WM_APP;
    auto post = [&] { PostThreadMessageA(GetCurrentThreadId(), number, 0, 0); };
    post();
    post();
    result(thr_win32_pump_messages(3) == 2);
    thr_win32_post_pump_exit_event();
    post();
    result(thr_win32_pump_messages(0) == 95134);
    thr_process_exit(5);
    thr_win32_pump_messages(0);
    thr_qt_set_process_event_func(no_events);
    thr_qt_process_events();
    must(thr_qt_post_exit_event() == 1, "a post");
    thr_qt_set_process_event_func(nullptr);
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
    }
    for (THR_EVENT *event : {&thr_win32_pump_exit_event, &thr_qt_exit_event}) {
        thr_event_destroy(*event);
        *event = nullptr;
    }
}

} // namespace

const std::vector<Scenario> scenarios = {
    {"start_up", start_up,
     "DisableThreadLibraryCalls GetModuleFileNameA GetModuleHandleA SetDllDirectoryA TlsFree "
     "calloc",
     Scenario::PLAIN},
    {"threads", threads, "AddVectoredExceptionHandler RemoveVectoredExceptionHandler",
     Scenario::PLAIN},
    {"locks", locks, "", Scenario::PLAIN},
    {"pipes", pipes,
     "CloseHandle CreateProcessA GetConsoleMode GetProcessId GetStdHandle OpenJobObjectA",
     Scenario::SLOW},
    {"stopping", stopping,
     "CloseHandle CreateProcessA DuplicateHandle GetConsoleMode GetProcessId GetStdHandle "
     "OpenJobObjectA",
     Scenario::SLOW},
    {"running", running,
     "CloseHandle CreateProcessA CreatePipe DuplicateHandle GetConsoleMode GetProcessId "
     "GetStdHandle OpenJobObjectA",
     Scenario::SLOW},
    {"environment", environment, "", Scenario::PLAIN},
    {"loading", loading, "FreeLibrary GetModuleHandleA GetProcAddress LoadLibraryA",
     Scenario::ENDS},
    {"lock_files", lock_files,
     "CloseHandle CreateFileW CreateMutexA DeleteFileW GetComputerNameExA GetFileAttributesW "
     "MoveFileW OpenProcess ReleaseMutex RemoveDirectoryW WaitForSingleObject _close _time64",
     Scenario::ENDS},
    {"ip_semaphore", ip_semaphore,
     "CloseHandle CreateFileW CreateMutexA DeleteFileW FindClose FindFirstFileW FindNextFileW "
     "GetFileAttributesW ReleaseMutex WaitForSingleObject WideCharToMultiByte _close _fstat64 "
     "_open_osfhandle",
     Scenario::ENDS},
    {"named_pipes", named_pipes,
     "CloseHandle CreateFileA DisconnectNamedPipe FlushFileBuffers WaitNamedPipeA",
     Scenario::PLAIN},
    {"pump", pump, "GetMessageA PeekMessageA WaitForSingleObject", Scenario::PLAIN},
};

} // namespace sweep
