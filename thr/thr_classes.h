/**
 * @file thr/thr_classes.h
 * The classes of thr and the overloads of its plain functions. C++17; the classes are for the
 * compiler family that built the DLL. Objects are used by one thread at a time unless their
 * description says otherwise.
 */
#ifndef THR_THR_CLASSES_H
#define THR_THR_CLASSES_H

#include "thr/thr.h"
#include "thr/thr_exception.h"

/** @addtogroup mutex
 *  @{ */

/** A mutex with the lifetime of an object. Any thread may lock it, through THR_SCOPED_MUTEX. */
class THR_MUTEX_OBJ
{
public:
    THR_MUTEX_OBJ() : m_mutex(thr_mutex_create()) {}
    THR_MUTEX_OBJ(const THR_MUTEX_OBJ &) = delete;
    THR_MUTEX_OBJ &operator=(const THR_MUTEX_OBJ &) = delete;
    ~THR_MUTEX_OBJ() { thr_mutex_destroy(m_mutex); }

private:
    friend class THR_SCOPED_MUTEX;
    THR_MUTEX m_mutex;
};

/** Locks a mutex for its own lifetime. Guards on one mutex may nest on one thread. */
class THR_API THR_SCOPED_MUTEX
{
public:
    /** @param mutex_obj must outlive the guard */
    explicit THR_SCOPED_MUTEX(THR_MUTEX_OBJ &mutex_obj);
    THR_SCOPED_MUTEX(const THR_SCOPED_MUTEX &) = delete;
    THR_SCOPED_MUTEX &operator=(const THR_SCOPED_MUTEX &) = delete;
    ~THR_SCOPED_MUTEX();

private:
    THR_MUTEX_OBJ *m_mutex_obj;
};

/** @} */

/** @addtogroup event
 *  @{ */

/** An event with the lifetime of an object. Any thread may use it. */
class THR_API THR_EVENT_OBJ
{
public:
    THR_EVENT_OBJ();
    THR_EVENT_OBJ(const THR_EVENT_OBJ &) = delete;
    THR_EVENT_OBJ &operator=(const THR_EVENT_OBJ &) = delete;
    ~THR_EVENT_OBJ();

    bool is_posted(); /**< thr_event_is_posted() */
    void post();      /**< thr_event_post() */
    void pulse();     /**< thr_event_pulse() */
    void reset();     /**< thr_event_reset() */
    /** thr_event_wait().
     *  @param timeout in milliseconds, of which the low 32 bits count; 0 in these means no limit
     *  @return always true */
    bool wait(uint64_t timeout);

private:
    THR_EVENT m_event;
};

/** @} */

/** @addtogroup rw_sem
 *  @{ */

/** A read-write semaphore with the lifetime of an object. Any thread may use it, by the rules of
 *  the plain functions. */
class THR_API THR_READ_WRITE_SEMAPHORE
{
public:
    THR_READ_WRITE_SEMAPHORE();
    THR_READ_WRITE_SEMAPHORE(const THR_READ_WRITE_SEMAPHORE &) = delete;
    THR_READ_WRITE_SEMAPHORE &operator=(const THR_READ_WRITE_SEMAPHORE &) = delete;
    ~THR_READ_WRITE_SEMAPHORE();

    void read_lock();      /**< thr_rw_sem_read_lock() */
    void read_unlock();    /**< thr_rw_sem_read_unlock() */
    bool try_read_lock();  /**< thr_rw_sem_read_try_lock() */
    void write_lock();     /**< thr_rw_sem_write_lock() */
    void write_unlock();   /**< thr_rw_sem_write_unlock() */
    bool try_write_lock(); /**< thr_rw_sem_write_try_lock() */

private:
    friend class THR_SCOPED_READ_LOCK;
    friend class THR_SCOPED_WRITE_LOCK;
    THR_RW_SEM m_rw_sem;
};

/** Holds the read lock of a semaphore for its own lifetime. */
class THR_API THR_SCOPED_READ_LOCK
{
public:
    /** @param semaphore must outlive the guard */
    explicit THR_SCOPED_READ_LOCK(THR_READ_WRITE_SEMAPHORE &semaphore);
    THR_SCOPED_READ_LOCK(const THR_SCOPED_READ_LOCK &) = delete;
    THR_SCOPED_READ_LOCK &operator=(const THR_SCOPED_READ_LOCK &) = delete;
    ~THR_SCOPED_READ_LOCK();

private:
    THR_READ_WRITE_SEMAPHORE *m_semaphore;
};

/** Holds the write lock of a semaphore for its own lifetime. */
class THR_API THR_SCOPED_WRITE_LOCK
{
public:
    /** @param semaphore must outlive the guard */
    explicit THR_SCOPED_WRITE_LOCK(THR_READ_WRITE_SEMAPHORE &semaphore);
    THR_SCOPED_WRITE_LOCK(const THR_SCOPED_WRITE_LOCK &) = delete;
    THR_SCOPED_WRITE_LOCK &operator=(const THR_SCOPED_WRITE_LOCK &) = delete;
    ~THR_SCOPED_WRITE_LOCK();

private:
    THR_READ_WRITE_SEMAPHORE *m_semaphore;
};

/** @} */

/** @addtogroup processes
 *  @{ */

/** The plain thr_process_exit() with `status` 0 and the given exit code. */
THR_API void thr_process_exit(int exit_code);

/** The plain thr_process_terminate() with `status` 0 and the given exit code.
 *  @param process the process handle as an integer
 *  @return as the plain function */
THR_API int thr_process_terminate(uint64_t process, int exit_code);

/** @} */

/** @addtogroup interprocess
 *  @{ */

/** Switches interprocess mode on for its lifetime, for unit tests, and then restores what was
 *  there before. */
class THR_API THR_ENABLE_INTERPROCESS_FOR_UTST
{
public:
    THR_ENABLE_INTERPROCESS_FOR_UTST();
    THR_ENABLE_INTERPROCESS_FOR_UTST(const THR_ENABLE_INTERPROCESS_FOR_UTST &) = delete;
    /** Takes over what the other object will restore; the mode itself stays. */
    THR_ENABLE_INTERPROCESS_FOR_UTST &operator=(const THR_ENABLE_INTERPROCESS_FOR_UTST &other);
    ~THR_ENABLE_INTERPROCESS_FOR_UTST();

private:
    bool m_was_enabled;
};

/** An interprocess mutex (thr_ip_mutex_create()) with the lifetime of an object. */
class THR_API THR_IP_MUTEX_OBJ
{
public:
    /** @param path as for thr_ip_mutex_create(). A path that can't be used does not throw: every
     *              lock of the mutex then fails. */
    explicit THR_IP_MUTEX_OBJ(const char *path);
    THR_IP_MUTEX_OBJ(const THR_IP_MUTEX_OBJ &) = delete;
    THR_IP_MUTEX_OBJ &operator=(const THR_IP_MUTEX_OBJ &) = delete;
    /** Gives up every hold of this process at once. */
    ~THR_IP_MUTEX_OBJ();

    bool lock();     /**< thr_ip_mutex_lock() */
    bool try_lock(); /**< thr_ip_mutex_try_lock() */
    void unlock();   /**< thr_ip_mutex_unlock() */

private:
    friend class THR_IP_SCOPED_MUTEX;
    THR_IP_MUTEX m_ip_mutex;
};

/** Locks an interprocess mutex for its own lifetime. Ask was_lock_successful() before touching
 *  what the mutex guards. */
class THR_API THR_IP_SCOPED_MUTEX
{
public:
    /** Locks, waiting as thr_ip_mutex_lock() does.
     *  @param mutex_obj null: the guard holds nothing. Must outlive the guard. */
    explicit THR_IP_SCOPED_MUTEX(THR_IP_MUTEX_OBJ *mutex_obj);
    THR_IP_SCOPED_MUTEX(const THR_IP_SCOPED_MUTEX &) = delete;
    THR_IP_SCOPED_MUTEX &operator=(const THR_IP_SCOPED_MUTEX &) = delete;
    /** Takes the other guard's lock over; the other is empty then. */
    THR_IP_SCOPED_MUTEX(THR_IP_SCOPED_MUTEX &&other) noexcept;
    /** Unlocks, then takes the other guard's lock over; the other is empty then. */
    THR_IP_SCOPED_MUTEX &operator=(THR_IP_SCOPED_MUTEX &&other) noexcept;
    /** Unlocks if the lock is held. */
    ~THR_IP_SCOPED_MUTEX();

    /** @return whether the guard holds the lock */
    bool was_lock_successful() const;

private:
    void release();
    THR_IP_MUTEX_OBJ *m_mutex_obj;
    bool m_locked;
};

/** @} */

#endif
