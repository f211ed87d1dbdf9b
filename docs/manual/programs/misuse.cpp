// Lost results, and data used without its lock, which clang alone sees. scripts/consumers.sh sees
// that compilers warn at the marked lines and nowhere else.
#include "thr/thr_classes.h"

#include <utility>

struct Account {
    THR_MUTEX_OBJ mutex;
    THR_READ_WRITE_SEMAPHORE semaphore;
    int balance THR_THREAD_SAFETY(guarded_by(mutex)) = 0;
    int rate THR_THREAD_SAFETY(guarded_by(semaphore)) = 0;
};

struct Table {
    THR_IP_MUTEX_OBJ mutex{"table"};
    THR_IP_READ_WRITE_SEMAPHORE semaphore{"locks/table"};
    int entries THR_THREAD_SAFETY(guarded_by(mutex)) = 0;
    int readers THR_THREAD_SAFETY(guarded_by(semaphore)) = 0;
};

int use_right(Account &account, Table &table)
{
    THR_SCOPED_MUTEX guard(account.mutex);
    {
        THR_SCOPED_READ_LOCK reader(account.semaphore);
        account.balance += account.rate;
    }
    {
        THR_SCOPED_WRITE_LOCK writer(account.semaphore);
        account.rate++;
    }
    if (account.semaphore.try_write_lock()) {
        account.rate++;
        account.semaphore.write_unlock();
    }
    if (table.mutex.lock()) {
        table.entries++;
        table.mutex.unlock();
    }
    table.semaphore.read_lock();
    int readers = table.readers;
    table.semaphore.read_unlock();
    THR_IP_SCOPED_MUTEX first(&table.mutex);
    table.entries++;
    THR_IP_SCOPED_MUTEX second(std::move(first));
    return second.was_lock_successful() ? readers : 0;
}

void lose_results(Account &account, Table &table)
{
    thr_process_create(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); // warns
    THR_SCOPED_MUTEX{account.mutex};                                          // warns
    THR_IP_SCOPED_MUTEX(&table.mutex);                                        // warns
    account.semaphore.try_read_lock();                                        // warns
    table.mutex.lock();                                                       // warns
}

int lock_wrong(Account &account, Table &table)
{
    THR_SCOPED_READ_LOCK reader(account.semaphore);
    account.rate++; // warns: clang
    if (table.mutex.try_lock())
        table.entries++;
    table.semaphore.write_unlock(); // warns: clang
    table.semaphore.write_lock();
    table.semaphore.read_unlock(); // warns: clang
    table.semaphore.read_lock();   // still held at the end
    return account.balance;        // warns: clang
} // warns: clang
