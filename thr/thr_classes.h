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

/** @def THR_THREAD_SAFETY
 *  An attribute of clang's thread-safety analysis (`-Wthread-safety`), for members of a host, too:
 *  `int count THR_THREAD_SAFETY(guarded_by(mutex));`. Other compilers do not see it. The analysis
 *  knows no recursion: it warns of a second guard on one mutex in the same function. */
#ifdef __clang__
#define THR_THREAD_SAFETY(...) __attribute__((__VA_ARGS__))
#else
#define THR_THREAD_SAFETY(...)
#endif

/** @addtogroup mutex
 *  @{ */

/** A mutex with the lifetime of an object. Any thread may lock it, through THR_SCOPED_MUTEX. */
class THR_THREAD_SAFETY(capability("mutex")) THR_MUTEX_OBJ
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
class THR_THREAD_SAFETY(scoped_lockable) THR_API THR_SCOPED_MUTEX
{
public:
    /** @param mutex_obj must outlive the guard */
    THR_NODISCARD explicit THR_SCOPED_MUTEX(THR_MUTEX_OBJ &mutex_obj)
        THR_THREAD_SAFETY(acquire_capability(mutex_obj));
    THR_SCOPED_MUTEX(const THR_SCOPED_MUTEX &) = delete;
    THR_SCOPED_MUTEX &operator=(const THR_SCOPED_MUTEX &) = delete;
    ~THR_SCOPED_MUTEX() THR_THREAD_SAFETY(release_capability());

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
class THR_THREAD_SAFETY(capability("semaphore")) THR_API THR_READ_WRITE_SEMAPHORE
{
public:
    THR_READ_WRITE_SEMAPHORE();
    THR_READ_WRITE_SEMAPHORE(const THR_READ_WRITE_SEMAPHORE &) = delete;
    THR_READ_WRITE_SEMAPHORE &operator=(const THR_READ_WRITE_SEMAPHORE &) = delete;
    ~THR_READ_WRITE_SEMAPHORE();

    /** thr_rw_sem_read_lock() */
    void read_lock() THR_THREAD_SAFETY(acquire_shared_capability());
    /** thr_rw_sem_read_unlock() */
    void read_unlock() THR_THREAD_SAFETY(release_shared_capability());
    /** thr_rw_sem_read_try_lock() */
    THR_NODISCARD bool try_read_lock() THR_THREAD_SAFETY(try_acquire_shared_capability(true));
    /** thr_rw_sem_write_lock() */
    void write_lock() THR_THREAD_SAFETY(acquire_capability());
    /** thr_rw_sem_write_unlock() */
    void write_unlock() THR_THREAD_SAFETY(release_capability());
    /** thr_rw_sem_write_try_lock() */
    THR_NODISCARD bool try_write_lock() THR_THREAD_SAFETY(try_acquire_capability(true));

private:
    friend class THR_SCOPED_READ_LOCK;
    friend class THR_SCOPED_WRITE_LOCK;
    THR_RW_SEM m_rw_sem;
};

/** Holds the read lock of a semaphore for its own lifetime. */
class THR_THREAD_SAFETY(scoped_lockable) THR_API THR_SCOPED_READ_LOCK
{
public:
    /** @param semaphore must outlive the guard */
    THR_NODISCARD explicit THR_SCOPED_READ_LOCK(THR_READ_WRITE_SEMAPHORE &semaphore)
        THR_THREAD_SAFETY(acquire_shared_capability(semaphore));
    THR_SCOPED_READ_LOCK(const THR_SCOPED_READ_LOCK &) = delete;
    THR_SCOPED_READ_LOCK &operator=(const THR_SCOPED_READ_LOCK &) = delete;
    ~THR_SCOPED_READ_LOCK() THR_THREAD_SAFETY(release_capability());

private:
    THR_READ_WRITE_SEMAPHORE *m_semaphore;
};

/** Holds the write lock of a semaphore for its own lifetime. */
class THR_THREAD_SAFETY(scoped_lockable) THR_API THR_SCOPED_WRITE_LOCK
{
public:
    /** @param semaphore must outlive the guard */
    THR_NODISCARD explicit THR_SCOPED_WRITE_LOCK(THR_READ_WRITE_SEMAPHORE &semaphore)
        THR_THREAD_SAFETY(acquire_capability(semaphore));
    THR_SCOPED_WRITE_LOCK(const THR_SCOPED_WRITE_LOCK &) = delete;
    THR_SCOPED_WRITE_LOCK &operator=(const THR_SCOPED_WRITE_LOCK &) = delete;
    ~THR_SCOPED_WRITE_LOCK() THR_THREAD_SAFETY(release_capability());

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
class THR_THREAD_SAFETY(capability("mutex")) THR_API THR_IP_MUTEX_OBJ
{
public:
    /** @param path as for thr_ip_mutex_create(). A path whose directory is missing does not throw:
     *              every lock of the mutex then fails. */
    explicit THR_IP_MUTEX_OBJ(const char *path);
    THR_IP_MUTEX_OBJ(const THR_IP_MUTEX_OBJ &) = delete;
    THR_IP_MUTEX_OBJ &operator=(const THR_IP_MUTEX_OBJ &) = delete;
    /** Gives up every hold of this object at once. */
    ~THR_IP_MUTEX_OBJ();

    /** thr_ip_mutex_lock() */
    THR_NODISCARD bool lock() THR_THREAD_SAFETY(try_acquire_capability(true));
    /** thr_ip_mutex_try_lock() */
    THR_NODISCARD bool try_lock() THR_THREAD_SAFETY(try_acquire_capability(true));
    /** thr_ip_mutex_unlock() */
    void unlock() THR_THREAD_SAFETY(release_capability());

private:
    friend class THR_IP_SCOPED_MUTEX;
    THR_IP_MUTEX m_ip_mutex;
};

/** Locks an interprocess mutex for its own lifetime. Ask was_lock_successful() before touching
 *  what the mutex guards. */
class THR_THREAD_SAFETY(scoped_lockable) THR_API THR_IP_SCOPED_MUTEX
{
public:
    /** Locks, waiting as thr_ip_mutex_lock() does.
     *  @param mutex_obj null: the guard holds nothing. Must outlive the guard. */
    THR_NODISCARD explicit THR_IP_SCOPED_MUTEX(THR_IP_MUTEX_OBJ *mutex_obj)
        THR_THREAD_SAFETY(acquire_capability(mutex_obj));
    THR_IP_SCOPED_MUTEX(const THR_IP_SCOPED_MUTEX &) = delete;
    THR_IP_SCOPED_MUTEX &operator=(const THR_IP_SCOPED_MUTEX &) = delete;
    /** Takes the other guard's lock over; the other is empty then. */
    THR_IP_SCOPED_MUTEX(THR_IP_SCOPED_MUTEX &&other) noexcept;
    /** Unlocks, then takes the other guard's lock over; the other is empty then. Assigned to
     *  itself, a guard ends empty. */
    THR_IP_SCOPED_MUTEX &operator=(THR_IP_SCOPED_MUTEX &&other) noexcept;
    /** Unlocks if the lock is held. */
    ~THR_IP_SCOPED_MUTEX() THR_THREAD_SAFETY(release_capability());

    /** @return whether the guard holds the lock */
    THR_NODISCARD bool was_lock_successful() const;

private:
    void release();
    THR_IP_MUTEX_OBJ *m_mutex_obj;
    bool m_locked;
};

/** An interprocess read-write semaphore (thr_ip_rw_sem_create()) with the lifetime of an object. */
class THR_THREAD_SAFETY(capability("semaphore")) THR_API THR_IP_READ_WRITE_SEMAPHORE
{
public:
    /** @param path as for thr_ip_rw_sem_create()
     *  @throws VELKORA_EXCEPTION with THR::ERRC::FAILED_TO_CREATE_IP_MUTEX_ERRC when its directory
     *          can't be used */
    explicit THR_IP_READ_WRITE_SEMAPHORE(const char *path);
    THR_IP_READ_WRITE_SEMAPHORE(const THR_IP_READ_WRITE_SEMAPHORE &) = delete;
    THR_IP_READ_WRITE_SEMAPHORE &operator=(const THR_IP_READ_WRITE_SEMAPHORE &) = delete;
    /** Lets go of every hold of this object at once. */
    ~THR_IP_READ_WRITE_SEMAPHORE();

    /** thr_ip_rw_sem_read_lock() */
    void read_lock() THR_THREAD_SAFETY(acquire_shared_capability());
    /** thr_ip_rw_sem_read_unlock() */
    void read_unlock() THR_THREAD_SAFETY(release_shared_capability());
    /** thr_ip_rw_sem_read_try_lock() */
    THR_NODISCARD bool try_read_lock() THR_THREAD_SAFETY(try_acquire_shared_capability(true));
    /** thr_ip_rw_sem_write_lock() */
    void write_lock() THR_THREAD_SAFETY(acquire_capability());
    /** thr_ip_rw_sem_write_unlock() */
    void write_unlock() THR_THREAD_SAFETY(release_capability());
    /** thr_ip_rw_sem_write_try_lock() */
    THR_NODISCARD bool try_write_lock() THR_THREAD_SAFETY(try_acquire_capability(true));

private:
    THR_IP_RW_SEM m_ip_sem;
};

/** @} */

/** @defgroup named_pipe Named pipes
 *  @{ */

/** One end of a Windows named pipe that carries messages one way between two processes.
 *
 *  The server makes the pipe and waits for the client: create(), connect(), write(), remove(); the
 *  client, an object with the same name, does open(), read(), close(). For the other direction the
 *  server does create_r(), connect_r(), read() and the client open_w(), write().
 *
 *  Refused calls are not reported: they show in the result, and their OS error code in
 *  get_error(). Use an object for one end of one pipe. */
class THR_API THR_NAMED_PIPE
{
public:
    /** @param name the pipe's name without "\\.\pipe\", not null (internal error "name != 0").
     *              Empty: create() makes a free name up, which get_name() then tells. */
    explicit THR_NAMED_PIPE(const char *name = "");
    THR_NAMED_PIPE(const THR_NAMED_PIPE &) = delete;
    THR_NAMED_PIPE &operator=(const THR_NAMED_PIPE &) = delete;
    /** Removes a pipe that this object created, which waits, without limit, until its client has
     *  read everything or gone. A client's end stays open for good unless it is closed first:
     *  close(). */
    ~THR_NAMED_PIPE();

    /** Server: makes a pipe to write to; its calls block. Of an object that has a pipe already, the
     *  old handle is forgotten. */
    THR_NODISCARD bool create();
    /** Server: makes a pipe to read from; its calls never block. An object without a name makes the
     *  pipe of create() instead. */
    THR_NODISCARD bool create_r();
    /** Server: waits for a client; on a pipe of create_r() asks whether one has come.
     *  @return whether a client is there; false, with get_error() 536, while none has come to a
     *          pipe of create_r(), and with 232 when one has come, written and gone: read then all
     *          the same */
    THR_NODISCARD bool connect();
    /** The same as connect(). */
    THR_NODISCARD bool connect_r();
    /** Client: opens the pipe for reading; waits while it is busy, 20 seconds at a time as long as
     *  the system says that an end came free. Without a server it fails at once, with error 2, as
     *  it does for an object without a name. The client reads bytes: messages that wait together
     *  come together. */
    THR_NODISCARD bool open();
    /** Client: opens the pipe for writing; waits as open() does. */
    THR_NODISCARD bool open_w();
    /** Takes what waits, as far as the buffer goes. A client waits for something to come; a server
     *  takes one message and never waits: the first part of one that is longer than the buffer,
     *  with get_error() 234, and the rest with the next reads; 232 when there is none. At the end,
     *  when the other side has gone, a server gets 109, a client 109 or 233.
     *  @param size of the buffer in bytes, of which the low 32 bits count
     *  @return the bytes read (negative from 2 GiB on), or -1 */
    int read(void *buffer, uint64_t size);
    /** Writes a message.
     *  @param size in bytes, of which the low 32 bits count
     *  @return the bytes written, or -1 */
    int write(const void *buffer, uint64_t size);
    /** Copies what waits, as far as the buffer goes, and leaves it in the pipe; never waits.
     *  @param size as for read()
     *  @return the bytes copied, 0 when there is nothing, or -1 */
    int peek(void *buffer, uint64_t size);
    /** Client: closes its end. */
    bool close();
    /** Server: waits, without limit, until the client has read everything, disconnects it and
     *  closes the pipe.
     *  @return false when there is no client to disconnect; the pipe then stays. get_error() may
     *          tell of a refused step also when the result is true. */
    bool remove();

    /** @return the OS error code of the last refused call, 0 before any */
    int get_error() const;
    /** @return the name, owned by the object; null while an object without a name has made none up
     */
    char *get_name() const;

private:
    static const int THR_PIPE_BUFSIZE = 512;
    static const int THR_MAX_SYNTH_PIPE = 255;
    static const int THR_PIPE_TIMEOUT = 20000; // milliseconds

    bool create_server(const char *full_name, uint32_t open_mode, uint32_t pipe_mode);
    bool create_synthesized();
    bool open_client(uint32_t access);
    void set_name(const char *name);
    int partly_read(uint32_t count);
    bool refused();

    char *m_name;
    bool m_created;
    bool m_connected;
    bool m_synthesize;
    int32_t m_error;
    void *m_handle;
};

/** @} */

#endif
