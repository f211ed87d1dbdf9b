// The library's own lock, for short steps on process-wide state. Nothing that the host installed
// runs under it, a report neither. Made when the library is loaded.
#ifndef THR_THR_LOCK_H
#define THR_THR_LOCK_H

#include <mutex>

#include <windows.h>

class THR_LOCK
{
public:
    THR_LOCK() : m_next(s_first)
    {
        InitializeCriticalSection(&m_section);
        s_first = this;
    }
    THR_LOCK(const THR_LOCK &) = delete;
    THR_LOCK &operator=(const THR_LOCK &) = delete;
    ~THR_LOCK() { DeleteCriticalSection(&m_section); }
    void lock() { EnterCriticalSection(&m_section); }
    void unlock() { LeaveCriticalSection(&m_section); }

    // Lets go of each lock that the calling thread holds, for a step that never returns to its
    // holder: the end of the process runs the host's destructors, which may wait for a thread that
    // needs the lock.
    static void let_all_go()
    {
        for (THR_LOCK *lock = s_first; lock; lock = lock->m_next) {
            while (HandleToULong(lock->m_section.OwningThread) == GetCurrentThreadId())
                lock->unlock();
        }
    }

private:
    CRITICAL_SECTION m_section;
    THR_LOCK *m_next;
    inline static THR_LOCK *s_first = nullptr;
};

using THR_LOCK_GUARD = std::lock_guard<THR_LOCK>;

#endif
