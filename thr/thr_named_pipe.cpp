#include "thr/thr_classes.h"
#include "thr/thr_report.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <windows.h>

namespace
{

// Only the first instance: a name that any other server has is refused with ERROR_ACCESS_DENIED.
const uint32_t OUTBOUND = PIPE_ACCESS_OUTBOUND | FILE_FLAG_FIRST_PIPE_INSTANCE;
const uint32_t INBOUND = PIPE_ACCESS_INBOUND | FILE_FLAG_FIRST_PIPE_INSTANCE;
static_assert(OUTBOUND == 0x80002 && INBOUND == 0x80001, "the open modes of the contract");
const uint32_t BLOCKING = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT;
const uint32_t NON_BLOCKING = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_NOWAIT;

// The name that the system knows a pipe by; cut to what its buffer holds.
struct FullName {
    char m_text[513];
    explicit FullName(const char *name)
    {
        snprintf(m_text, sizeof m_text, "\\\\.\\pipe\\%s", name ? name : "");
    }
};

} // namespace

THR_NAMED_PIPE::THR_NAMED_PIPE(const char *name)
    : m_name(nullptr), m_created(false), m_connected(false), m_synthesize(false), m_error(0),
      m_handle(nullptr)
{
    THR_CHECK(name != 0);
    if (*name)
        set_name(name);
    else
        m_synthesize = true;
}

// A server without a client can't be disconnected, so that remove() leaves its handle open.
THR_NAMED_PIPE::~THR_NAMED_PIPE()
{
    if (m_created && !remove() && m_handle && m_handle != INVALID_HANDLE_VALUE)
        CloseHandle(m_handle);
    free(m_name);
}

void THR_NAMED_PIPE::set_name(const char *name)
{
    free(m_name);
    m_name = static_cast<char *>(malloc(strlen(name) + 1));
    THR_CHECK(m_name);
    strcpy(m_name, name);
}

// Records the code of a refused call.
bool THR_NAMED_PIPE::refused()
{
    m_error = static_cast<int32_t>(GetLastError());
    return false;
}

// --- server -------------------------------------------------------------------------------------

bool THR_NAMED_PIPE::create()
{
    bool is_made = m_synthesize ? create_synthesized()
                                : create_server(FullName(m_name).m_text, OUTBOUND, BLOCKING);
    m_created = true;
    return is_made;
}

bool THR_NAMED_PIPE::create_r()
{
    bool is_made = m_synthesize ? create_synthesized()
                                : create_server(FullName(m_name).m_text, INBOUND, NON_BLOCKING);
    m_created = true;
    return is_made;
}

bool THR_NAMED_PIPE::create_server(const char *full_name, uint32_t open_mode, uint32_t pipe_mode)
{
    m_handle = CreateNamedPipeA(full_name, open_mode, pipe_mode, PIPE_UNLIMITED_INSTANCES,
                                THR_PIPE_BUFSIZE, THR_PIPE_BUFSIZE, 0, nullptr);
    return m_handle != INVALID_HANDLE_VALUE || refused();
}

// Tries numbered names until the system accepts one.
bool THR_NAMED_PIPE::create_synthesized()
{
    for (int number = 0; number < THR_MAX_SYNTH_PIPE; number++) {
        char name[32];
        snprintf(name, sizeof name, "vpipe%d", number);
        if (create_server(FullName(name).m_text, OUTBOUND, BLOCKING)) {
            set_name(name);
            return true;
        }
        if (m_error != ERROR_ACCESS_DENIED)
            return false;
    }
    return false;
}

bool THR_NAMED_PIPE::connect()
{
    BOOL is_done = ConnectNamedPipe(m_handle, nullptr);
    if (!is_done)
        refused();
    m_connected = true;
    return is_done || m_error == ERROR_PIPE_CONNECTED || m_error == 0;
}

bool THR_NAMED_PIPE::connect_r()
{
    return connect();
}

bool THR_NAMED_PIPE::remove()
{
    if (!FlushFileBuffers(m_handle))
        refused();
    if (!DisconnectNamedPipe(m_handle))
        return refused();
    if (!CloseHandle(m_handle))
        refused();
    m_handle = nullptr;
    m_created = false;
    m_connected = false;
    return true;
}

// --- client -------------------------------------------------------------------------------------

bool THR_NAMED_PIPE::open()
{
    return open_client(GENERIC_READ);
}

bool THR_NAMED_PIPE::open_w()
{
    return open_client(GENERIC_WRITE);
}

bool THR_NAMED_PIPE::open_client(uint32_t access)
{
    if (!m_name) { // the empty name is that of the pipe file system itself
        m_error = ERROR_FILE_NOT_FOUND;
        return false;
    }
    FullName full_name(m_name);
    for (;;) {
        m_handle = CreateFileA(full_name.m_text, access, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (m_handle != INVALID_HANDLE_VALUE)
            return true;
        refused();
        bool is_busy = m_error == 0 || m_error == ERROR_PIPE_BUSY;
        if (!WaitNamedPipeA(full_name.m_text, THR_PIPE_TIMEOUT) || !is_busy)
            return false;
    }
}

bool THR_NAMED_PIPE::close()
{
    if (!CloseHandle(m_handle))
        return refused();
    m_handle = nullptr;
    m_connected = false;
    return true;
}

// --- messages -----------------------------------------------------------------------------------

int THR_NAMED_PIPE::read(void *buffer, uint64_t size)
{
    DWORD count = 0;
    BOOL is_done = ReadFile(m_handle, buffer, static_cast<DWORD>(size), &count, nullptr);
    return is_done ? static_cast<int>(count) : partly_read(count);
}

int THR_NAMED_PIPE::peek(void *buffer, uint64_t size)
{
    DWORD count = 0;
    BOOL is_done =
        PeekNamedPipe(m_handle, buffer, static_cast<DWORD>(size), &count, nullptr, nullptr);
    return is_done ? static_cast<int>(count) : partly_read(count);
}

// A message that is longer than the buffer is no failure: the rest of it comes with the next read.
int THR_NAMED_PIPE::partly_read(uint32_t count)
{
    refused();
    return m_error == ERROR_MORE_DATA ? static_cast<int>(count) : -1;
}

int THR_NAMED_PIPE::write(const void *buffer, uint64_t size)
{
    DWORD count = 0;
    if (!WriteFile(m_handle, buffer, static_cast<DWORD>(size), &count, nullptr)) {
        refused();
        return -1;
    }
    return static_cast<int>(count);
}

int THR_NAMED_PIPE::get_error() const
{
    return m_error;
}

char *THR_NAMED_PIPE::get_name() const
{
    return m_name;
}
