#include "thr/thr.h"
#include "thr/thr_classes.h"
#include "thr/thr_interprocess.h"
#include "thr/thr_report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include <boost/optional.hpp>

struct THR_IP_MUTEX_RECORD {
    boost::optional<char *> m_lock_file_name; // from malloc; absent: can never be locked
    HANDLE m_lock_fh = THR_BAD_FILE_HANDLE;
    int32_t m_ref_count = 0;
};

namespace
{

const char SUFFIX[] = ".mtx.flock";
const uint32_t POLL_INTERVAL = 10; // milliseconds

// Takes the lock file, of a record that does not hold it.
int take(THR_IP_MUTEX mutex, bool waits)
{
    if (!mutex->m_lock_file_name)
        return 0;
    for (;;) {
        int error;
        mutex->m_lock_fh = thr_ip_lock_file_create(mutex->m_lock_file_name.get(), &error);
        if (mutex->m_lock_fh != THR_BAD_FILE_HANDLE)
            break;
        if (!waits)
            return 0;
        thr_msleep(POLL_INTERVAL);
        if (error != EEXIST)
            return 0;
    }
    mutex->m_ref_count = 1;
    return 1;
}

// Lets the lock file go, whatever the count was.
void release(THR_IP_MUTEX mutex)
{
    thr_ip_lock_file_close(mutex->m_lock_file_name.get(), mutex->m_lock_fh);
    mutex->m_ref_count = 0;
    mutex->m_lock_fh = THR_BAD_FILE_HANDLE;
}

} // namespace

THR_IP_MUTEX thr_ip_mutex_create(const char *filepath)
{
    THR_CHECK(filepath && *filepath);
    THR_HEAP_TEXT path = thr_ip_lock_file_path(filepath);
    void *mutex = malloc(sizeof(THR_IP_MUTEX_RECORD));
    THR_CHECK_AS(mutex, "mutex");
    THR_IP_MUTEX record = new (mutex) THR_IP_MUTEX_RECORD;
    if (path) {
        size_t size = strlen(path.get()) + sizeof SUFFIX;
        char *name = static_cast<char *>(malloc(size));
        THR_CHECK_AS(name, "mutex");
        snprintf(name, size, "%s%s", path.get(), SUFFIX);
        record->m_lock_file_name = name;
    }
    return record;
}

void thr_ip_mutex_destroy(THR_IP_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    if (mutex->m_ref_count > 0) {
        THR_CHECK(mutex->m_lock_fh != nullptr);
        release(mutex);
    }
    if (mutex->m_lock_file_name) {
        free(mutex->m_lock_file_name.get());
        mutex->m_lock_file_name = boost::none;
    }
    mutex->~THR_IP_MUTEX_RECORD();
    free(mutex);
}

bool thr_ip_mutex_is_good(THR_IP_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    return mutex->m_lock_file_name.has_value();
}

int thr_ip_mutex_lock(THR_IP_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    if (mutex->m_ref_count >= 1) {
        mutex->m_ref_count++;
        return 1;
    }
    return take(mutex, true);
}

int thr_ip_mutex_try_lock(THR_IP_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    if (mutex->m_ref_count >= 1) {
        mutex->m_ref_count++;
        return 1;
    }
    return take(mutex, false);
}

void thr_ip_mutex_unlock(THR_IP_MUTEX mutex)
{
    THR_CHECK(mutex != 0);
    THR_CHECK(mutex->m_lock_fh != nullptr);
    THR_CHECK(mutex->m_ref_count > 0);
    mutex->m_ref_count--;
    if (mutex->m_ref_count == 0)
        release(mutex);
}

// --- classes ------------------------------------------------------------------------------------

THR_IP_MUTEX_OBJ::THR_IP_MUTEX_OBJ(const char *path) : m_ip_mutex(thr_ip_mutex_create(path)) {}

THR_IP_MUTEX_OBJ::~THR_IP_MUTEX_OBJ()
{
    thr_ip_mutex_destroy(m_ip_mutex);
}

bool THR_IP_MUTEX_OBJ::lock()
{
    return thr_ip_mutex_lock(m_ip_mutex) != 0;
}

bool THR_IP_MUTEX_OBJ::try_lock()
{
    return thr_ip_mutex_try_lock(m_ip_mutex) != 0;
}

void THR_IP_MUTEX_OBJ::unlock()
{
    thr_ip_mutex_unlock(m_ip_mutex);
}

THR_IP_SCOPED_MUTEX::THR_IP_SCOPED_MUTEX(THR_IP_MUTEX_OBJ *mutex_obj)
    : m_mutex_obj(mutex_obj), m_locked(mutex_obj && thr_ip_mutex_lock(mutex_obj->m_ip_mutex) != 0)
{
}

THR_IP_SCOPED_MUTEX::THR_IP_SCOPED_MUTEX(THR_IP_SCOPED_MUTEX &&other) noexcept
    : m_mutex_obj(other.m_mutex_obj), m_locked(other.m_locked)
{
    other.m_mutex_obj = nullptr;
    other.m_locked = false;
}

// A guard that is assigned to itself lets its lock go and ends empty.
THR_IP_SCOPED_MUTEX &THR_IP_SCOPED_MUTEX::operator=(THR_IP_SCOPED_MUTEX &&other) noexcept
{
    release();
    m_mutex_obj = nullptr;
    m_locked = false;
    std::swap(m_mutex_obj, other.m_mutex_obj);
    std::swap(m_locked, other.m_locked);
    return *this;
}

bool THR_IP_SCOPED_MUTEX::was_lock_successful() const
{
    return m_locked;
}

THR_IP_SCOPED_MUTEX::~THR_IP_SCOPED_MUTEX()
{
    release();
}

void THR_IP_SCOPED_MUTEX::release()
{
    if (m_mutex_obj && m_locked)
        thr_ip_mutex_unlock(m_mutex_obj->m_ip_mutex);
}
