#include "thr/thr_interprocess.h"

#include "thr/thr.h"
#include "thr/thr_classes.h"
#include "thr/thr_lock.h"
#include "thr/thr_osi_sys.h"
#include "thr/thr_report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

struct InterprocessState {
    bool m_is_mode_on;
    THR_LOCK m_directory_lock; // one thread at a time moves the current directory about
};

InterprocessState state;

} // namespace

void thr_enable_interprocess_mode()
{
    state.m_is_mode_on = true;
}

void thr_disable_interprocess_mode()
{
    state.m_is_mode_on = false;
}

bool thr_is_interprocess_mode()
{
    return state.m_is_mode_on;
}

const char *thr_get_interprocess_file_extension()
{
    return "flock";
}

THR_ENABLE_INTERPROCESS_FOR_UTST::THR_ENABLE_INTERPROCESS_FOR_UTST()
    : m_was_enabled(state.m_is_mode_on)
{
    state.m_is_mode_on = true;
}

THR_ENABLE_INTERPROCESS_FOR_UTST::~THR_ENABLE_INTERPROCESS_FOR_UTST()
{
    state.m_is_mode_on = m_was_enabled;
}

THR_ENABLE_INTERPROCESS_FOR_UTST &
THR_ENABLE_INTERPROCESS_FOR_UTST::operator=(const THR_ENABLE_INTERPROCESS_FOR_UTST &other)
{
    m_was_enabled = other.m_was_enabled;
    return *this;
}

bool thr_is_pid_active(uint32_t pid)
{
    if (pid == static_cast<uint32_t>(thr_getpid()))
        return true;
    THR_HANDLE process(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid));
    // The system ignores the two lowest bits of an id, and opens its neighbour.
    if (!process || GetProcessId(process.get()) != pid)
        return false;
    DWORD exit_code;
    return GetExitCodeProcess(process.get(), &exit_code) && exit_code == STILL_ACTIVE;
}

// --- lock-file paths ----------------------------------------------------------------------------

namespace
{

const size_t CWD_SIZE = 1024;
const size_t DIRECTORY_SIZE = 1040;

// Undoes thr_osi_long_path for a directory that is too long to be entered.
char *thr_osi_long_path_to_narrow(const THR_WIDE_TEXT &path, char (&buffer)[DIRECTORY_SIZE])
{
    size_t prefix = thr_osi_skip_to_drive(path);
    size_t len = path.size() - prefix;
    THR_CHECK(len >= MAX_PATH);
    int converted =
        thr_osi_wide_to_ansi(WC_COMPOSITECHECK, path.c_str() + prefix, len, buffer, 1024);
    THR_CHECK_AS(converted != 0, "unc to char conversion failed");
    buffer[converted] = '\0';
    return buffer;
}

bool is_directory(const char *path)
{
    struct _stat64i32 record;
    return thr_osi_stat(path, &record) == 0 && (record.st_mode & _S_IFDIR);
}

// Makes a directory absolute and canonical by entering it and asking where we are. False when that
// can't be found out; the process is then back in `saved` if it can be entered at all.
bool resolve_directory(const char *directory, const char *saved, char (&resolved)[DIRECTORY_SIZE])
{
    if (thr_osi_chdir(directory) != 0) {
        thr_osi_long_path_to_narrow(thr_osi_long_path(directory), resolved);
        return true;
    }
    bool is_read = thr_osi_getcwd(resolved, CWD_SIZE) != nullptr;
    bool is_back = thr_osi_chdir(saved) == 0;
    return is_read && is_back;
}

} // namespace

void thr_ip_split_path(const char *file, char **directory, bool *has_directory, char **filename)
{
    THR_CHECK(file && *file);
    THR_CHECK(directory);
    char *tmp_file = _strdup(file);
    THR_CHECK(tmp_file);
    *directory = tmp_file;

    char *separator = strrchr(tmp_file, '/');
    if (!separator)
        separator = strrchr(tmp_file, '\\');
    if (has_directory)
        *has_directory = separator != nullptr;
    if (filename) {
        *filename = _strdup(separator ? separator + 1 : file);
        THR_CHECK(*filename);
    }
    if (!separator) {
        strcpy(tmp_file, "."); // fits: the path holds at least one character
        return;
    }
    *separator = '\0';
}

char *thr_ip_join_path(const char *directory, const char *filename)
{
    size_t size = strlen(directory) + strlen(filename) + 2;
    char *fullpath = static_cast<char *>(malloc(size));
    THR_CHECK(fullpath);
    snprintf(fullpath, size, "%s%s%s", directory, "/", filename);
    return fullpath;
}

THR_HEAP_TEXT thr_ip_lock_file_path(const char *file)
{
    char *directory_part;
    char *filename_part;
    bool has_directory;
    thr_ip_split_path(file, &directory_part, &has_directory, &filename_part);
    THR_HEAP_TEXT directory(directory_part);
    THR_HEAP_TEXT filename(filename_part);
    if (has_directory)
        thr_osi_long_path(directory.get()); // one that has none ends the process, without our lock
    THR_LOCK_GUARD guard(state.m_directory_lock);
    if (has_directory && !is_directory(directory.get()))
        return nullptr;
    char saved[CWD_SIZE];
    if (!thr_osi_getcwd(saved, sizeof saved))
        return nullptr;
    if (!has_directory)
        return THR_HEAP_TEXT(thr_ip_join_path(saved, filename.get()));
    char resolved[DIRECTORY_SIZE];
    if (!resolve_directory(directory.get(), saved, resolved))
        return nullptr;
    return THR_HEAP_TEXT(thr_ip_join_path(resolved, filename.get()));
}

// --- lock files ---------------------------------------------------------------------------------

HANDLE thr_ip_lock_file_create(const char *path, int *error)
{
    if (error)
        *error = 0;
    THR_WIDE_TEXT long_path = thr_osi_long_path(path);
    // Clears away a file that nobody holds; one that is held can't be deleted.
    DeleteFileW(long_path.c_str());
    // Never inheritable: a child would go on holding the lock after its owner.
    SECURITY_ATTRIBUTES security = {sizeof security, nullptr, FALSE};
    HANDLE lock_file = CreateFileW(long_path.c_str(), GENERIC_WRITE, 0, &security, CREATE_NEW,
                                   FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (lock_file == THR_BAD_FILE_HANDLE && error)
        *error = GetLastError() == ERROR_FILE_EXISTS ? EEXIST : EINVAL;
    return lock_file;
}

bool thr_ip_lock_file_is_held(const char *path)
{
    HANDLE lock_file = thr_ip_lock_file_create(path, nullptr);
    thr_ip_lock_file_close(path, lock_file);
    return lock_file == THR_BAD_FILE_HANDLE;
}

void thr_ip_lock_file_close(const char *path, HANDLE lock_file)
{
    if (lock_file == THR_BAD_FILE_HANDLE)
        return;
    CloseHandle(lock_file);
    thr_osi_remove(path); // its result says nothing: the next holder may have the file by now
}
