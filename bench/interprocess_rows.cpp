#include "raw_calls.h"
#include "rows.h"

#include "thr/thr.h"

#include <boost/interprocess/sync/file_lock.hpp>

#include <fstream>
#include <stdexcept>

namespace bench
{

namespace
{

void ip_mutex_rows(Report &report, const std::string &directory)
{
    THR_IP_MUTEX mutex = thr_ip_mutex_create((directory + "\\mutex").c_str());
    raw::IpMutex raw_mutex(directory + "/raw_mutex");
    std::string file = directory + "\\boost";
    std::ofstream(file).close(); // its file has to be there, and stays
    boost::interprocess::file_lock file_lock(file.c_str());
    auto library = [=] { (void)thr_ip_mutex_lock(mutex), thr_ip_mutex_unlock(mutex); };
    auto raw = [&] { raw_mutex.lock(), raw_mutex.unlock(); };
    report.row({"ip mutex lock+unlock",
                1.08,
                repeat(library),
                repeat(raw),
                {{"Boost file lock", repeat([&] { file_lock.lock(), file_lock.unlock(); })}}});
    (void)thr_ip_mutex_lock(mutex);
    raw_mutex.lock();
    report.row({"ip mutex lock+unlock by its holder", 1.50, repeat(library), repeat(raw)});
    thr_ip_mutex_destroy(mutex);
    raw_mutex.unlock();
    file_lock = {};
    DeleteFileA(file.c_str());
}

void ip_rw_sem_rows(Report &report, const std::string &directory)
{
    THR_IP_RW_SEM sem = thr_ip_rw_sem_create((directory + "\\sem").c_str());
    raw::IpRwSem raw_sem(directory + "/raw_sem");
    report.row({"ip rw sem read lock+unlock", 1.08,
                repeat([=] { thr_ip_rw_sem_read_lock(sem), thr_ip_rw_sem_read_unlock(sem); }),
                repeat([&] { raw_sem.read_lock(), raw_sem.read_unlock(); })});
    report.row({"ip rw sem write lock+unlock", 1.08,
                repeat([=] { thr_ip_rw_sem_write_lock(sem), thr_ip_rw_sem_write_unlock(sem); }),
                repeat([&] { raw_sem.write_lock(), raw_sem.write_unlock(); })});

    // a writer that tries and finds reader files, as of so many other processes
    std::vector<HANDLE> readers;
    for (int count : {1, 10, 100}) {
        while (static_cast<int>(readers.size()) < count) {
            std::string number = std::to_string(readers.size());
            readers.push_back(
                raw::take_lock_file((directory + "/other." + number + ".rdr.flock").c_str()));
            if (readers.back() == INVALID_HANDLE_VALUE)
                throw std::runtime_error("can't make a reader file");
        }
        report.row({"ip rw sem write try-lock, " + std::to_string(count) + " readers", 1.08,
                    repeat([=] { (void)thr_ip_rw_sem_write_try_lock(sem); }),
                    repeat([&] { raw_sem.write_try_lock(); })});
    }
    for (HANDLE file : readers)
        CloseHandle(file);
    thr_ip_rw_sem_destroy(sem);
}

} // namespace

void interprocess_rows(Report &report, const std::string &directory)
{
    report.part("between processes");
    ip_mutex_rows(report, directory);
    ip_rw_sem_rows(report, directory);
}

} // namespace bench
