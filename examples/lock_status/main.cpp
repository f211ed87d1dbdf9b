// lock_status: lists the lock files of the library beside a database or in a folder, and tells
// which are held and by whom, without disturbing those who use them.
#include "thr/thr.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>

#include <shellapi.h>

namespace
{

const char HELP[] =
    "usage: lock_status [--json] PATH...\n"
    "\n"
    "Lists the lock files that belong to PATH, a file that an interprocess mutex or\n"
    "semaphore guards, or all that are in PATH, a folder: what each is for, the process\n"
    "that it names and whether that one lives, and its state:\n"
    "\n"
    "  held       somebody has it open, so nobody else can take it\n"
    "  left over  nobody has it open; the next one who wants it removes it\n"
    "  unknown    the system did not let us judge, for the reason shown\n"
    "\n"
    "No lock file is taken or removed. A held one is not opened. One that is left over is\n"
    "opened for a moment; a process that takes it in that moment may be refused and, as\n"
    "with any file that somebody else has open, give up.\n"
    "\n"
    "Reader and writer files carry a process id in their names; the holder of the other\n"
    "kinds can't be told. A process that this user may not open counts as one that does\n"
    "not live.\n"
    "\n"
    "  --json     prints one object: {\"lock_files\": [...], \"unread\": [...]}\n"
    "\n"
    "The exit status is 0 when every PATH was read and every lock file judged, 1 when not,\n"
    "2 for wrong arguments.\n";

enum class State { HELD, LEFT_OVER, UNKNOWN };

struct LockFile {
    std::wstring path;
    const char *kind = "";
    std::wstring resource; // the path that was given to the library
    uint32_t process_id = 0;
    bool is_alive = false;
    State state = State::UNKNOWN;
    DWORD error = 0; // why the state is unknown
};

struct Unread {
    std::wstring path;
    DWORD error;
};

struct Status {
    std::vector<LockFile> lock_files;
    std::vector<Unread> unread;
};

// --- names --------------------------------------------------------------------------------------

bool ends_with(const std::wstring &text, const std::wstring &ending)
{
    return text.size() >= ending.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

bool cut(std::wstring *text, const std::wstring &ending)
{
    bool is_there = ends_with(*text, ending);
    if (is_there)
        text->resize(text->size() - ending.size());
    return is_there;
}

// Cuts ".<process id>" off the end.
bool cut_process_id(std::wstring *text, uint32_t *process_id)
{
    size_t dot = text->rfind(L'.');
    if (dot == std::wstring::npos || dot + 1 == text->size() ||
        text->find_first_not_of(L"0123456789", dot + 1) != std::wstring::npos)
        return false;
    *process_id = static_cast<uint32_t>(wcstoul(text->c_str() + dot + 1, nullptr, 10));
    text->resize(dot);
    return true;
}

// What the name of a lock file says; false for a name that the library does not give.
bool parse_name(const std::wstring &path, LockFile *file)
{
    file->path = path;
    file->resource = path;
    if (cut(&file->resource, L".rdr.flock") || cut(&file->resource, L".wtr.flock")) {
        file->kind = ends_with(path, L".rdr.flock") ? "reader" : "writer";
        if (!cut_process_id(&file->resource, &file->process_id))
            return false;
        file->is_alive = thr_is_pid_active(file->process_id);
        return true;
    }
    if (!cut(&file->resource, L".mtx.flock"))
        return false;
    file->kind = "mutex";
    if (cut(&file->resource, L".cri"))
        file->kind = "semaphore"; // held for a moment by every one who locks the semaphore
    else if (cut(&file->resource, L".wri"))
        file->kind = "writers"; // held by the writer that is in
    return true;
}

// --- judging ------------------------------------------------------------------------------------

// Asks to read a file that its holder shares with nobody. The refusal is the answer: it makes no
// handle, so the holder's own release is not held up. A file that does open is shared with all and
// closed at once.
void judge(LockFile *file)
{
    HANDLE handle = CreateFileW(file->path.c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD error = handle == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
    if (handle != INVALID_HANDLE_VALUE)
        CloseHandle(handle);
    file->error = 0;
    if (error == ERROR_SUCCESS)
        file->state = State::LEFT_OVER;
    else if (error == ERROR_SHARING_VIOLATION)
        file->state = State::HELD;
    else
        file->error = error;
}

bool is_gone(const LockFile &file)
{
    return file.error == ERROR_FILE_NOT_FOUND;
}

// --- reading folders ----------------------------------------------------------------------------

// The absolute form, with the prefix that lifts the limit on its length.
std::wstring long_path(const std::wstring &path)
{
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), &full[0], nullptr));
    if (full.compare(0, 4, L"\\\\?\\") == 0 || full.compare(0, 4, L"\\\\.\\") == 0)
        return full;
    return full.compare(0, 2, L"\\\\") == 0 ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

bool is_same_name(const std::wstring &a, const std::wstring &b)
{
    return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// Adds the lock files of a folder, or those in it that belong to one resource.
void read_folder(const std::wstring &folder, const std::wstring *resource, Status *status)
{
    WIN32_FIND_DATAW entry;
    HANDLE found = FindFirstFileW((folder + L"\\*.flock").c_str(), &entry);
    if (found == INVALID_HANDLE_VALUE) {
        if (GetLastError() != ERROR_FILE_NOT_FOUND) // which says that the folder holds none
            status->unread.push_back({folder, GetLastError()});
        return;
    }
    do {
        LockFile file;
        if (!parse_name(folder + L"\\" + entry.cFileName, &file) ||
            (resource && !is_same_name(file.resource, *resource)))
            continue;
        judge(&file);
        if (!is_gone(file)) // let go since we read its name
            status->lock_files.push_back(file);
    } while (FindNextFileW(found, &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES)
        status->unread.push_back({folder, GetLastError()});
    FindClose(found);
}

void read_path(const std::wstring &argument, Status *status)
{
    std::wstring path = long_path(argument);
    DWORD attributes = GetFileAttributesW(path.c_str());
    while (path.size() > 1 && path.back() == L'\\')
        path.pop_back();
    // the guarded file itself need not exist, its folder must
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
        read_folder(path, nullptr, status);
    else
        read_folder(path.substr(0, path.rfind(L'\\')), &path, status);
}

// --- printing -----------------------------------------------------------------------------------

std::string utf8(const std::wstring &text)
{
    int length = static_cast<int>(text.size());
    std::string bytes(3 * text.size(), '\0');
    bytes.resize(WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, &bytes[0],
                                     static_cast<int>(bytes.size()), nullptr, nullptr));
    return bytes;
}

// A path as a user writes it, without the prefix of long ones.
std::string shown(const std::wstring &path)
{
    if (path.compare(0, 8, L"\\\\?\\UNC\\") == 0)
        return utf8(L"\\" + path.substr(7));
    return utf8(path.compare(0, 4, L"\\\\?\\") == 0 ? path.substr(4) : path);
}

const char *state_name(const LockFile &file)
{
    return file.state == State::HELD        ? "held"
           : file.state == State::LEFT_OVER ? "left over"
                                            : "unknown";
}

void print_table(const Status &status)
{
    for (const LockFile &file : status.lock_files) {
        std::string process = "-";
        if (file.process_id)
            process = std::to_string(file.process_id) + (file.is_alive ? " lives" : " gone");
        std::string path = shown(file.path);
        printf("%-9s  %-9s  %-16s  %s  (%s)\n", state_name(file), file.kind, process.c_str(),
               shown(file.resource).c_str(), path.substr(path.rfind('\\') + 1).c_str());
        if (file.error)
            printf("           could not be judged: error %lu\n", file.error);
    }
    if (status.lock_files.empty() && status.unread.empty())
        printf("no lock file\n");
}

std::string json(const std::string &text)
{
    std::string quoted = "\"";
    for (char character : text) {
        if (character == '"' || character == '\\')
            quoted += '\\';
        quoted += character; // no file name holds a control character
    }
    return quoted + "\"";
}

void print_json(const Status &status)
{
    const char *separator = "";
    printf("{\"lock_files\": [");
    for (const LockFile &file : status.lock_files) {
        printf("%s\n  {\"file\": %s, \"kind\": \"%s\", \"resource\": %s, \"state\": \"%s\"",
               separator, json(shown(file.path)).c_str(), file.kind,
               json(shown(file.resource)).c_str(), state_name(file));
        if (file.process_id)
            printf(", \"process\": %u, \"alive\": %s", file.process_id,
                   file.is_alive ? "true" : "false");
        if (file.error)
            printf(", \"error\": %lu", file.error);
        printf("}");
        separator = ",";
    }
    printf("], \"unread\": [");
    separator = "";
    for (const Unread &unread : status.unread) {
        printf("%s\n  {\"path\": %s, \"error\": %lu}", separator, json(shown(unread.path)).c_str(),
               unread.error);
        separator = ",";
    }
    printf("]}\n");
}

int run(const std::vector<std::wstring> &paths, bool is_json)
{
    Status status;
    for (const std::wstring &path : paths)
        read_path(path, &status);
    if (is_json)
        print_json(status);
    else
        print_table(status);
    for (const Unread &unread : status.unread)
        fprintf(stderr, "lock_status: can't read %s (error %lu)\n", shown(unread.path).c_str(),
                unread.error);
    bool is_complete = status.unread.empty();
    for (const LockFile &file : status.lock_files)
        is_complete = is_complete && file.state != State::UNKNOWN;
    return is_complete ? 0 : 1;
}

} // namespace

int main()
{
    int count = 0;
    wchar_t **arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::wstring> paths;
    bool is_json = false;
    for (int i = 1; i < count; i++) {
        std::wstring argument = arguments[i];
        if (argument == L"--help") {
            fputs(HELP, stdout);
            return 0;
        } else if (argument == L"--json") {
            is_json = true;
        } else if (argument.empty() || argument[0] == L'-') {
            fprintf(stderr, "lock_status: there is no option \"%s\"; --help tells more\n",
                    utf8(argument).c_str());
            return 2;
        } else {
            paths.push_back(argument);
        }
    }
    LocalFree(arguments);
    if (paths.empty()) {
        fprintf(stderr, "lock_status: a PATH is needed; --help tells more\n");
        return 2;
    }
    return run(paths, is_json);
}
