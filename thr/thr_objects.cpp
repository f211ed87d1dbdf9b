#include "thr/thr_objects.h"

#include "thr/thr.h"
#include "thr/thr_classes.h"
#include "thr/thr_lock.h"
#include "thr/thr_owner.h"
#include "thr/thr_report.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <exception>
#include <new>

// --- mutex --------------------------------------------------------------------------------------

THR_SCOPED_MUTEX::THR_SCOPED_MUTEX(THR_MUTEX_OBJ &mutex_obj) : m_mutex_obj(&mutex_obj)
{
    thr_mutex_lock(m_mutex_obj->m_mutex);
}

THR_SCOPED_MUTEX::~THR_SCOPED_MUTEX()
{
    thr_mutex_unlock(m_mutex_obj->m_mutex);
}

// --- event --------------------------------------------------------------------------------------

THR_EVENT_OBJ::THR_EVENT_OBJ() : m_event(thr_event_create()) {}

THR_EVENT_OBJ::~THR_EVENT_OBJ()
{
    thr_event_destroy(m_event);
}

bool THR_EVENT_OBJ::is_posted()
{
    return thr_event_is_posted(m_event) != 0;
}

void THR_EVENT_OBJ::post()
{
    thr_event_post(m_event);
}

void THR_EVENT_OBJ::pulse()
{
    thr_event_pulse(m_event);
}

void THR_EVENT_OBJ::reset()
{
    thr_event_reset(m_event);
}

bool THR_EVENT_OBJ::wait(uint64_t timeout)
{
    return thr_event_wait(m_event, static_cast<uint32_t>(timeout)) != 0;
}

// --- read-write semaphore -----------------------------------------------------------------------

THR_READ_WRITE_SEMAPHORE::THR_READ_WRITE_SEMAPHORE() : m_rw_sem(thr_rw_sem_create()) {}

THR_READ_WRITE_SEMAPHORE::~THR_READ_WRITE_SEMAPHORE()
{
    thr_rw_sem_destroy(m_rw_sem);
    free(m_rw_sem);
    m_rw_sem = nullptr;
}

void THR_READ_WRITE_SEMAPHORE::read_lock()
{
    thr_rw_sem_read_lock(m_rw_sem);
}

void THR_READ_WRITE_SEMAPHORE::read_unlock()
{
    thr_rw_sem_read_unlock(m_rw_sem);
}

bool THR_READ_WRITE_SEMAPHORE::try_read_lock()
{
    return thr_rw_sem_read_try_lock(m_rw_sem) != 0;
}

void THR_READ_WRITE_SEMAPHORE::write_lock()
{
    thr_rw_sem_write_lock(m_rw_sem);
}

void THR_READ_WRITE_SEMAPHORE::write_unlock()
{
    thr_rw_sem_write_unlock(m_rw_sem);
}

bool THR_READ_WRITE_SEMAPHORE::try_write_lock()
{
    return thr_rw_sem_write_try_lock(m_rw_sem) != 0;
}

THR_SCOPED_READ_LOCK::THR_SCOPED_READ_LOCK(THR_READ_WRITE_SEMAPHORE &semaphore)
    : m_semaphore(&semaphore)
{
    thr_rw_sem_read_lock(m_semaphore->m_rw_sem);
}

THR_SCOPED_READ_LOCK::~THR_SCOPED_READ_LOCK()
{
    thr_rw_sem_read_unlock(m_semaphore->m_rw_sem);
}

THR_SCOPED_WRITE_LOCK::THR_SCOPED_WRITE_LOCK(THR_READ_WRITE_SEMAPHORE &semaphore)
    : m_semaphore(&semaphore)
{
    thr_rw_sem_write_lock(m_semaphore->m_rw_sem);
}

THR_SCOPED_WRITE_LOCK::~THR_SCOPED_WRITE_LOCK()
{
    thr_rw_sem_write_unlock(m_semaphore->m_rw_sem);
}

// --- overloads ----------------------------------------------------------------------------------

void thr_process_exit(int exit_code)
{
    thr_process_exit(thr_process_status{0, exit_code});
}

int thr_process_terminate(uint64_t process, int exit_code)
{
    return thr_process_terminate(reinterpret_cast<void *>(process),
                                 thr_process_status{0, exit_code});
}

// --- environment --------------------------------------------------------------------------------

namespace
{

const size_t LONGEST = 32766; // characters that the system keeps of a name and of a value

THR_LOCK environment_lock; // the runtime's own calls do not exclude each other

// False when the system refuses.
bool ansi_to_wide(const char *text, THR_WIDE_TEXT *wide)
{
    int size = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    wide->resize(size);
    if (MultiByteToWideChar(CP_ACP, 0, text, -1, wide->data(), size) == 0 || size == 0)
        return false;
    wide->pop_back(); // its end
    return true;
}

bool is_too_long(const char *text)
{
    THR_WIDE_TEXT wide;
    return strlen(text) > LONGEST && !(ansi_to_wide(text, &wide) && wide.size() <= LONGEST);
}

} // namespace

int thr_setenv(const char *name, const char *value)
{
    THR_CHECK(name != 0);
    if (!value)
        value = "";
    size_t size = strlen(name) + 1 + strlen(value) + 1;
    THR_HEAP_TEXT str(static_cast<char *>(malloc(size)));
    THR_CHECK(str);
    snprintf(str.get(), size, "%s=%s", name, value);
    if (is_too_long(name) || is_too_long(value))
        return -1;
    THR_LOCK_GUARD guard(environment_lock);
    return _putenv(str.get());
}

// In wide characters, so that what the ANSI code page can't spell stays in the list.
int thr_prepend_env(const char *name, const char *value)
{
    THR_CHECK(name != 0);
    if (!value)
        return -1;
    THR_WIDE_TEXT wide_name;
    THR_WIDE_TEXT list;
    THR_WIDE_TEXT assignment;
    if (!ansi_to_wide(name, &wide_name) || !ansi_to_wide(value, &list))
        return -1;
    assignment.reserve(wide_name.size() + 1 + LONGEST); // nothing is allocated under the lock
    list.reserve(list.size() + 1 + LONGEST);
    wchar_t current[LONGEST + 1];
    THR_LOCK_GUARD guard(environment_lock);
    SetLastError(ERROR_SUCCESS);
    DWORD length = GetEnvironmentVariableW(wide_name.c_str(), current, LONGEST + 1);
    if (length > LONGEST)
        return -1;
    if (length == 0 && GetLastError() != ERROR_SUCCESS && GetLastError() != ERROR_ENVVAR_NOT_FOUND)
        return -1; // rather than lose the list
    if (length > 0 || GetLastError() == ERROR_SUCCESS)
        list.append(1, L';').append(current, length);
    if (wide_name.size() > LONGEST || list.size() > LONGEST)
        return -1;
    assignment.append(wide_name).append(1, L'=').append(list);
    return _wputenv(assignment.c_str());
}

// --- handlers -----------------------------------------------------------------------------------

namespace
{

THR_MUTEX handler_mutex;

} // namespace

void thr_handlers_init()
{
    handler_mutex = thr_mutex_create();
}

void thr_handlers_fini()
{
    thr_mutex_destroy(handler_mutex);
    handler_mutex = nullptr;
}

THR_HANDLER thr_set_new_handler(THR_HANDLER handler)
{
    thr_mutex_lock(handler_mutex);
    THR_HANDLER previous = std::set_new_handler(handler);
    thr_mutex_unlock(handler_mutex);
    return previous;
}

THR_HANDLER thr_set_terminate_handler(THR_HANDLER handler)
{
    thr_mutex_lock(handler_mutex);
    THR_HANDLER previous = std::set_terminate(handler);
    thr_mutex_unlock(handler_mutex);
    return previous;
}
