#include "raw_calls.h"
#include "rows.h"

#include "thr/thr_classes.h"

#include <stdexcept>

namespace bench
{

namespace
{

void expect(bool condition, const char *what)
{
    if (!condition)
        throw std::runtime_error(what);
}

// --- processes ----------------------------------------------------------------------------------

void run_child(const std::string &program)
{
    std::string command = program;
    void *output = nullptr, *job = nullptr;
    void *process = thr_process_create_and_save_job(command.data(), nullptr, &output, nullptr,
                                                    nullptr, nullptr, &job);
    expect(process, "the library can't start a process");
    char text[256];
    uint32_t count;
    while (thr_process_read(output, text, sizeof text, &count) == 0)
        ;
    thr_process_wait(process, nullptr, 0);
    thr_process_close_pipe(output);
    thr_process_close_handle(job);
}

void run_raw_child(const std::string &program)
{
    std::string command = program;
    HANDLE output = nullptr, job = nullptr;
    HANDLE process = raw::start_process(command.data(), &output, &job);
    expect(process, "the raw calls can't start a process");
    char text[256];
    DWORD count, code;
    do
        code = ReadFile(output, text, sizeof text, &count, nullptr) ? 0 : GetLastError();
    while (code == 0);
    WaitForSingleObject(process, INFINITE);
    GetExitCodeProcess(process, &code);
    CloseHandle(process);
    CloseHandle(output);
    CloseHandle(job);
}

// --- named pipes --------------------------------------------------------------------------------

const int MESSAGE_SIZE = 64;

// One way; the server writes.
struct Pipe {
    THR_NAMED_PIPE m_server;
    THR_NAMED_PIPE m_client;

    Pipe() : m_client(m_server.create() ? m_server.get_name() : "none")
    {
        expect(m_client.open() && m_server.connect(), "a named pipe can't be made");
    }
    ~Pipe() { m_client.close(); }
    void write(const char *message) { m_server.write(message, MESSAGE_SIZE); }
    void read(char *message) { m_client.read(message, MESSAGE_SIZE); }
};

struct RawPipe {
    HANDLE m_server;
    HANDLE m_client;

    explicit RawPipe(const std::string &name)
        : m_server(CreateNamedPipeA(name.c_str(), PIPE_ACCESS_OUTBOUND,
                                    PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                    PIPE_UNLIMITED_INSTANCES, 512, 512, 0, nullptr)),
          m_client(CreateFileA(name.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr))
    {
        ConnectNamedPipe(m_server, nullptr);
        expect(m_client != INVALID_HANDLE_VALUE, "a raw named pipe can't be made");
    }
    ~RawPipe()
    {
        CloseHandle(m_client);
        CloseHandle(m_server);
    }
    DWORD m_count;
    void write(const char *message)
    {
        WriteFile(m_server, message, MESSAGE_SIZE, &m_count, nullptr);
    }
    void read(char *message) { ReadFile(m_client, message, MESSAGE_SIZE, &m_count, nullptr); }
};

// Member 0 of the crew sends a message and gets it back from member 1.
template <class OneWay> Batch round_trips(Crew &crew, OneWay &there, OneWay &back)
{
    return in_step(crew, [&](int member) {
        char message[MESSAGE_SIZE] = {};
        if (member == 0)
            there.write(message), back.read(message);
        else
            there.read(message), back.write(message);
    });
}

void pipe_row(Report &report)
{
    Pipe there, back;
    std::string name = "\\\\.\\pipe\\thr_bench" + std::to_string(GetCurrentProcessId());
    RawPipe raw_there(name + "there"), raw_back(name + "back");
    Crew crew(2);
    report.row({"named pipe message there and back",
                1.08,
                round_trips(crew, there, back),
                round_trips(crew, raw_there, raw_back),
                {},
                THREADS_BATCH});
}

// --- libraries ----------------------------------------------------------------------------------

void attach(const std::string &file)
{
    HMODULE library = LoadLibraryA(file.c_str());
    expect(library, "a library can't be loaded");
    FreeLibrary(library);
}

// A copy of the DLL, since the DLL itself is attached to this program for good.
void attach_row(Report &report, const std::string &directory, const std::string &folder)
{
    std::string copy = directory + "\\thr_copy.dll";
    expect(CopyFileA((folder + "\\thr.dll").c_str(), copy.c_str(), TRUE),
           "thr.dll can't be copied");
    std::string plain = folder + "\\thr_bench_attach.dll";
    report.row(
        {"DLL attach+detach", 1.60, repeat([=] { attach(copy); }), repeat([=] { attach(plain); })});
    DeleteFileA(copy.c_str());
}

} // namespace

void process_rows(Report &report, const std::string &directory)
{
    report.part("processes, libraries, pipes");
    const std::string program = own_program();
    const std::string folder = program.substr(0, program.rfind('\\'));
    std::string child = "\"" + folder + "\\thr_bench_child.exe\"";
    report.row({"process start+output+wait", 1.10, repeat([=] { run_child(child); }),
                repeat([=] { run_raw_child(child); })});
    HMODULE library = GetModuleHandleA("thr.dll");
    report.row({"library function lookup", 1.10,
                repeat([=] { thr_drl_find_function(library, "thr_mutex_create"); }),
                repeat([=] { GetProcAddress(library, "thr_mutex_create"); })});
    attach_row(report, directory, folder);
    pipe_row(report);
}

} // namespace bench
