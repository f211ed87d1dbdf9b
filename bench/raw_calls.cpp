#include "raw_calls.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string_view>

namespace raw
{

namespace
{

template <class T> T *new_zeroed(size_t count = 1)
{
    return static_cast<T *>(calloc(count, sizeof(T)));
}

} // namespace

CRITICAL_SECTION *make_section()
{
    auto *section = new_zeroed<CRITICAL_SECTION>();
    InitializeCriticalSection(section);
    return section;
}

void destroy_section(CRITICAL_SECTION *section)
{
    DeleteCriticalSection(section);
    free(section);
}

Event *make_event(BOOL is_posted)
{
    auto *event = new_zeroed<Event>();
    event->m_handle = CreateEventA(nullptr, TRUE, is_posted, nullptr);
    return event;
}

void destroy_event(Event *event)
{
    CloseHandle(event->m_handle);
    free(event);
}

// --- read-write semaphore -----------------------------------------------------------------------

namespace
{

// With the section held.
void wait_until_none(CRITICAL_SECTION *section, const int &count, const Event *none)
{
    while (count > 0) {
        LeaveCriticalSection(section);
        WaitForSingleObject(none->m_handle, INFINITE);
        EnterCriticalSection(section);
    }
}

void add_one(int &count, const Event *none)
{
    if (count++ == 0)
        ResetEvent(none->m_handle);
}

void subtract_one(int &count, const Event *none)
{
    if (--count == 0)
        SetEvent(none->m_handle);
}

} // namespace

RwSem::~RwSem()
{
    destroy_section(m_state);
    destroy_section(m_writer);
    destroy_event(m_no_readers);
    destroy_event(m_no_writers);
}

void RwSem::read_lock()
{
    EnterCriticalSection(m_state);
    wait_until_none(m_state, m_writers, m_no_writers);
    add_one(m_readers, m_no_readers);
    LeaveCriticalSection(m_state);
}

void RwSem::read_unlock()
{
    EnterCriticalSection(m_state);
    subtract_one(m_readers, m_no_readers);
    LeaveCriticalSection(m_state);
}

void RwSem::write_lock()
{
    EnterCriticalSection(m_state);
    add_one(m_writers, m_no_writers);
    wait_until_none(m_state, m_readers, m_no_readers);
    LeaveCriticalSection(m_state);
    EnterCriticalSection(m_writer);
}

void RwSem::write_unlock()
{
    LeaveCriticalSection(m_writer);
    EnterCriticalSection(m_state);
    subtract_one(m_writers, m_no_writers);
    LeaveCriticalSection(m_state);
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
    DWORD self_slot;
    DWORD id;
    HANDLE thread;
};

DWORD WINAPI begin_thread(void *argument)
{
    auto *record = static_cast<ThreadRecord *>(argument);
    record->id = GetCurrentThreadId();
    TlsSetValue(record->self_slot, record);
    record->value = chain_head(record->func, record->arg);
    EnterCriticalSection(record->section);
    TlsSetValue(record->self_slot, nullptr);
    record->is_finished = 1;
    LeaveCriticalSection(record->section);
    return 0;
}

} // namespace

void *run_thread(DWORD self_slot, ThreadFunc func, void *arg)
{
    auto *record = new_zeroed<ThreadRecord>();
    record->func = func;
    record->arg = arg;
    record->self_slot = self_slot;
    record->section = make_section();
    record->thread = CreateThread(nullptr, 0, begin_thread, record, 0, nullptr);
    if (record->id == GetCurrentThreadId()) // no thread waits for itself
        return nullptr;
    WaitForSingleObject(record->thread, INFINITE);
    CloseHandle(record->thread);
    void *value = record->value;
    destroy_section(record->section);
    SecureZeroMemory(record, sizeof *record);
    free(record);
    return value;
}

// --- lock files ---------------------------------------------------------------------------------

namespace
{

struct Free {
    void operator()(void *block) const { free(block); }
};
using Text = std::unique_ptr<char, Free>;
using WideText = std::unique_ptr<wchar_t, Free>;

// Absolute, with the prefix that allows any length.
WideText long_path(const char *path)
{
    const std::wstring_view prefix = L"\\\\?\\";
    int units = MultiByteToWideChar(CP_UTF8, 0, path, -1, nullptr, 0);
    WideText wide(new_zeroed<wchar_t>(units));
    MultiByteToWideChar(CP_UTF8, 0, path, -1, wide.get(), units);
    DWORD size = GetFullPathNameW(wide.get(), 0, nullptr, nullptr);
    WideText full(new_zeroed<wchar_t>(size));
    GetFullPathNameW(wide.get(), size, full.get(), nullptr);
    WideText prefixed(new_zeroed<wchar_t>(prefix.size() + size));
    wcscat(wcscpy(prefixed.get(), prefix.data()), full.get());
    return prefixed;
}

bool exists(const wchar_t *path)
{
    return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}

void remove_file(const char *path)
{
    static LONG64 number = GetCurrentProcessId() * 1000000000LL;
    WideText wide = long_path(path);
    if (DeleteFileW(wide.get()))
        return;
    for (int attempt = 0; attempt < 100000 && exists(wide.get()); ++attempt) {
        std::wstring temp = wide.get() + std::to_wstring(InterlockedIncrement64(&number));
        if (!exists(temp.c_str()) && MoveFileW(wide.get(), temp.c_str()))
            DeleteFileW(temp.c_str());
    }
}

bool ends_with(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

bool is_held(const char *path)
{
    HANDLE lock_file = take_lock_file(path);
    if (lock_file == INVALID_HANDLE_VALUE)
        return true;
    release_lock_file(path, lock_file);
    return false;
}

Text join(const char *directory, const char *name)
{
    Text joined(new_zeroed<char>(strlen(directory) + strlen(name) + 1));
    strcat(strcpy(joined.get(), directory), name);
    return joined;
}

// Whether any lock file of the pattern, "*" and a suffix, is held in the directory of our own one.
bool any_held(const char *own, const char *pattern)
{
    Text directory(_strdup(own));
    *(strrchr(directory.get(), '/') + 1) = '\0';
    Text search = join(directory.get(), pattern);
    WIN32_FIND_DATAW entry;
    HANDLE listing = FindFirstFileW(long_path(search.get()).get(), &entry);
    if (listing == INVALID_HANDLE_VALUE)
        return false;
    bool any = false;
    do {
        char name[261];
        WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, entry.cFileName, -1, name, sizeof name,
                            nullptr, nullptr);
        Text candidate = join(directory.get(), name);
        if (strcmp(candidate.get(), own) == 0 ||
            (ends_with(candidate.get(), pattern + 1) && is_held(candidate.get())))
            any = true;
    } while (FindNextFileW(listing, &entry));
    FindClose(listing);
    return any || GetLastError() != ERROR_NO_MORE_FILES;
}

} // namespace

HANDLE take_lock_file(const char *path, DWORD *code)
{
    WideText wide = long_path(path);
    DeleteFileW(wide.get());
    SECURITY_ATTRIBUTES security = {sizeof security, nullptr, FALSE};
    HANDLE file = CreateFileW(wide.get(), GENERIC_WRITE, 0, &security, CREATE_NEW,
                              FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE && code)
        *code = GetLastError();
    return file;
}

void release_lock_file(const char *path, HANDLE lock_file)
{
    CloseHandle(lock_file);
    remove_file(path);
}

bool IpMutex::lock()
{
    while (!try_lock()) {
        Sleep(10);
        if (m_code != ERROR_FILE_EXISTS)
            return false;
    }
    return true;
}

bool IpMutex::try_lock()
{
    if (m_count == 0) {
        m_file = take_lock_file(m_path.c_str(), &m_code);
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
        while (any_held(m_writer_path.c_str(), "*.wtr.flock")) {
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
    } while (any_held(m_reader_path.c_str(), "*.rdr.flock"));
    m_atomic_lock.unlock();
    m_writers_lock.lock();
}

bool IpRwSem::write_try_lock()
{
    m_atomic_lock.lock();
    bool is_taken = m_writers > 0;
    if (!is_taken && m_writers_lock.try_lock()) {
        if (any_held(m_reader_path.c_str(), "*.rdr.flock")) {
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
    static CRITICAL_SECTION *creation_lock = make_section(); // no other child inherits our pipe
    STARTUPINFOA startup = {};
    PROCESS_INFORMATION process = {};
    GetStartupInfoA(&startup);
    EnterCriticalSection(creation_lock);
    if (!make_pipe(output, &startup.hStdOutput)) {
        LeaveCriticalSection(creation_lock);
        return nullptr;
    }
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
    LeaveCriticalSection(creation_lock);
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
