// What no noise of the machine touches: the platform calls that thr.dll makes for an operation,
// counted call by call, and those that the operation's steps prescribe.
#ifndef THR_BENCH_CALL_COUNT_H
#define THR_BENCH_CALL_COUNT_H

#include "support/import_patch.h"

#include "thr/thr_classes.h"

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <windows.h>

namespace bench
{

// Calls by name. A function that was not called is not there.
using Counts = std::map<std::string, int>;

struct CountedOperation {
    std::string name;
    std::function<void()> run;
    Counts prescribed;
    bool ends_thread = false;
};

// Counts, on every thread, what thr.dll calls in KERNEL32 and USER32 and, as "malloc" and "free",
// in the runtime's heap. For as long as it is there, and only one at a time.
class CallCounter
{
public:
    CallCounter();
    ~CallCounter();
    CallCounter(const CallCounter &) = delete;
    CallCounter &operator=(const CallCounter &) = delete;

    // The calls of one run of the operation.
    Counts count(const CountedOperation &operation);
    Counts count(const std::function<void()> &run);

private:
    struct Thunk; // a few bytes of code that count a call and pass it on
    Thunk *m_thunks;
    std::vector<std::string> m_names; // of the thunks
    std::list<support::ImportPatch> m_patches;
};

// The objects that the counted operations work on.
class CountedScene
{
public:
    // Works in `directory`, which holds no reader file. `command` starts a program that writes a
    // line to its standard output.
    CountedScene(const std::string &directory, const std::string &command);
    ~CountedScene();
    CountedScene(const CountedScene &) = delete;
    CountedScene &operator=(const CountedScene &) = delete;

    // Each has run once.
    const std::vector<CountedOperation> &operations() const { return m_operations; }

    static const int HELD_READERS = 3; // reader files of others, in the last scan

private:
    void add(const std::string &name, const std::function<void()> &run, const Counts &prescribed,
             bool ends_thread = false);
    void add_thread_operations();
    void add_interprocess_operations();
    void add_process_operations();

    std::string m_directory;
    std::string m_command;
    THR_MUTEX m_mutex;
    THR_EVENT m_event;
    THR_RW_SEM m_rw_sem;
    THR_RW_SEM m_read_rw_sem; // somebody reads
    THR_THREAD_VAR m_var;
    THR_IP_MUTEX m_ip_mutex;
    THR_IP_MUTEX m_held_ip_mutex;
    THR_IP_RW_SEM m_ip_rw_sem;
    THR_IP_RW_SEM m_crowded_ip_rw_sem; // in a directory with reader files
    std::vector<HANDLE> m_reader_files;
    THR_NAMED_PIPE m_server;
    THR_NAMED_PIPE m_client;
    std::vector<CountedOperation> m_operations;
};

} // namespace bench

#endif
