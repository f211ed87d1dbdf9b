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
};

namespace
{

const char READER_SUFFIX[] = ".rdr.flock";
const char WRITER_SUFFIX[] = ".wtr.flock";

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

// Whether an entry of the directory is a held lock file of the kind. Our own file always counts,
// and is not probed.
bool is_held_entry(const char *directory, const wchar_t *entry, const char *own, const char *suffix)
{
    char name[261];
    if (thr_osi_wide_to_ansi(WC_NO_BEST_FIT_CHARS, entry, wcslen(entry) + 1, name, sizeof name) ==
        0)
        return false;
    THR_HEAP_TEXT candidate(thr_ip_join_path(directory, name));
    if (strcmp(candidate.get(), own) == 0)
        return true;
    return ends_with(candidate.get(), suffix) && thr_ip_lock_file_is_held(candidate.get());
}

// Whether any lock file of the kind is held in the semaphore's directory, whichever semaphore it
// belongs to. Every entry is looked at: probing removes the files that are left over.
bool thr_ip_rw_sem_any_held(THR_IP_RW_SEM sem, Kind kind)
{
    const char *own = kind == Kind::READER ? sem->m_readers_sem : sem->m_writers_sem;
    const char *suffix = kind == Kind::READER ? READER_SUFFIX : WRITER_SUFFIX;
    const char *pattern = kind == Kind::READER ? "*.rdr.flock" : "*.wtr.flock";

    char *directory_part;
    thr_ip_split_path(own, &directory_part, nullptr, nullptr);
    THR_HEAP_TEXT directory(directory_part);
    THR_HEAP_TEXT search(thr_ip_join_path(directory.get(), pattern));
    WIN32_FIND_DATAW entry;
    HANDLE found = FindFirstFileW(thr_osi_long_path(search.get()).c_str(), &entry);
    if (found == INVALID_HANDLE_VALUE)
        return false;
    std::unique_ptr<void, CloseListing> listing(found);
    bool any = false;
    do {
        if (is_held_entry(directory.get(), entry.cFileName, own, suffix))
            any = true;
    } while (FindNextFileW(listing.get(), &entry));
    return any;
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

void take_readers_sem(THR_IP_RW_SEM sem)
{
    sem->m_readers_sem_fh = thr_ip_lock_file_create(sem->m_readers_sem, nullptr);
    THR_CHECK(sem->m_readers_sem_fh != THR_BAD_FILE_HANDLE);
}

void take_writers_sem(THR_IP_RW_SEM sem)
{
    sem->m_writers_sem_fh = thr_ip_lock_file_create(sem->m_writers_sem, nullptr);
    THR_CHECK(sem->m_writers_sem_fh != THR_BAD_FILE_HANDLE);
}

void release_readers_sem(THR_IP_RW_SEM sem)
{
    thr_ip_lock_file_close(sem->m_readers_sem, sem->m_readers_sem_fh);
    sem->m_readers_sem_fh = THR_BAD_FILE_HANDLE;
    sem->m_readers_ref_count = 0;
}

void release_writers_sem(THR_IP_RW_SEM sem)
{
    thr_ip_mutex_unlock(sem->m_writers_lock);
    thr_ip_lock_file_close(sem->m_writers_sem, sem->m_writers_sem_fh);
    sem->m_writers_sem_fh = THR_BAD_FILE_HANDLE;
    sem->m_writers_ref_count = 0;
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
    thr_ip_mutex_lock(sem->m_atomic_lock);
    while (thr_ip_rw_sem_any_held(sem, Kind::WRITER)) {
        thr_ip_mutex_unlock(sem->m_atomic_lock);
        if (!wait)
            return 0;
        thr_ip_mutex_lock(sem->m_atomic_lock);
    }
    take_readers_sem(sem);
    sem->m_readers_ref_count++;
    thr_ip_mutex_unlock(sem->m_atomic_lock);
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
    thr_ip_mutex_lock(sem->m_atomic_lock);
    take_writers_sem(sem); // from here on new readers of every process wait
    do {
        thr_ip_mutex_unlock(sem->m_atomic_lock);
        thr_ip_mutex_lock(sem->m_atomic_lock);
    } while (thr_ip_rw_sem_any_held(sem, Kind::READER));
    thr_ip_mutex_unlock(sem->m_atomic_lock);
    thr_ip_mutex_lock(sem->m_writers_lock);
}

int thr_ip_rw_sem_write_try_lock(THR_IP_RW_SEM sem)
{
    THR_CHECK(sem);
    if (sem->m_writers_ref_count > 0) {
        sem->m_writers_ref_count++;
        return 1;
    }
    int taken = 0;
    thr_ip_mutex_lock(sem->m_atomic_lock);
    if (thr_ip_mutex_try_lock(sem->m_writers_lock)) {
        if (thr_ip_rw_sem_any_held(sem, Kind::READER)) {
            thr_ip_mutex_unlock(sem->m_writers_lock);
        } else {
            take_writers_sem(sem);
            sem->m_writers_ref_count++;
            taken = 1;
        }
    }
    thr_ip_mutex_unlock(sem->m_atomic_lock);
    return taken;
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
