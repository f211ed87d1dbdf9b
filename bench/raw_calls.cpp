#include "raw_calls.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace raw
{

HANDLE make_event()
{
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

// --- read-write semaphore -----------------------------------------------------------------------

RwSem::RwSem() : m_no_readers(make_event()), m_no_writers(make_event()), m_readers(0), m_writers(0)
{
    InitializeCriticalSection(&m_state);
    InitializeCriticalSection(&m_writer);
    SetEvent(m_no_readers);
    SetEvent(m_no_writers);
}

RwSem::~RwSem()
{
    DeleteCriticalSection(&m_state);
    DeleteCriticalSection(&m_writer);
    CloseHandle(m_no_readers);
    CloseHandle(m_no_writers);
}

void RwSem::read_lock()
{
    EnterCriticalSection(&m_state);
    while (m_writers > 0) {
        LeaveCriticalSection(&m_state);
        WaitForSingleObject(m_no_writers, INFINITE);
        EnterCriticalSection(&m_state);
    }
    if (m_readers == 0)
        ResetEvent(m_no_readers);
    m_readers++;
    LeaveCriticalSection(&m_state);
}

void RwSem::read_unlock()
{
    EnterCriticalSection(&m_state);
    if (--m_readers == 0)
        SetEvent(m_no_readers);
    LeaveCriticalSection(&m_state);
}

void RwSem::write_lock()
{
    EnterCriticalSection(&m_state);
    if (m_writers == 0)
        ResetEvent(m_no_writers);
    m_writers++;
    while (m_readers > 0) {
        LeaveCriticalSection(&m_state);
        WaitForSingleObject(m_no_readers, INFINITE);
        EnterCriticalSection(&m_state);
    }
    LeaveCriticalSection(&m_state);
    EnterCriticalSection(&m_writer);
}

void RwSem::write_unlock()
{
    LeaveCriticalSection(&m_writer);
    EnterCriticalSection(&m_state);
    if (--m_writers == 0)
        SetEvent(m_no_writers);
    LeaveCriticalSection(&m_state);
}

// --- threads ------------------------------------------------------------------------------------

Wrapper chain_head = call_func;

void *call_func(ThreadFunc func, void *arg)
{
    return func(arg);
}

namespace
{

struct ThreadRecord {
    ThreadFunc func;
    void *arg;
    void *value;
    CRITICAL_SECTION *section;
    int is_finished;
    int is_detached;
    DWORD self_slot;
    HANDLE thread;
};

DWORD WINAPI begin_thread(void *argument)
{
    auto *record = static_cast<ThreadRecord *>(argument);
    TlsSetValue(record->self_slot, record);
    record->value = chain_head(record->func, record->arg);
    TlsSetValue(record->self_slot, nullptr);
    EnterCriticalSection(record->section);
    record->is_finished = 1;
    LeaveCriticalSection(record->section);
    return 0;
}

} // namespace

void *run_thread(DWORD self_slot, ThreadFunc func, void *arg)
{
    auto *record = static_cast<ThreadRecord *>(calloc(1, sizeof(ThreadRecord)));
    record->func = func;
    record->arg = arg;
    record->self_slot = self_slot;
    record->section = static_cast<CRITICAL_SECTION *>(calloc(1, sizeof(CRITICAL_SECTION)));
    InitializeCriticalSection(record->section);
    record->thread = CreateThread(nullptr, 0, begin_thread, record, 0, nullptr);
    WaitForSingleObject(record->thread, INFINITE);
    CloseHandle(record->thread);
    void *value = record->value;
    DeleteCriticalSection(record->section);
    free(record->section);
    SecureZeroMemory(record, sizeof *record);
    free(record);
    return value;
}

// --- lock files ---------------------------------------------------------------------------------

namespace
{

// Absolute, with the prefix that allows any length.
std::wstring long_path(const char *path)
{
    int units = MultiByteToWideChar(CP_UTF8, 0, path, -1, nullptr, 0);
    std::wstring wide(units, L'\0');
    MultiByteToWideChar(CP_UTF8, 0, path, -1, wide.data(), units);
    DWORD size = GetFullPathNameW(wide.c_str(), 0, nullptr, nullptr);
    std::wstring full(size + 1, L'\0');
    full.resize(GetFullPathNameW(wide.c_str(), size, full.data(), nullptr));
    return full.insert(0, L"\\\\?\\");
}

std::wstring temp_name(const std::wstring &path)
{
    static LONG64 number = GetCurrentProcessId() * 1000000000LL;
    wchar_t name[64];
    std::wstring directory = path.substr(0, path.find_last_of(L"\\/") + 1);
    std::wstring candidate;
    do {
        wsprintfW(name, L".velkora.%I64X.tmp",
                  InterlockedIncrement64(&number) + (uint64_t(GetCurrentThreadId()) << 32));
        candidate = directory + name;
    } while (GetFileAttributesW(candidate.c_str()) != INVALID_FILE_ATTRIBUTES);
    return candidate;
}

void remove_file(const char *path)
{
    std::wstring wide = long_path(path);
    if (DeleteFileW(wide.c_str()) || GetFileAttributesW(wide.c_str()) == INVALID_FILE_ATTRIBUTES)
        return;
    for (int attempt = 0; attempt < 100000; ++attempt) {
        if (GetFileAttributesW(wide.c_str()) == INVALID_FILE_ATTRIBUTES)
            return;
        std::wstring temp = temp_name(wide);
        if (MoveFileW(wide.c_str(), temp.c_str())) {
            DeleteFileW(temp.c_str());
            return;
        }
    }
}

bool ends_with(const std::string &text, const char *suffix)
{
    size_t length = strlen(suffix);
    return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

bool is_held(const std::string &path)
{
    HANDLE lock_file = take_lock_file(path.c_str());
    if (lock_file == INVALID_HANDLE_VALUE)
        return true;
    release_lock_file(path.c_str(), lock_file);
    return false;
}

// Whether any lock file with that suffix is held in the directory of our own one.
bool any_held(const std::string &own, const char *suffix)
{
    std::string directory = own.substr(0, own.rfind('/'));
    WIN32_FIND_DATAW entry;
    HANDLE listing = FindFirstFileW(long_path((directory + "/*" + suffix).c_str()).c_str(), &entry);
    if (listing == INVALID_HANDLE_VALUE)
        return false;
    bool any = false;
    do {
        char name[261];
        WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, entry.cFileName, -1, name, sizeof name,
                            nullptr, nullptr);
        std::string candidate = directory + "/" + name;
        if (candidate == own || (ends_with(candidate, suffix) && is_held(candidate)))
            any = true;
    } while (FindNextFileW(listing, &entry));
    FindClose(listing);
    return any;
}

} // namespace

HANDLE take_lock_file(const char *path)
{
    std::wstring wide = long_path(path);
    DeleteFileW(wide.c_str());
    SECURITY_ATTRIBUTES security = {sizeof security, nullptr, FALSE};
    return CreateFileW(wide.c_str(), GENERIC_WRITE, 0, &security, CREATE_NEW,
                       FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
}

void release_lock_file(const char *path, HANDLE lock_file)
{
    CloseHandle(lock_file);
    remove_file(path);
}

bool IpMutex::lock()
{
    while (!try_lock()) {
        DWORD code = GetLastError();
        Sleep(10);
        if (code != ERROR_FILE_EXISTS)
            return false;
    }
    return true;
}

bool IpMutex::try_lock()
{
    if (m_count == 0) {
        m_file = take_lock_file(m_path.c_str());
        if (m_file == INVALID_HANDLE_VALUE)
            return false;
    }
    m_count++;
    return true;
}

void IpMutex::unlock()
{
    if (--m_count == 0) {
        release_lock_file(m_path.c_str(), m_file);
        m_file = INVALID_HANDLE_VALUE;
    }
}

IpRwSem::IpRwSem(const std::string &path)
    : m_atomic_lock(path + ".cri"), m_writers_lock(path + ".wri"),
      m_reader_path(path + "." + std::to_string(GetCurrentProcessId()) + ".rdr.flock"),
      m_writer_path(path + "." + std::to_string(GetCurrentProcessId()) + ".wtr.flock")
{
}

void IpRwSem::read_lock()
{
    if (m_readers == 0) {
        m_atomic_lock.lock();
        while (any_held(m_writer_path, ".wtr.flock")) {
            m_atomic_lock.unlock();
            m_atomic_lock.lock();
        }
        m_reader = take_lock_file(m_reader_path.c_str());
        m_atomic_lock.unlock();
    }
    m_readers++;
}

void IpRwSem::read_unlock()
{
    if (--m_readers == 0)
        release_lock_file(m_reader_path.c_str(), m_reader);
}

void IpRwSem::write_lock()
{
    if (++m_writers > 1)
        return;
    m_atomic_lock.lock();
    m_writer = take_lock_file(m_writer_path.c_str());
    do {
        m_atomic_lock.unlock();
        m_atomic_lock.lock();
    } while (any_held(m_reader_path, ".rdr.flock"));
    m_atomic_lock.unlock();
    m_writers_lock.lock();
}

bool IpRwSem::write_try_lock()
{
    m_atomic_lock.lock();
    bool is_taken = m_writers > 0;
    if (!is_taken && m_writers_lock.try_lock()) {
        if (any_held(m_reader_path, ".rdr.flock")) {
            m_writers_lock.unlock();
        } else {
            m_writer = take_lock_file(m_writer_path.c_str());
            is_taken = true;
        }
    }
    m_writers += is_taken;
    m_atomic_lock.unlock();
    return is_taken;
}

void IpRwSem::write_unlock()
{
    if (--m_writers == 0) {
        m_writers_lock.unlock();
        release_lock_file(m_writer_path.c_str(), m_writer);
    }
}

// --- processes ----------------------------------------------------------------------------------

namespace
{

// A pipe whose write end the child inherits.
bool make_pipe(HANDLE *output, HANDLE *childs_end)
{
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read_end;
    if (!CreatePipe(&read_end, childs_end, &inheritable, 0))
        return false;
    BOOL is_made = DuplicateHandle(GetCurrentProcess(), read_end, GetCurrentProcess(), output, 0,
                                   FALSE, DUPLICATE_SAME_ACCESS);
    CloseHandle(read_end);
    return is_made;
}

HANDLE make_job(HANDLE process)
{
    char name[1024];
    snprintf(name, sizeof name, "%lu", GetProcessId(process));
    HANDLE job = CreateJobObjectA(nullptr, name);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION info = {};
    QueryInformationJobObject(job, JobObjectExtendedLimitInformation, &info, sizeof info, nullptr);
    info.BasicLimitInformation.LimitFlags |= JOB_OBJECT_LIMIT_BREAKAWAY_OK;
    SetInformationJobObject(job, JobObjectExtendedLimitInformation, &info, sizeof info);
    return job;
}

} // namespace

HANDLE start_process(char *command, HANDLE *output, HANDLE *job)
{
    STARTUPINFOA startup = {};
    PROCESS_INFORMATION process = {};
    GetStartupInfoA(&startup);
    if (!make_pipe(output, &startup.hStdOutput))
        return nullptr;
    startup.dwFlags = STARTF_USESTDHANDLES;

    DWORD mode;
    DWORD flags = CREATE_SUSPENDED | CREATE_BREAKAWAY_FROM_JOB;
    if (!GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode))
        flags |= CREATE_NO_WINDOW;
    char name[1024];
    snprintf(name, sizeof name, "%lu", GetCurrentProcessId());
    HANDLE own_job = OpenJobObjectA(JOB_OBJECT_QUERY, TRUE, name);
    if (own_job) {
        CloseHandle(own_job);
        flags &= ~CREATE_BREAKAWAY_FROM_JOB;
    }
    BOOL is_made = CreateProcessA(nullptr, command, nullptr, nullptr, TRUE, flags, nullptr, nullptr,
                                  &startup, &process);
    CloseHandle(startup.hStdOutput);
    if (!is_made)
        return nullptr;
    *job = make_job(process.hProcess);
    if (!own_job)
        AssignProcessToJobObject(*job, process.hProcess);
    ResumeThread(process.hThread);
    CloseHandle(process.hThread);
    return process.hProcess;
}

} // namespace raw
