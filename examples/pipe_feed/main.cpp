// pipe_feed: streams the lines of its input through a named pipe to a second process, which prints
// them.
//
// The server makes up a name for its pipe, starts this same program as the client and hands it the
// name on the command line. The client reads the pipe as a stream of bytes: what a read brings need
// not begin or end where a line does.
#include "thr/thr_classes.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <io.h>

#include <windows.h>

namespace
{

const char USAGE[] =
    "Usage: pipe_feed\n"
    "\n"
    "Streams the lines of standard input through a named pipe to a second process,\n"
    "which prints them, numbered.\n";

const size_t MESSAGE_SIZE = 512;

int fail(const char *what, int code)
{
    fprintf(stderr, "pipe_feed: %s (error %d)\n", what, code);
    return 1;
}

// Reads a line with its line break, or as much of one as a message holds; false at the end.
bool read_line(std::string *line)
{
    line->clear();
    int character = 0;
    while (line->size() < MESSAGE_SIZE && character != '\n' && (character = getchar()) != EOF)
        line->push_back(static_cast<char>(character));
    return !line->empty();
}

// --- client -------------------------------------------------------------------------------------

int run_client(const char *name)
{
    THR_NAMED_PIPE pipe(name);
    if (!pipe.open())
        return fail("can't open the pipe", pipe.get_error());
    char message[MESSAGE_SIZE];
    int number = 0;
    bool is_line_start = true;
    int size;
    while ((size = pipe.read(message, sizeof message)) >= 0) {
        for (int i = 0; i < size; i++) {
            if (is_line_start)
                printf("%4d  ", ++number);
            putchar(message[i]);
            is_line_start = message[i] == '\n';
        }
        fflush(stdout);
    }
    int code = pipe.get_error();
    pipe.close();
    // the server has disconnected us, or gone
    bool is_end = code == ERROR_PIPE_NOT_CONNECTED || code == ERROR_BROKEN_PIPE;
    return is_end ? 0 : fail("can't read the pipe", code);
}

// --- server -------------------------------------------------------------------------------------

struct Client {
    std::string pipe_name;
    void *process = nullptr;
    std::atomic<bool> has_ended{false};
    int exit_code = -1;
};

// Starts this program as the client of a pipe; it prints where we print.
void *start_client(const std::string &pipe_name)
{
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, sizeof program);
    std::string command = "\"" + std::string(program) + "\" --client " + pipe_name;
    thr_process_set_inherit_handles(1);
    return thr_process_create(&command[0], nullptr, nullptr, nullptr, nullptr, nullptr);
}

// A thread of ours waits for the client's end. connect() waits for a client without limit: when
// ours has ended before it opened the pipe, we open it ourselves, so that connect() returns.
void *watch_client(void *arg)
{
    Client &client = *static_cast<Client *>(arg);
    thr_process_status status = {0, -1};
    if (thr_process_wait(client.process, &status, 0) <= 0)
        thr_process_close_handle(client.process);
    client.exit_code = status.exit_code;
    client.has_ended = true;
    THR_NAMED_PIPE pipe(client.pipe_name.c_str());
    if (pipe.open()) // not when the pipe has gone, or has had its client
        pipe.close();
    return nullptr;
}

int run_server()
{
    THR_NAMED_PIPE pipe;
    if (!pipe.create())
        return fail("can't make a pipe", pipe.get_error());
    Client client;
    client.pipe_name = pipe.get_name();
    client.process = start_client(client.pipe_name);
    if (!client.process)
        return fail("can't start the client", 0);
    THR_THREAD_ID watcher = thr_thread_create(watch_client, &client, 0);

    int result = 0;
    if (!pipe.connect())
        result = fail("the client does not connect", pipe.get_error());
    else if (client.has_ended)
        result = fail("the client ended before it opened the pipe", client.exit_code);
    std::string line;
    while (result == 0 && read_line(&line)) {
        if (pipe.write(line.data(), line.size()) < 0)
            result = fail("can't write to the pipe", pipe.get_error());
    }
    pipe.remove(); // the client has read everything when this returns
    thr_thread_wait(watcher);
    if (result == 0 && client.exit_code != 0)
        result = fail("the client failed with exit code", client.exit_code);
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    // as they are, bytes 0x1A and ends of lines included
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    if (argc == 1)
        return run_server();
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        fputs(USAGE, stdout);
        return 0;
    }
    if (argc == 3 && strcmp(argv[1], "--client") == 0)
        return run_client(argv[2]);
    fprintf(stderr, "pipe_feed: wrong arguments (see --help)\n");
    return 2;
}
