#include "thr/thr_osi_sys.h"

#include "thr/thr_report.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <utility>

#include <assert.h>
#include <fcntl.h>
#include <io.h>
#include <time.h>

#include <windows.h>

// The runtime's own assertion, in release builds too: text, file and line, then the process ends.
#define THR_WIDEN_TEXT(text) L##text
#define THR_WIDEN(text) THR_WIDEN_TEXT(text)
#define THR_ASSERT(condition)                                                                      \
    do {                                                                                           \
        if (!(condition))                                                                          \
            _wassert(L"" #condition, THR_WIDEN(__FILE__), __LINE__);                               \
    } while (0)

// --- paths --------------------------------------------------------------------------------------

namespace
{

THR_WIDE_TEXT utf8_to_wide(const char *text)
{
    int required_unicode_path_size = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    THR_ASSERT(required_unicode_path_size != 0);
    THR_WIDE_TEXT wide(required_unicode_path_size, L'\0');
    int actual_unicode_path_size =
        MultiByteToWideChar(CP_UTF8, 0, text, -1, wide.data(), required_unicode_path_size);
    THR_ASSERT(actual_unicode_path_size != 0);
    return wide;
}

// The current directory can grow between the two calls; the second then writes nothing, and what
// comes of it is a path that every call refuses.
THR_WIDE_TEXT full_path(const THR_WIDE_TEXT &path)
{
    DWORD required_unc_path_size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    THR_ASSERT(required_unc_path_size != 0);
    THR_WIDE_TEXT full(required_unc_path_size + 1, L'\0');
    DWORD actual_unc_path_size =
        GetFullPathNameW(path.c_str(), required_unc_path_size, full.data(), nullptr);
    THR_ASSERT(actual_unc_path_size != 0);
    full.resize(wcslen(full.c_str()));
    return full;
}

bool begins_with(const THR_WIDE_TEXT &text, const wchar_t *prefix)
{
    return text.compare(0, wcslen(prefix), prefix) == 0;
}

bool is_separator(wchar_t character)
{
    return character == L'\\' || character == L'/';
}

} // namespace

THR_WIDE_TEXT thr_osi_long_path(const char *path)
{
    if (!path || !*path)
        return {};
    THR_WIDE_TEXT full = full_path(utf8_to_wide(path));
    if (_wcsnicmp(full.c_str(), L"\\\\?\\UNC\\", 8) == 0 || begins_with(full, L"\\\\?\\") ||
        begins_with(full, L"\\\\.\\"))
        return full;
    if (begins_with(full, L"\\\\"))
        full.replace(0, 2, L"\\\\?\\UNC\\");
    else
        full.insert(0, L"\\\\?\\");
    return full; // moved, where the result of insert() would be copied
}

size_t thr_osi_skip_to_drive(const THR_WIDE_TEXT &text)
{
    size_t count = 0;
    while (count < text.size() && !iswalpha(text[count]))
        count++;
    return count;
}

THR_WIDE_TEXT thr_osi_strip_trailing_separator(THR_WIDE_TEXT &&path)
{
    THR_WIDE_TEXT stripped = std::move(path);
    path.clear();
    if (!stripped.empty() && is_separator(stripped.back()))
        stripped.pop_back();
    return stripped;
}

const char *thr_osi_last_backslash(const char *text, const char *end)
{
    const char *last = nullptr;
    for (const char *character = text; character < end; character++) {
        if (*character == '\\')
            last = character;
        else if (*character & 0x80 && IsDBCSLeadByte(static_cast<BYTE>(*character)))
            character++;
    }
    return last;
}

int thr_osi_wide_to_ansi(DWORD flags, const wchar_t *text, size_t length, char *buffer,
                         int capacity)
{
    int units = static_cast<int>(length);
    int bytes = WideCharToMultiByte(CP_ACP, flags, text, units, buffer, capacity, nullptr, nullptr);
    // where UTF-8 is the ANSI code page, it takes no flags
    if (bytes == 0 && GetLastError() == ERROR_INVALID_FLAGS)
        bytes = WideCharToMultiByte(CP_ACP, 0, text, units, buffer, capacity, nullptr, nullptr);
    return bytes;
}

// --- temporary names ----------------------------------------------------------------------------

namespace
{

const uint64_t FNV_OFFSET_BASIS = 0xcbf29ce484222325;
const uint64_t FNV_PRIME = 0x100000001b3;
const uint64_t TIME_MULTIPLIER = 0xa651cd391142cc1f;
const uint64_t COMPUTER_NAME_MULTIPLIER = 0x49f71770516f12fd;
const uint64_t THREAD_MULTIPLIER = 0xf78daea9e4c87399;
const int TEMP_NAME_ATTEMPTS = 1000;

struct TempNameState {
    char *m_computer_name; // stays allocated
    std::atomic<int32_t> m_step;
    std::atomic<int32_t> m_value;
};

TempNameState temp_names = {nullptr, {1}, {1}};

// Mixes one unit into a 64-bit FNV-1a hash.
uint64_t fnv1a(uint64_t hash, uint64_t unit)
{
    return (hash ^ unit) * FNV_PRIME;
}

uint64_t make_temp_name_seed()
{
    DWORD size = 0;
    GetComputerNameExA(ComputerNamePhysicalDnsFullyQualified, nullptr, &size);
    char *buffer = static_cast<char *>(calloc(size + 1, 1)); // no name is the empty name
    temp_names.m_computer_name = buffer;
    if (!buffer)
        return 0;
    GetComputerNameExA(ComputerNamePhysicalDnsFullyQualified, buffer, &size);

    uint64_t hash = FNV_OFFSET_BASIS;
    for (const char *byte = buffer; *byte; byte++)
        hash = fnv1a(hash, static_cast<uint64_t>(static_cast<signed char>(*byte)));
    return static_cast<uint64_t>(_time64(nullptr)) * TIME_MULTIPLIER +
           hash * COMPUTER_NAME_MULTIPLIER;
}

bool exists(const THR_WIDE_TEXT &path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

} // namespace

THR_WIDE_TEXT thr_osi_temp_name(const THR_WIDE_TEXT &path)
{
    static const uint64_t seed = make_temp_name_seed();
    THR_CHECK_AS(temp_names.m_computer_name, "buffer"); // behind the guard of the line above
    THR_WIDE_TEXT directory = path.substr(0, path.find_last_of(L"\\/") + 1);
    THR_WIDE_TEXT candidate;
    for (int attempt = 0; attempt < TEMP_NAME_ATTEMPTS; attempt++) {
        uint64_t thread = GetCurrentThreadId() * THREAD_MULTIPLIER;
        int32_t step = temp_names.m_step.fetch_add(2);
        int32_t value = temp_names.m_value.fetch_add(step);
        wchar_t name[64];
        wsprintfW(name, L".velkora.%I64X.tmp", static_cast<uint64_t>(value) + seed + thread);
        candidate = directory + name;
        if (!exists(candidate))
            break;
    }
    return candidate;
}

// --- opening ------------------------------------------------------------------------------------

namespace
{

// The runtime's flag for opening a directory, which its headers leave out.
const int OPEN_DIRECTORY = 0x2000;

const int READ_PERMISSIONS = 0444;
const DWORD NAMED_MUTEX_TIMEOUT = 600000; // milliseconds

// Creates or opens the mutex that serialises opens of one path; none when refused.
THR_HANDLE named_mutex(const THR_WIDE_TEXT &path)
{
    uint64_t hash = FNV_OFFSET_BASIS;
    for (wchar_t unit : path)
        hash = fnv1a(hash, unit);
    char name[64];
    wsprintfA(name, ".velkora.%08I64X.sem", hash);
    return THR_HANDLE(CreateMutexA(nullptr, FALSE, name));
}

DWORD open_access(int flags)
{
    DWORD access = 0;
    switch (int read_write = flags & (_O_RDONLY | _O_WRONLY | _O_RDWR)) {
    case _O_RDONLY:
        access = GENERIC_READ;
        break;
    case _O_RDWR:
        access = GENERIC_READ | GENERIC_WRITE | DELETE;
        break;
    case _O_WRONLY:
        access = GENERIC_WRITE | DELETE;
        // appending text reads the file's byte-order mark first
        if ((flags & _O_APPEND) && (flags & (_O_WTEXT | _O_U16TEXT | _O_U8TEXT)))
            access |= GENERIC_READ;
        break;
    default:
        fprintf(stderr, "Improper or unspecified R/W file open flag: %0x\n", read_write);
    }
    if (flags & _O_TEMPORARY)
        access |= DELETE;
    return access;
}

DWORD open_attributes(int flags, int mode)
{
    DWORD attributes = FILE_ATTRIBUTE_NORMAL;
    if (!(mode & READ_PERMISSIONS))
        attributes |= FILE_ATTRIBUTE_READONLY;
    if (flags & _O_TEMPORARY)
        attributes |= FILE_FLAG_DELETE_ON_CLOSE;
    if (flags & _O_SHORT_LIVED)
        attributes |= FILE_ATTRIBUTE_TEMPORARY;
    if (flags & OPEN_DIRECTORY)
        attributes |= FILE_FLAG_BACKUP_SEMANTICS;
    if (flags & _O_SEQUENTIAL)
        attributes |= FILE_FLAG_SEQUENTIAL_SCAN;
    else if (flags & _O_RANDOM)
        attributes |= FILE_FLAG_RANDOM_ACCESS;
    return attributes;
}

DWORD open_disposition(int flags)
{
    if (flags & _O_CREAT) {
        if (flags & _O_EXCL)
            return CREATE_NEW;
        return flags & _O_TRUNC ? CREATE_ALWAYS : OPEN_ALWAYS;
    }
    return flags & _O_TRUNC ? TRUNCATE_EXISTING : OPEN_EXISTING;
}

} // namespace

int thr_osi_open(const THR_WIDE_TEXT &path, int flags, int mode)
{
    THR_HANDLE mutex = named_mutex(path);
    SECURITY_ATTRIBUTES security = {sizeof security, nullptr, !(flags & _O_NOINHERIT)};
    DWORD access = open_access(flags);
    DWORD attributes = open_attributes(flags, mode);
    if ((flags & _O_EXCL) && !(flags & _O_CREAT))
        fprintf(stderr, "Improper use of _O_EXCL file open flag\n");
    if ((flags & _O_TRUNC) && !(access & GENERIC_WRITE))
        fprintf(stderr, "Improper use of _O_TRUNC file open flag\n");
    DWORD disposition = open_disposition(flags);

    // A mutex whose owner died holding it is ours all the same. Without the mutex the open goes on:
    // only the serialisation is lost.
    DWORD waited = mutex ? WaitForSingleObject(mutex.get(), NAMED_MUTEX_TIMEOUT) : WAIT_FAILED;
    HANDLE file =
        CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    &security, disposition, attributes, nullptr);
    if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED)
        ReleaseMutex(mutex.get());

    if (file == INVALID_HANDLE_VALUE)
        return -1;
    int descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(file), flags);
    if (descriptor == -1)
        CloseHandle(file);
    return descriptor;
}

// --- files and directories ----------------------------------------------------------------------

namespace
{

const int RENAME_ATTEMPTS = 100000;

// A file that can't be deleted at once can often be renamed, and deleted under the new name.
int remove_renamed(const THR_WIDE_TEXT &path)
{
    for (int attempt = 0; attempt < RENAME_ATTEMPTS; attempt++) {
        if (!exists(path))
            return -1;
        THR_WIDE_TEXT temp = thr_osi_strip_trailing_separator(thr_osi_temp_name(path));
        if (MoveFileW(path.c_str(), temp.c_str()))
            return DeleteFileW(temp.c_str()) ? 0 : -1;
    }
    return -1;
}

} // namespace

int thr_osi_stat(const char *path, struct _stat64i32 *record)
{
    if (!path)
        return -1;
    THR_WIDE_TEXT long_path = thr_osi_long_path(path);
    DWORD attributes = GetFileAttributesW(long_path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return -1;
    // not inheritable: a child that is started meanwhile would keep the directory open
    int descriptor = thr_osi_open(long_path, _O_RDONLY | OPEN_DIRECTORY | _O_NOINHERIT, 0600);
    if (descriptor == -1)
        return -1;
    int result = _fstat64i32(descriptor, record);
    _close(descriptor);
    if (result == 0 && (attributes & FILE_ATTRIBUTE_DIRECTORY))
        record->st_mode = (record->st_mode & 0x3FFF) | _S_IFDIR;
    return result;
}

int thr_osi_remove(const char *path)
{
    THR_WIDE_TEXT long_path = thr_osi_strip_trailing_separator(thr_osi_long_path(path));
    if (DeleteFileW(long_path.c_str()))
        return 0;
    DWORD attributes = GetFileAttributesW(long_path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES ||
        (attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_OFFLINE)))
        return -1;
    if (attributes & FILE_ATTRIBUTE_DIRECTORY)
        return RemoveDirectoryW(long_path.c_str()) ? 0 : -1;
    return remove_renamed(long_path);
}

int thr_osi_chdir(const char *path)
{
    THR_WIDE_TEXT long_path = thr_osi_long_path(path);
    if (long_path.empty())
        return -1;
    if (long_path.back() != L'\\')
        long_path += L'\\';
    // SetCurrentDirectory takes no long-path prefix.
    THR_WIDE_TEXT directory = long_path.substr(thr_osi_skip_to_drive(long_path));
    if (directory.empty())
        return -1;
    return SetCurrentDirectoryW(directory.c_str()) ? 0 : -1;
}

char *thr_osi_getcwd(char *buffer, size_t size)
{
    if (size == 0)
        return nullptr;
    wchar_t wide[1025] = {};
    DWORD length = GetCurrentDirectoryW(1024, wide);
    if (length == 0 || length >= size)
        return nullptr;
    THR_HEAP_TEXT made;
    if (!buffer) {
        made.reset(static_cast<char *>(malloc(size)));
        THR_CHECK_AS(made, "buf");
        buffer = made.get();
    }
    THR_WIDE_TEXT directory(wide);
    directory.erase(0, thr_osi_skip_to_drive(directory));
    if (directory.empty())
        return nullptr;
    int converted = thr_osi_wide_to_ansi(WC_COMPOSITECHECK, directory.c_str(), directory.size(),
                                         buffer, static_cast<int>(size));
    if (converted <= 0 || static_cast<size_t>(converted) >= size)
        return nullptr;
    buffer[converted] = '\0';
    static_cast<void>(made.release());
    return buffer;
}

bool thr_osi_path_exists(const char *path)
{
    THR_WIDE_TEXT long_path = thr_osi_long_path(path);
    return !long_path.empty() && exists(long_path);
}
