// The scenarios use the library as a host does that looks at each result, and keep to plain Win32
// calls, which nobody refuses, where they wait for each other.
#include "support/test.h"

#include "run.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>

namespace
{

// An operation has told how it went.
bool result(bool is_done)
{
    run->failures += !is_done;
    return is_done;
}

template <class T> void let_through(const char *function, T *target)
{
    for (SweepGate &each : gates) {
        if (each.name == function)
            each.gate->lead_to(target);
    }
}

// Whether somebody has a file open and shares it with nobody.
bool is_held(const std::string &path)
{
    SetLastError(0);
    return !std::ifstream(path) && GetLastError() == ERROR_SHARING_VIOLATION;
}

// --- start-up -----------------------------------------------------------------------------------

// Attaches and detaches a second copy of the library, which gets the imports of the first one.
void start_up(const std::string &directory)
{
    let_through(
        "GetModuleFileNameA", +[](HMODULE, char *path, DWORD) {
            return static_cast<DWORD>(sprintf(path, "C:\\velkora\\tools\\tool.exe"));
        });
    const std::string path = directory + "\\copy.dll";
    CopyFileA(support::fixture("../thr.dll").c_str(), path.c_str(), FALSE);
    HMODULE copy = LoadLibraryExA(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    const std::vector<support::Import> from = support::imports_of(support::thr_module());
    const std::vector<support::Import> to = support::imports_of(copy);
    for (size_t i = 0; i < to.size(); ++i)
        support::set_slot(to[i].slot, *from[i].slot);
    auto *base = reinterpret_cast<char *>(copy);
    auto *headers = reinterpret_cast<IMAGE_NT_HEADERS64 *>(
        base + reinterpret_cast<IMAGE_DOS_HEADER *>(base)->e_lfanew);
    auto *entry = reinterpret_cast<BOOL(WINAPI *)(HMODULE, DWORD, void *)>(
        base + headers->OptionalHeader.AddressOfEntryPoint);
    auto *set_report_func = reinterpret_cast<decltype(&thr_set_report_func)>(
        reinterpret_cast<void *>(GetProcAddress(copy, "thr_set_report_func")));
    set_report_func(tell);
    if (result(entry(copy, DLL_PROCESS_ATTACH, nullptr)))
        entry(copy, DLL_PROCESS_DETACH, nullptr);
    FreeLibrary(copy);
}

// --- threads and locks --------------------------------------------------------------------------

// How a thread goes.
enum Way { RETURNS, EXITS, DETACHED, TERMINATED };

struct Worker {
    const Way way;
    std::atomic<HANDLE> thread = nullptr; // once it runs
    std::atomic<bool> may_go_on = false;
};

void *work(void *argument)
{
    Worker *self = static_cast<Worker *>(argument);
    self->thread = OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId());
    support::eventually([self] { return self->may_go_on.load(); });
    if (self->way == EXITS)
        thr_thread_exit(thr_thread_self());
    return thr_thread_self();
}

void threads(const std::string &)
{
    for (Way way : {RETURNS, EXITS, DETACHED, TERMINATED}) {
        Worker worker{way};
        const LONG reports = run->reports;
        THR_THREAD_ID id = thr_thread_create(work, &worker, 0);
        support::eventually([&] { return worker.thread || run->reports > reports; });
        if (way == DETACHED)
            thr_thread_detach(id);
        worker.may_go_on = true;
        if (way == RETURNS || way == EXITS)
            must(thr_thread_wait(id) == id || run->reports, "the exit value");
        must(!worker.thread || WaitForSingleObject(worker.thread, 10000) == 0, "the thread's end");
        CloseHandle(worker.thread);
        if (way == TERMINATED) // when it has ended: of one that is stopped the record stays
            thr_thread_terminate_and_possibly_crash(id);
    }
    THR_THREAD_VAR variable;
    if (result(thr_thread_var_init(&variable) == 0)) {
        must(variable != TLS_OUT_OF_INDEXES, "a slot");
        result(thr_thread_var_set(&variable, &variable) == 0);
        thr_thread_var_get(&variable);
        result(thr_thread_var_destroy(&variable) == 0);
    }
    thr_set_thread_affinity_mask(thr_get_cpu_affinity_mask());
    thr_rename_thread("sweep");
}

void locks(const std::string &)
{
    THR_MUTEX_OBJ mutex;
    (void)THR_SCOPED_MUTEX(mutex);
    THR_EVENT_OBJ event;
    event.post();
    result(event.is_posted());
    event.wait(1);
    event.pulse();
    event.reset();
    THR_READ_WRITE_SEMAPHORE semaphore;
    (void)THR_SCOPED_READ_LOCK(semaphore);
    (void)THR_SCOPED_WRITE_LOCK(semaphore);
    must(semaphore.try_read_lock() && !semaphore.try_write_lock(), "no writer beside a reader");
    semaphore.read_unlock();
    must(semaphore.try_write_lock() && !semaphore.try_read_lock(), "no reader beside a writer");
    semaphore.write_unlock();
}

// --- processes ----------------------------------------------------------------------------------

// A caller without a console has one made for each child, which takes its time.
void pretend_a_console()
{
    let_through(
        "GetConsoleMode", +[](HANDLE, DWORD *) { return TRUE; });
}

void pipes(const std::string &)
{
    pretend_a_console();
    char command[] = "\"cmd\" /k echo started"; // it waits for input then
    void *out = nullptr, *in = nullptr, *job = nullptr;
    thr_process_set_inherit_handles(1); // of its standard error
    void *process = thr_process_create_and_save_job(command, "", &out, nullptr, &in, nullptr, &job);
    thr_process_set_inherit_handles(0);
    if (result(process && out && in)) {
        uint32_t count = 0;
        char text[16];
        result(thr_process_peek(out, nullptr) == 0);
        result(thr_process_write(in, "rem\n", 4, &count) == 0);
        result(thr_process_read(out, text, sizeof text, &count) == 0);
        result(thr_process_wait(process, nullptr, 1) == 0);
    }
    thr_process_close_pipe(out);
    thr_process_close_handle(in);
    thr_process_close_handle(job);
    if (!result(thr_process_terminate(process, {0, 9}) == 0) && process) {
        TerminateProcess(process, 1);
        CloseHandle(process);
    }
}

void running(const std::string &)
{
    pretend_a_console();
    char command[] = "\"cmd\" /c exit 7"; // it takes nothing of this process's input
    result(thr_run(command) == 7);
    thr_sys_func_delete_msg(thr_sys_func_create_msg());
    result(thr_process_lower_priority() == 0);
    SetPriorityClass(GetCurrentProcess(), NORMAL_PRIORITY_CLASS);
}

// --- environment and loading --------------------------------------------------------------------

void environment(const std::string &)
{
    if (result(thr_setenv("THR_SWEEP", "b") == 0 && thr_prepend_env("THR_SWEEP", "a") == 0))
        must(std::string(getenv("THR_SWEEP")) == "a;b", "the list");
    result(thr_setenv("THR_SWEEP", nullptr) == 0);
    _putenv("THR_SWEEP=");
    thr_set_new_handler(thr_set_new_handler(nullptr));
    thr_set_terminate_handler(thr_set_terminate_handler(nullptr));
    result(thr_system(nullptr) == 1);
}

void loading(const std::string &directory)
{
    char name[64];
    thr_drl_construct_library_name(name, sizeof name - 1, "lib/version.dll");
    std::ofstream{directory + "/there.dll"};
    result(thr_drl_is_loadable((directory + "/there").c_str()) == 1);
    result(thr_drl_is_loadable("version") == 1);
    void *library = thr_drl_load("version");
    if (result(library != nullptr)) {
        result(thr_drl_is_loaded("version") == 1);
        result(thr_drl_find_function(library, "VerQueryValueA") != nullptr);
        thr_drl_unload(library);
    }
    must(!thr_drl_find_function(nullptr, "no_such"), "no function");
    must(*thr_drl_get_error_data(), "the name in the account");
    result(*thr_drl_get_system_error() != '\0');
    must(!thr_drl_load((directory + "/none").c_str()), "no library");
    result(*thr_drl_get_system_error() != '\0');
}

// --- lock files ---------------------------------------------------------------------------------

// Who comes in between the closing of a lock file and its removal. He goes after a while.
enum Holder { NOBODY, A_DIRECTORY, A_FILE } holder;
int looks;

DWORD WINAPI file_attributes(const wchar_t *path)
{
    ++looks;
    if (looks == 1 && holder == A_DIRECTORY)
        CreateDirectoryW(path, nullptr);
    if (looks == 1 && holder == A_FILE)
        CloseHandle(CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    if (looks == 100 && holder != NOBODY)
        DeleteFileW(path);
    return GetFileAttributesW(path);
}

void lock_files(const std::string &directory)
{
    let_through("GetFileAttributesW", file_attributes);
    THR_IP_MUTEX relative = thr_ip_mutex_create("relative");
    result(thr_ip_mutex_is_good(relative));
    thr_ip_mutex_destroy(relative);
    const std::string path = directory + "/db", file = path + ".mtx.flock";
    RemoveDirectoryA(file.c_str()); // of a scenario whose process has died
    auto is_locked = [&](bool success) {
        must(!result(success) || is_held(file), "a lock without its file");
        return success;
    };
    THR_IP_MUTEX_OBJ object(path.c_str());
    THR_IP_MUTEX mutex = thr_ip_mutex_create(path.c_str());
    result(thr_ip_mutex_is_good(mutex));
    is_locked(THR_IP_SCOPED_MUTEX(&object).was_lock_successful());
    for (Holder next : {A_FILE, A_DIRECTORY}) {
        if (is_locked(thr_ip_mutex_lock(mutex) == 1)) {
            must(!object.try_lock(), "no second holder");
            looks = 0;
            holder = next;
            thr_ip_mutex_unlock(mutex);
            holder = NOBODY;
        }
    }
    RemoveDirectoryA(file.c_str()); // where its removal was refused
    is_locked(thr_ip_mutex_try_lock(mutex) == 1);
    thr_ip_mutex_destroy(mutex); // held
    must(!thr_is_pid_active(0xfffffff0), "no such process");
}

void ip_semaphore(const std::string &directory)
try {
    const std::string path = directory + "/db";
    const std::string own = path + "." + std::to_string(GetCurrentProcessId());
    auto holds = [&](bool reads, bool writes) {
        must(is_held(own + ".rdr.flock") == reads && is_held(own + ".wtr.flock") == writes &&
                 is_held(path + ".wri.mtx.flock") == writes && !is_held(path + ".cri.mtx.flock"),
             "the semaphore's files");
    };
    try {
        THR_IP_READ_WRITE_SEMAPHORE semaphore(path.c_str());
        const bool reads = result(semaphore.try_read_lock());
        holds(reads, false);
        if (reads)
            semaphore.read_unlock();
        semaphore.read_lock();
        holds(true, false);
        semaphore.read_unlock();
        semaphore.write_lock();
        holds(false, true);
        semaphore.write_unlock();
        std::ofstream{path + ".9.rdr.flock"};             // its reader is gone
        holds(false, result(semaphore.try_write_lock())); // held when it goes
        THR_IP_READ_WRITE_SEMAPHORE none((directory + "/none/db").c_str());
        must(false, "an exception");
    } catch (const VELKORA_EXCEPTION &exception) {
        VELKORA_ERROR_MESSAGE message("", 0, {});
        message = VELKORA_EXCEPTION(exception).get_errc().get_error_message();
        result(message[0].m_text.find("/none/db") != std::string::npos);
    }
} catch (const std::bad_alloc &) {
    result(false);
}

// --- named pipes and the pump -------------------------------------------------------------------

void named_pipes(const std::string &directory)
{
    char text[8];
    THR_NAMED_PIPE server;
    if (result(server.create())) {
        THR_NAMED_PIPE client(server.get_name());
        result(client.open() && server.connect() && server.write("abc", 3) == 3 &&
               client.peek(text, sizeof text) == 3 && client.read(text, sizeof text) == 3);
        result(client.close());
        result(server.remove() && server.create()); // by another name
    }
    const std::string name = "thr-sweep-" + directory.substr(directory.rfind('\\') + 1);
    THR_NAMED_PIPE named(name.c_str()), client(name.c_str());
    result(named.create_r() && client.open_w() && named.connect_r() &&
           client.write("abcd", 4) == 4 && named.read(text, 2) == 2); // a part
    result(client.close());
    must(!THR_NAMED_PIPE("thr-sweep-none").open(), "no such pipe");
}

void pump(const std::string &)
{
    result(thr_win32_get_registered_message("thr sweep") != 0);
    for (int message : {WM_APP, WM_APP + 1})
        PostThreadMessageA(GetCurrentThreadId(), message, 0, 0);
    thr_win32_post_pump_exit_event();
    result(thr_win32_pump_messages(0) == 95134);
    thr_win32_pump_messages(0); // the rest
    thr_qt_set_process_event_func([] {});
    thr_qt_process_events();
    must(thr_qt_post_exit_event() == 1, "a post");
    thr_qt_set_process_event_func(nullptr);
    for (THR_EVENT *event : {&thr_win32_pump_exit_event, &thr_qt_exit_event})
        thr_event_destroy(std::exchange(*event, nullptr));
}

} // namespace

const std::vector<Scenario> scenarios = {
    {"ip_semaphore", ip_semaphore, true},
    {"start_up", start_up, false},
    {"threads", threads, false},
    {"locks", locks, false},
    {"pipes", pipes, true},
    {"running", running, true},
    {"environment", environment, false},
    {"loading", loading, false},
    {"lock_files", lock_files, true},
    {"named_pipes", named_pipes, true},
    {"pump", pump, false},
};
