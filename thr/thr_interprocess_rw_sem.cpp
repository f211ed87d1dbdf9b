#include "thr/thr.h"
#include "thr/thr_classes.h"
#include "thr/thr_interprocess.h"
#include "thr/thr_osi_sys.h"
#include "thr/thr_report.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

// A process that reads holds its reader file; one that writes, or waits to write, holds its writer
// file. Looking for the files of others and taking one's own is one step under the atomic lock; the
// writers lock orders the writers.
struct THR_IP_RW_SEM_RECORD {
    THR_IP_MUTEX m_atomic_lock;
    THR_IP_MUTEX m_writers_lock;
    char *m_readers_sem; // this process's reader file
    char *m_writers_sem; // this process's writer file
    HANDLE m_readers_sem_fh;
    HANDLE m_writers_sem_fh;
    int32_t m_readers_ref_count;
    int32_t m_writers_ref_count;
    bool m_is_writer; // has the writers lock; not yet while it waits for readers
};

namespace
{

const char READER_SUFFIX[] = ".rdr.flock";
const char WRITER_SUFFIX[] = ".wtr.flock";

// The system refuses a name for a moment while its deletion is under way, and while a process that
// was killed in a probe still has it: what is refused is taken again.
const int MUTEX_RETRIES = 100; // each after the mutex's own pause
const int FILE_RETRIES = 10;
const uint32_t FILE_RETRY_INTERVAL = 10; // milliseconds

// Which lock files a scan looks for.
enum class Kind { READER, WRITER };

struct CloseListing {
    void operator()(HANDLE listing) const { FindClose(listing); }
};

bool ends_with(const char *text, const char *suffix)
{
    size_t length = strlen(text);
    size_t suffix_length = strlen(suffix);
    return length >= suffix_length && strcmp(text + length - suffix_length, suffix) == 0;
}

// Allocated once, where operator+ of some compilers does it twice.
THR_TEXT in_directory(const THR_TEXT &directory, const char *name)
{
    THR_TEXT path;
    path.reserve(directory.size() + strlen(name));
    path.append(directory).append(name);
    return path; // moved, where the result of append() would be copied
}

// Whether an entry of the directory is a held lock file of the kind. Our own file always counts,
// and is not probed.
bool is_held_entry(const THR_TEXT &directory, const wchar_t *entry, const char *own,
                   const char *suffix)
{
    char name[261];
    if (thr_osi_wide_to_ansi(WC_NO_BEST_FIT_CHARS, entry, wcslen(entry) + 1, name, sizeof name) ==
        0)
        return false;
    const THR_TEXT candidate = in_directory(directory, name);
    if (candidate == own)
        return true;
    return ends_with(candidate.c_str(), suffix) && thr_ip_lock_file_is_held(candidate.c_str());
}

// Whether any lock file of the kind is held in the semaphore's directory, whichever semaphore it
// belongs to. Every entry is looked at: probing removes the files that are left over.
bool thr_ip_rw_sem_any_held(THR_IP_RW_SEM sem, Kind kind)
{
    const char *own = kind == Kind::READER ? sem->m_readers_sem : sem->m_writers_sem;
    const char *suffix = kind == Kind::READER ? READER_SUFFIX : WRITER_SUFFIX;
    const char *pattern = kind == Kind::READER ? "*.rdr.flock" : "*.wtr.flock";

    // The file name that a path ends with may hold a backslash: the directory goes on to there.
    THR_TEXT directory(own, strlen(own));
    directory.resize(directory.find_last_of("/\\") + 1);
    const THR_TEXT search = in_directory(directory, pattern);
    WIN32_FIND_DATAW entry;
    HANDLE found = FindFirstFileW(thr_osi_long_path(search.c_str()).c_str(), &entry);
    if (found == INVALID_HANDLE_VALUE)
        return false;
    std::unique_ptr<void, CloseListing> listing(found);
    bool any = false;
    do {
        if (is_held_entry(directory, entry.cFileName, own, suffix))
            any = true;
    } while (FindNextFileW(listing.get(), &entry));
    // whoever comes behind the place where a listing breaks off may hold the lock
    return any || GetLastError() != ERROR_NO_MORE_FILES;
}

THR_IP_MUTEX create_atomic_lock(const char *path)
{
    size_t size = strlen(path) + 5;
    THR_HEAP_TEXT atomic_lock_id(static_cast<char *>(malloc(size)));
    THR_CHECK(atomic_lock_id);
    snprintf(atomic_lock_id.get(), size, "%s%s", path, ".cri");
    return thr_ip_mutex_create(atomic_lock_id.get());
}

THR_IP_MUTEX create_writers_lock(const char *path)
{
    size_t size = strlen(path) + 5;
    THR_HEAP_TEXT writers_lock_id(static_cast<char *>(malloc(size)));
    THR_CHECK(writers_lock_id);
    snprintf(writers_lock_id.get(), size, "%s%s", path, ".wri");
    return thr_ip_mutex_create(writers_lock_id.get());
}

// Names the process's own files.
void make_own_names(THR_IP_RW_SEM sem, const char *path)
{
    char pid[65];
    snprintf(pid, sizeof pid, "%d", thr_getpid());
    size_t size = strlen(path) + strlen(pid) + 12;
    sem->m_writers_sem = static_cast<char *>(malloc(size));
    THR_CHECK(sem->m_writers_sem);
    snprintf(sem->m_writers_sem, size, "%s.%s%s", path, pid, WRITER_SUFFIX);
    sem->m_readers_sem = static_cast<char *>(malloc(size));
    THR_CHECK(sem->m_readers_sem);
    snprintf(sem->m_readers_sem, size, "%s.%s%s", path, pid, READER_SUFFIX);
}

// Takes one of the process's own files; THR_BAD_FILE_HANDLE when it stays refused.
HANDLE take_file(const char *name)
{
    HANDLE file = thr_ip_lock_file_create(name, nullptr);
    for (int retry = 0; file == THR_BAD_FILE_HANDLE && retry < FILE_RETRIES; retry++) {
        thr_msleep(FILE_RETRY_INTERVAL);
        file = thr_ip_lock_file_create(name, nullptr);
    }
    return file;
}

// False when the mutex stays refused.
bool is_locked(THR_IP_MUTEX mutex)
{
    int taken = thr_ip_mutex_lock(mutex);
    for (int retry = 0; !taken && retry < MUTEX_RETRIES; retry++)
        taken = thr_ip_mutex_lock(mutex);
    return taken != 0;
}

// A lock without its mutex would exclude nobody: the process ends, as at the unlock of a mutex that
// is not held.
void lock_mutex(THR_IP_MUTEX mutex)
{
    if (!is_locked(mutex))
        thr_ip_mutex_unlock(mutex);
}

void release_readers_sem(THR_IP_RW_SEM sem)
{
    thr_ip_lock_file_close(sem->m_readers_sem, sem->m_readers_sem_fh);
    sem->m_readers_sem_fh = THR_BAD_FILE_HANDLE;
    sem->m_readers_ref_count = 0;
}

void close_writers_sem(THR_IP_RW_SEM sem)
{
    thr_ip_lock_file_close(sem->m_writers_sem, sem->m_writers_sem_fh);
    sem->m_writers_sem_fh = THR_BAD_FILE_HANDLE;
    sem->m_writers_ref_count = 0;
}

// Also of a record that is destroyed, at the end of the process, while its write lock still waits.
void release_writers_sem(THR_IP_RW_SEM sem)
{
    if (sem->m_is_writer)
        thr_ip_mutex_unlock(sem->m_writers_lock);
    sem->m_is_writer = false;
    close_writers_sem(sem);
}

// As lock_mutex(), and takes back what a write lock has announced: nobody shall wait for it while a
// report is shown.
void lock_mutex_to_write(THR_IP_RW_SEM sem, THR_IP_MUTEX mutex)
{
    if (!is_locked(mutex)) {
        close_writers_sem(sem);
        thr_ip_mutex_unlock(mutex);
    }
}

int thr_ip_rw_sem_read_acquire(THR_IP_RW_SEM sem, bool wait)
{
    THR_CHECK(sem);
    if (sem->m_readers_ref_count > 0) {
        sem->m_readers_ref_count++;
        return 1;
    }
    if (wait)
        THR_CHECK(sem->m_writers_ref_count == 0); // it would wait for itself
    lock_mutex(sem->m_atomic_lock);
    while (thr_ip_rw_sem_any_held(sem, Kind::WRITER)) {
        thr_ip_mutex_unlock(sem->m_atomic_lock);
        if (!wait)
            return 0;
        lock_mutex(sem->m_atomic_lock);
    }
    sem->m_readers_sem_fh = take_file(sem->m_readers_sem);
    if (sem->m_readers_sem_fh != THR_BAD_FILE_HANDLE)
        sem->m_readers_ref_count++;
    thr_ip_mutex_unlock(sem->m_atomic_lock);
    THR_CHECK(sem->m_readers_sem_fh != THR_BAD_FILE_HANDLE);
    return 1;
}

} // namespace

THR_IP_RW_SEM thr_ip_rw_sem_create(const char *filepath)
{
    THR_CHECK(filepath && *filepath);
    THR_HEAP_TEXT path = thr_ip_lock_file_path(filepath);
    if (!path)
        return nullptr;
    THR_IP_RW_SEM sem = static_cast<THR_IP_RW_SEM>(malloc(sizeof *sem));
    THR_CHECK(sem);
    memset(sem, 0, sizeof *sem);
    sem->m_atomic_lock = create_atomic_lock(path.get());
    if (!thr_ip_mutex_is_good(sem->m_atomic_lock)) {
        thr_ip_mutex_destroy(sem->m_atomic_lock);
        free(sem);
        return nullptr;
    }
    sem->m_writers_lock = create_writers_lock(path.get());
    if (!thr_ip_mutex_is_good(sem->m_writers_lock)) {
        thr_ip_mutex_destroy(sem->m_atomic_lock);
        thr_ip_mutex_destroy(sem->m_writers_lock);
        free(sem);
        return nullptr;
    }
    make_own_names(sem, path.get());
    sem->m_readers_sem_fh = THR_BAD_FILE_HANDLE;
    sem->m_writers_sem_fh = THR_BAD_FILE_HANDLE;
    return sem;
}

void thr_ip_rw_sem_destroy(THR_IP_RW_SEM sem)
{
    THR_CHECK(sem);
    if (sem->m_readers_ref_count > 0)
        release_readers_sem(sem);
    if (sem->m_writers_ref_count > 0)
        release_writers_sem(sem);
    free(sem->m_writers_sem);
    free(sem->m_readers_sem);
    sem->m_writers_sem = nullptr;
    sem->m_readers_sem = nullptr;
    thr_ip_mutex_destroy(sem->m_atomic_lock);
    thr_ip_mutex_destroy(sem->m_writers_lock);
    free(sem);
}

void thr_ip_rw_sem_read_lock(THR_IP_RW_SEM sem)
{
    thr_ip_rw_sem_read_acquire(sem, true);
}

int thr_ip_rw_sem_read_try_lock(THR_IP_RW_SEM sem)
{
    return thr_ip_rw_sem_read_acquire(sem, false);
}

void thr_ip_rw_sem_read_unlock(THR_IP_RW_SEM sem)
{
    THR_CHECK(sem);
    THR_CHECK(sem->m_readers_ref_count > 0);
    sem->m_readers_ref_count--;
    if (sem->m_readers_ref_count == 0)
        release_readers_sem(sem);
}

void thr_ip_rw_sem_write_lock(THR_IP_RW_SEM sem)
{
    THR_CHECK(sem);
    THR_CHECK(sem->m_readers_ref_count == 0); // it would wait for itself
    sem->m_writers_ref_count++;
    if (sem->m_writers_ref_count > 1)
        return;
    lock_mutex_to_write(sem, sem->m_atomic_lock);
    sem->m_writers_sem_fh = take_file(sem->m_writers_sem); // from here on new readers wait
    if (sem->m_writers_sem_fh == THR_BAD_FILE_HANDLE) {
        close_writers_sem(sem);
        thr_ip_mutex_unlock(sem->m_atomic_lock);
        THR_CHECK(sem->m_writers_sem_fh != THR_BAD_FILE_HANDLE);
    }
    do {
        thr_ip_mutex_unlock(sem->m_atomic_lock);
        lock_mutex_to_write(sem, sem->m_atomic_lock);
    } while (thr_ip_rw_sem_any_held(sem, Kind::READER));
    thr_ip_mutex_unlock(sem->m_atomic_lock);
    lock_mutex_to_write(sem, sem->m_writers_lock);
    sem->m_is_writer = true;
}

int thr_ip_rw_sem_write_try_lock(THR_IP_RW_SEM sem)
{
    THR_CHECK(sem);
    if (sem->m_writers_ref_count > 0) {
        sem->m_writers_ref_count++;
        return 1;
    }
    bool is_free = false;
    lock_mutex(sem->m_atomic_lock);
    if (thr_ip_mutex_try_lock(sem->m_writers_lock)) {
        is_free = !thr_ip_rw_sem_any_held(sem, Kind::READER);
        if (is_free)
            sem->m_writers_sem_fh = take_file(sem->m_writers_sem);
        sem->m_is_writer = sem->m_writers_sem_fh != THR_BAD_FILE_HANDLE;
        if (sem->m_is_writer)
            sem->m_writers_ref_count++;
        else
            thr_ip_mutex_unlock(sem->m_writers_lock);
    }
    thr_ip_mutex_unlock(sem->m_atomic_lock);
    if (is_free)
        THR_CHECK(sem->m_writers_sem_fh != THR_BAD_FILE_HANDLE);
    return is_free;
}

void thr_ip_rw_sem_write_unlock(THR_IP_RW_SEM sem)
{
    THR_CHECK(sem);
    THR_CHECK(sem->m_writers_ref_count > 0);
    sem->m_writers_ref_count--;
    if (sem->m_writers_ref_count == 0)
        release_writers_sem(sem);
}

// --- class --------------------------------------------------------------------------------------

THR_IP_READ_WRITE_SEMAPHORE::THR_IP_READ_WRITE_SEMAPHORE(const char *path)
    : m_ip_sem(thr_ip_rw_sem_create(path))
{
    if (!m_ip_sem)
        throw VELKORA_EXCEPTION(std::in_place_type<THR::ERRC::FAILED_TO_CREATE_IP_MUTEX_ERRC>,
                                path);
}

THR_IP_READ_WRITE_SEMAPHORE::~THR_IP_READ_WRITE_SEMAPHORE()
{
    thr_ip_rw_sem_destroy(m_ip_sem);
    m_ip_sem = nullptr;
}

void THR_IP_READ_WRITE_SEMAPHORE::read_lock()
{
    thr_ip_rw_sem_read_lock(m_ip_sem);
}

void THR_IP_READ_WRITE_SEMAPHORE::read_unlock()
{
    thr_ip_rw_sem_read_unlock(m_ip_sem);
}

bool THR_IP_READ_WRITE_SEMAPHORE::try_read_lock()
{
    return thr_ip_rw_sem_read_try_lock(m_ip_sem) != 0;
}

void THR_IP_READ_WRITE_SEMAPHORE::write_lock()
{
    thr_ip_rw_sem_write_lock(m_ip_sem);
}

void THR_IP_READ_WRITE_SEMAPHORE::write_unlock()
{
    thr_ip_rw_sem_write_unlock(m_ip_sem);
}

bool THR_IP_READ_WRITE_SEMAPHORE::try_write_lock()
{
    return thr_ip_rw_sem_write_try_lock(m_ip_sem) != 0;
}
