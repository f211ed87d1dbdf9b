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
