// The library's own lock, for short steps on process-wide state. Recursive, since a hook that the
// host installed may call back into the step that called it. Made when the library is loaded.
#ifndef THR_THR_LOCK_H
#define THR_THR_LOCK_H

#include <mutex>

#include <windows.h>

class THR_LOCK
{
public:
    THR_LOCK() { InitializeCriticalSection(&m_section); }
    THR_LOCK(const THR_LOCK &) = delete;
    THR_LOCK &operator=(const THR_LOCK &) = delete;
    ~THR_LOCK() { DeleteCriticalSection(&m_section); }
    void lock() { EnterCriticalSection(&m_section); }
    void unlock() { LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION m_section;
};

using THR_LOCK_GUARD = std::lock_guard<THR_LOCK>;

#endif
