#include "call_count.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace bench
{

// --- counting -----------------------------------------------------------------------------------

// x86-64: lock inc qword [m_count]; jmp [m_target]; both addressed from the code.
struct CallCounter::Thunk {
    uint8_t m_code[16] = {0xf0, 0x48, 0xff, 0x05, 8, 0, 0,    0, //
                          0xff, 0x25, 10,   0,    0, 0, 0x90, 0x90};
    int64_t m_count = 0;
    void *m_target = nullptr;
};

namespace
{

// The name under which an import is counted; empty: it is not.
std::string counted_name(const support::Import &import)
{
    if (_stricmp(import.dll.c_str(), "KERNEL32.dll") == 0 ||
        _stricmp(import.dll.c_str(), "USER32.dll") == 0)
        return import.function;
    // a compiler makes one calloc of a malloc and the memset behind it
    for (const char *allocates : {"malloc", "calloc", "realloc", "_strdup"}) {
        if (import.function == allocates)
            return "malloc";
    }
    return import.function == "free" ? "free" : "";
}

} // namespace

CallCounter::CallCounter()
{
    std::vector<support::Import> imports = support::imports_of(support::thr_module());
    m_thunks = static_cast<Thunk *>(VirtualAlloc(nullptr, imports.size() * sizeof(Thunk),
                                                 MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    if (!m_thunks)
        throw std::runtime_error("no memory for code");
    for (const support::Import &import : imports) {
        std::string name = counted_name(import);
        if (name.empty())
            continue;
        Thunk *thunk = new (&m_thunks[m_names.size()]) Thunk;
        thunk->m_target = *import.slot;
        m_names.push_back(name);
        m_patches.emplace_back(import.function.c_str(), reinterpret_cast<void (*)()>(thunk));
    }
}

// The thunks' memory is not given back: a thread may be in one of them.
CallCounter::~CallCounter() = default;

Counts CallCounter::count(const std::function<void()> &run)
{
    for (size_t index = 0; index < m_names.size(); ++index)
        m_thunks[index].m_count = 0;
    run();
    Counts counts;
    for (size_t index = 0; index < m_names.size(); ++index) {
        if (m_thunks[index].m_count != 0)
            counts[m_names[index]] += static_cast<int>(m_thunks[index].m_count);
    }
    return counts;
}

namespace
{

DWORD WINAPI end_at_once(void *)
{
    return 0;
}

// Ends a thread that the library knows nothing of.
void run_plain_thread()
{
    HANDLE thread = CreateThread(nullptr, 0, end_at_once, nullptr, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
}

} // namespace

// The compiler's runtime, which is in every DLL that it links, may do something of its own whenever
// a thread of the process ends. That is no call of the library's.
Counts CallCounter::count(const CountedOperation &operation)
{
    Counts runtime = operation.ends_thread ? count(run_plain_thread) : Counts();
    Counts counts = count(operation.run);
    for (const auto &[name, of_runtime] : runtime) {
        if ((counts[name] -= of_runtime) == 0)
            counts.erase(name);
    }
    return counts;
}

// --- the steps ----------------------------------------------------------------------------------

namespace
{

Counts operator+(Counts sum, const Counts &more)
{
    for (const auto &[name, count] : more)
        sum[name] += count;
    return sum;
}

Counts operator*(int times, Counts counts)
{
    for (auto &entry : counts)
        entry.second *= times;
    return counts;
}

const Counts LOCK = {{"EnterCriticalSection", 1}};
const Counts UNLOCK = {{"LeaveCriticalSection", 1}};
const Counts TEXT = {{"malloc", 1}, {"free", 1}};
// The wide text, the absolute one, and the result with its prefix.
const Counts LONG_PATH = Counts{{"MultiByteToWideChar", 2}, {"GetFullPathNameW", 2}} + 3 * TEXT;
const Counts TAKE_FILE = LONG_PATH + Counts{{"DeleteFileW", 1}, {"CreateFileW", 1}};
// The close removes the file, so that the removal finds none.
const Counts RELEASE_FILE =
    Counts{{"CloseHandle", 1}} + LONG_PATH + Counts{{"DeleteFileW", 1}, {"GetFileAttributesW", 1}};
// The directory and the search text.
const Counts SCAN_NOTHING = 2 * TEXT + LONG_PATH + Counts{{"FindFirstFileW", 1}};

Counts scan_held(int files)
{
    return SCAN_NOTHING +
           files * (Counts{{"WideCharToMultiByte", 1}, {"FindNextFileW", 1}} + TEXT + TAKE_FILE) +
           Counts{{"FindClose", 1}};
}

void *just_return(void *value)
{
    return value;
}

} // namespace

void CountedScene::add(const std::string &name, const std::function<void()> &run,
                       const Counts &prescribed, bool ends_thread)
{
    run(); // what happens once only
    m_operations.push_back({name, run, prescribed, ends_thread});
}

void CountedScene::add_thread_operations()
{
    add("mutex create+destroy", [] { thr_mutex_destroy(thr_mutex_create()); },
        {{"malloc", 1},
         {"InitializeCriticalSection", 1},
         {"DeleteCriticalSection", 1},
         {"free", 1}});
    add(
        "mutex lock+unlock", [this] { thr_mutex_lock(m_mutex), thr_mutex_unlock(m_mutex); },
        LOCK + UNLOCK);
    add(
        "mutex try-lock+unlock", [this] { thr_mutex_try_lock(m_mutex), thr_mutex_unlock(m_mutex); },
        Counts{{"TryEnterCriticalSection", 1}} + UNLOCK);
    add("event create+destroy", [] { thr_event_destroy(thr_event_create()); },
        {{"malloc", 1}, {"CreateEventA", 1}, {"CloseHandle", 1}, {"free", 1}});
    add("event post+test+wait+reset",
        [this] {
            thr_event_post(m_event), thr_event_is_posted(m_event);
            thr_event_wait(m_event, 0), thr_event_reset(m_event);
        },
        {{"SetEvent", 1}, {"WaitForSingleObject", 2}, {"ResetEvent", 1}});
    add(
        "rw sem read lock+unlock",
        [this] { thr_rw_sem_read_lock(m_rw_sem), thr_rw_sem_read_unlock(m_rw_sem); },
        2 * (LOCK + UNLOCK) + Counts{{"ResetEvent", 1}, {"SetEvent", 1}});
    add(
        "rw sem read lock+unlock beside a reader",
        [this] { thr_rw_sem_read_lock(m_read_rw_sem), thr_rw_sem_read_unlock(m_read_rw_sem); },
        2 * (LOCK + UNLOCK));
    add(
        "rw sem write lock+unlock",
        [this] { thr_rw_sem_write_lock(m_rw_sem), thr_rw_sem_write_unlock(m_rw_sem); },
        3 * (LOCK + UNLOCK) + Counts{{"ResetEvent", 1}, {"SetEvent", 1}});
    add(
        "thread create+wait", [] { thr_thread_wait(thr_thread_create(just_return, nullptr, 0)); },
        Counts{{"malloc", 2},
               {"InitializeCriticalSection", 1},
               {"CreateThread", 1},
               {"TlsSetValue", 2},
               {"GetCurrentThreadId", 2},
               {"WaitForSingleObject", 1},
               {"CloseHandle", 1},
               {"DeleteCriticalSection", 1},
               {"free", 2}} +
            LOCK + UNLOCK,
        true);
    add("thread variable set", [this] { thr_thread_var_set(&m_var, this); }, {{"TlsSetValue", 1}});
    add("thread variable get", [this] { thr_thread_var_get(&m_var); }, {{"TlsGetValue", 1}});
    add("thread function through the chain", [] { thr_thread_wrapper(just_return, nullptr); }, {});
}

void CountedScene::add_interprocess_operations()
{
    const Counts mutex_lock = TAKE_FILE;
    const Counts mutex_unlock = RELEASE_FILE;
    add(
        "ip mutex lock+unlock",
        [this] { thr_ip_mutex_lock(m_ip_mutex), thr_ip_mutex_unlock(m_ip_mutex); },
        mutex_lock + mutex_unlock);
    add("ip mutex lock+unlock again, by its holder",
        [this] { thr_ip_mutex_lock(m_held_ip_mutex), thr_ip_mutex_unlock(m_held_ip_mutex); }, {});
    add(
        "ip rw sem read lock+unlock",
        [this] { thr_ip_rw_sem_read_lock(m_ip_rw_sem), thr_ip_rw_sem_read_unlock(m_ip_rw_sem); },
        mutex_lock + SCAN_NOTHING + TAKE_FILE + mutex_unlock + RELEASE_FILE);
    add(
        "ip rw sem write lock+unlock",
        [this] { thr_ip_rw_sem_write_lock(m_ip_rw_sem), thr_ip_rw_sem_write_unlock(m_ip_rw_sem); },
        2 * (mutex_lock + mutex_unlock) + TAKE_FILE + SCAN_NOTHING + RELEASE_FILE + mutex_lock +
            mutex_unlock);
    add(
        "ip rw sem write try-lock, 3 readers hold",
        [this] { thr_ip_rw_sem_write_try_lock(m_crowded_ip_rw_sem); },
        2 * (mutex_lock + mutex_unlock) + scan_held(HELD_READERS));
}

void CountedScene::add_process_operations()
{
    auto start_and_wait = [this] {
        void *output = nullptr, *job = nullptr;
        std::string command = m_command;
        void *process = thr_process_create_and_save_job(command.data(), nullptr, &output, nullptr,
                                                        nullptr, nullptr, &job);
        if (!process)
            throw std::runtime_error("can't start " + m_command);
        char line[64];
        thr_process_wait(process, nullptr, 0);
        thr_process_read(output, line, sizeof line, nullptr);
        thr_process_close_pipe(output);
        thr_process_close_handle(job);
    };
    const Counts pipe = {
        {"CreatePipe", 1}, {"GetCurrentProcess", 2}, {"DuplicateHandle", 1}, {"CloseHandle", 2}};
    const Counts own_job = {{"GetCurrentProcessId", 1}, {"OpenJobObjectA", 1}};
    const Counts job = {{"GetProcessId", 1},
                        {"CreateJobObjectA", 1},
                        {"QueryInformationJobObject", 1},
                        {"SetInformationJobObject", 1},
                        {"AssignProcessToJobObject", 1}};
    add("process start+wait+read", start_and_wait,
        LOCK + Counts{{"GetStartupInfoA", 1}} + pipe +
            Counts{{"GetStdHandle", 1}, {"GetConsoleMode", 1}} + own_job +
            Counts{{"CreateProcessA", 1}} + job + Counts{{"ResumeThread", 1}, {"CloseHandle", 1}} +
            UNLOCK +
            Counts{{"WaitForSingleObject", 1}, {"GetExitCodeProcess", 1}, {"CloseHandle", 1}} +
            Counts{{"ReadFile", 1}} + 2 * Counts{{"CloseHandle", 1}});
    add("library function lookup",
        [] { thr_drl_find_function(support::thr_module(), "thr_getpid"); },
        {{"GetProcAddress", 1}});
    add("named pipe write+read",
        [this] {
            char message[16] = "message";
            m_server.write(message, sizeof message), m_client.read(message, sizeof message);
        },
        {{"WriteFile", 1}, {"ReadFile", 1}});
}

CountedScene::CountedScene(const std::string &directory, const std::string &command)
    : m_directory(directory), m_command(command), m_mutex(thr_mutex_create()),
      m_event(thr_event_create()), m_rw_sem(thr_rw_sem_create()),
      m_read_rw_sem(thr_rw_sem_create()),
      m_ip_mutex(thr_ip_mutex_create((directory + "\\free").c_str())),
      m_held_ip_mutex(thr_ip_mutex_create((directory + "\\held").c_str())),
      m_ip_rw_sem(thr_ip_rw_sem_create((directory + "\\db").c_str())),
      m_client(m_server.create() ? m_server.get_name() : "none")
{
    std::string crowded = directory + "\\crowded";
    CreateDirectoryA(crowded.c_str(), nullptr);
    m_crowded_ip_rw_sem = thr_ip_rw_sem_create((crowded + "\\db").c_str());
    thr_rw_sem_read_lock(m_read_rw_sem);
    thr_thread_var_init(&m_var);
    if (!m_ip_rw_sem || !m_crowded_ip_rw_sem || !thr_ip_mutex_lock(m_held_ip_mutex) ||
        !m_client.open() || !m_server.connect())
        throw std::runtime_error("the objects of the counted operations can't be made");
    for (int reader = 0; reader < HELD_READERS; ++reader)
        m_reader_files.push_back(
            CreateFileA((crowded + "\\db." + std::to_string(reader) + ".rdr.flock").c_str(),
                        GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    add_thread_operations();
    add_interprocess_operations();
    add_process_operations();
}

CountedScene::~CountedScene()
{
    m_client.close(); // the server's own destructor waits for that
    for (HANDLE file : m_reader_files)
        CloseHandle(file);
    thr_rw_sem_read_unlock(m_read_rw_sem);
    for (THR_RW_SEM sem : {m_rw_sem, m_read_rw_sem}) {
        thr_rw_sem_destroy(sem);
        free(sem);
    }
    thr_ip_rw_sem_destroy(m_ip_rw_sem);
    thr_ip_rw_sem_destroy(m_crowded_ip_rw_sem);
    thr_ip_mutex_destroy(m_ip_mutex);
    thr_ip_mutex_destroy(m_held_ip_mutex);
    thr_thread_var_destroy(&m_var);
    thr_event_destroy(m_event);
    thr_mutex_destroy(m_mutex);
    RemoveDirectoryA((m_directory + "\\crowded").c_str());
}

} // namespace bench
