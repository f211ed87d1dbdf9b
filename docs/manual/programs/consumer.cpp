// A user's program in C++17, on thr/thr_classes.h and the installed package alone. The marked parts
// are the manual's examples.
#include "thr/thr_classes.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include <windows.h>

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "consumer.cpp:%d: %s\n", __LINE__, #condition);                        \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

//! [rw_sem]
// Settings that many threads read and few change.
class Settings
{
public:
    std::string get(const std::string &name)
    {
        THR_SCOPED_READ_LOCK guard(m_semaphore);
        auto found = m_values.find(name);
        return found == m_values.end() ? "" : found->second;
    }
    void set(const std::string &name, const std::string &value)
    {
        THR_SCOPED_WRITE_LOCK guard(m_semaphore); // no reader is in, and none gets in
        m_values[name] = value;
    }

private:
    THR_READ_WRITE_SEMAPHORE m_semaphore;
    std::map<std::string, std::string> m_values;
};
//! [rw_sem]

struct Shared {
    Settings settings;
    THR_MUTEX_OBJ mutex;
    THR_EVENT_OBJ done;
    int count = 0;
};

void *work(void *arg)
{
    Shared *shared = static_cast<Shared *>(arg);
    for (int i = 1; i <= 500; i++) {
        shared->settings.set("last", std::to_string(i));
        THR_SCOPED_MUTEX guard(shared->mutex);
        shared->count++;
    }
    shared->done.post();
    return nullptr;
}

void check_threads()
{
    Shared shared;
    CHECK(shared.settings.get("last").empty());
    THR_THREAD_ID threads[3];
    for (THR_THREAD_ID &thread : threads)
        thread = thr_thread_create(work, &shared, 0);
    shared.done.wait(60000);
    CHECK(shared.done.is_posted());
    for (THR_THREAD_ID thread : threads)
        thr_thread_wait(thread);
    CHECK(shared.count == 1500);
    CHECK(shared.settings.get("last") == "500");
}

//! [exceptions]
// Opens the lock of a database, or says in words why not.
std::unique_ptr<THR_IP_READ_WRITE_SEMAPHORE> open_lock(const std::string &path, std::string *words)
{
    try {
        return std::make_unique<THR_IP_READ_WRITE_SEMAPHORE>(path.c_str());
    } catch (const VELKORA_EXCEPTION &exception) {
        for (const VELKORA_ERROR_MESSAGE::LINE &line : exception.get_errc().get_error_message())
            *words += std::string(2 * line.m_level, ' ') + line.m_text + "\n";
        return nullptr;
    }
}
//! [exceptions]

//! [interprocess_semaphore]
// The number in a file that several processes read and write. The file has a folder of its own.
int change_number(THR_IP_READ_WRITE_SEMAPHORE *lock, const char *path, int by)
{
    int number = 0;
    lock->write_lock(); // no process reads or writes now
    if (FILE *file = fopen(path, "r")) {
        if (fscanf(file, "%d", &number) != 1)
            number = 0;
        fclose(file);
    }
    if (FILE *file = fopen(path, "w")) {
        fprintf(file, "%d\n", number += by);
        fclose(file);
    }
    lock->write_unlock();
    return number;
}
//! [interprocess_semaphore]

// What a command prints.
std::string output_of(std::string command)
{
    void *pipe = nullptr;
    void *process = thr_process_create(&command[0], nullptr, &pipe, nullptr, nullptr, nullptr);
    CHECK(process && pipe);
    std::string output;
    char buffer[512];
    uint32_t count;
    while (thr_process_read(pipe, buffer, sizeof buffer, &count) == 0)
        output.append(buffer, count);
    thr_process_close_pipe(pipe);
    thr_process_status status;
    CHECK(thr_process_wait(process, &status, 0) > 0 && status.exit_code == 0);
    return output;
}

// The package's lock_status tells our reader file, and leaves alone what nobody holds.
void check_lock_status(const std::string &folder)
{
    std::string abandoned = folder + "/other.4294967292.wtr.flock";
    FILE *file = fopen(abandoned.c_str(), "w");
    CHECK(file);
    fclose(file);
    std::string output = output_of("lock_status --json \"" + folder + "\"");
    std::string id = std::to_string(thr_getpid());
    for (const std::string &part :
         {"number." + id + ".rdr.flock\", \"kind\": \"reader\"",
          "number\", \"state\": \"held\", \"process\": " + id + ", \"alive\": true}",
          std::string("\"writer\""),
          std::string("other\", \"state\": \"left over\", \"process\": 4294967292, "
                      "\"alive\": false}")})
        CHECK(output.find(part) != std::string::npos);
    CHECK(output_of("lock_status \"" + folder + "/other\"").find("left over  writer") == 0);
    CHECK(DeleteFileA(abandoned.c_str()));
    CHECK(output_of("lock_status \"" + folder + "/other\"") == "no lock file\r\n");
}

void check_interprocess()
{
    char folder[MAX_PATH];
    CHECK(GetTempPathA(sizeof folder - 32, folder));
    std::string path = folder + ("consumer_cpp-" + std::to_string(thr_getpid()));
    CHECK(CreateDirectoryA(path.c_str(), nullptr));
    std::string file = path + "/number";
    std::string words;
    {
        auto lock = open_lock(file, &words);
        CHECK(lock && words.empty());
        CHECK(change_number(lock.get(), file.c_str(), 3) == 3);
        CHECK(change_number(lock.get(), file.c_str(), 4) == 7);
        CHECK(lock->try_read_lock());
        check_lock_status(path);
        lock->read_unlock();
    }
    CHECK(DeleteFileA(file.c_str()) && RemoveDirectoryA(path.c_str())); // no lock file is left
    CHECK(!open_lock("no_such_folder/db", &words));
    CHECK(words == "Failed to create file lock on \"no_such_folder/db\"\n");

    THR_IP_MUTEX_OBJ mutex("no_such_folder/db");
    THR_IP_SCOPED_MUTEX guard(&mutex);
    CHECK(!guard.was_lock_successful());
}

//! [named_pipe]
// The client: prints what comes through the pipe of that name until the server removes it. It gets
// bytes: what a read brings need not begin or end where a message does.
int print_all(const char *name)
{
    THR_NAMED_PIPE pipe(name);
    if (!pipe.open())
        return pipe.get_error();
    char message[512];
    int size;
    while ((size = pipe.read(message, sizeof message)) >= 0)
        fwrite(message, 1, size, stdout);
    int code = pipe.get_error(); // 109 or 233: the server has gone
    pipe.close();
    return code;
}

// The server's side. The pipe's name reaches the client by other means, such as its command line.
bool send(THR_NAMED_PIPE *pipe, const std::string &message)
{
    return pipe->connect() && pipe->write(message.data(), message.size()) >= 0 &&
           pipe->remove(); // returns when the client has read everything
}
//! [named_pipe]

void *run_client(void *name)
{
    return reinterpret_cast<void *>(intptr_t{print_all(static_cast<const char *>(name))});
}

void check_pipe()
{
    THR_NAMED_PIPE pipe; // without a name: create() makes one up
    CHECK(pipe.create());
    std::string name = pipe.get_name();
    THR_THREAD_ID client = thr_thread_create(run_client, &name[0], 0);
    CHECK(send(&pipe, "consumer.cpp: a message through a pipe\n"));
    auto code = reinterpret_cast<intptr_t>(thr_thread_wait(client));
    CHECK(code == ERROR_BROKEN_PIPE || code == ERROR_PIPE_NOT_CONNECTED);
}

int main()
{
    check_threads();
    check_interprocess();
    check_pipe();
    printf("consumer.cpp: all checks passed\n");
    return 0;
}
