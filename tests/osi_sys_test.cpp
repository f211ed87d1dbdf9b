// Paths and files, through the library's objects.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_osi_sys.h"

#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <io.h>
#include <time.h>

#include <gtest/gtest.h>

namespace
{

const HMODULE OWN = GetModuleHandleA(nullptr);

// Replaces an import of this program for a scope: by a function, or by the refusal of the nth call
// (from 1; 0: of every call). The test's own calls are redirected too. One at a time of a
// signature.
template <class Function> class Fake;
template <class Result, class... Args> class Fake<Result(Args...)>
{
public:
    Fake(const char *import, std::function<Result(Args...)> function) : m_patch(import, &call, OWN)
    {
        s_real = m_patch.template original<Result (*)(Args...)>();
        s_function = std::move(function);
        s_calls = 0;
    }
    Fake(const char *import, int nth, Result refusal = {})
        : Fake(import,
               [=](Args... args) { return nth == 0 || s_calls == nth ? refusal : s_real(args...); })
    {
    }
    static int calls() { return s_calls; }

private:
    static Result call(Args... args)
    {
        s_calls++;
        return s_function(args...);
    }
    inline static Result (*s_real)(Args...);
    inline static std::function<Result(Args...)> s_function;
    inline static int s_calls;
    support::ImportPatch m_patch;
};

using std::filesystem::current_path;

// --- paths --------------------------------------------------------------------------------------

TEST(LongPath, TakesEveryFormOfPath)
{
    const std::pair<const char *, std::wstring> cases[] = {
        {nullptr, L""},
        {"", L""},
        {"C:/a/./c/../b%s%n\xff.txt", L"\\\\?\\C:\\a\\b%s%n\xfffd.txt"},
        {"//?/C:/d/", L"\\\\?\\C:\\d\\"},
        {"//srv/share/f", L"\\\\?\\UNC\\srv\\share\\f"},
        {"\\\\?\\C:\\x", L"\\\\?\\C:\\x"},
        {"\\\\.\\pipe\\p", L"\\\\.\\pipe\\p"},
        {"\xc3\xa4\xe5\x90\x8d\xf0\x9f\x98\x80", // relative, in UTF-8
         L"\\\\?\\" + current_path().wstring() + L"\\\u00e4\u540d\xd83d\xde00"},
    };
    for (const auto &[path, expected] : cases)
        EXPECT_EQ(thr_osi_long_path(path).c_str(), expected) << (path ? path : "null");
}

// --- temporary names ----------------------------------------------------------------------------

// What a process's names are made of, chosen so that the first number is ABCDEF. The computer's
// name has a byte above 0x7F, which counts as a negative number.
const char COMPUTER[] = "h\xe9st.lan";

ROLE(names_files)
{
    auto name = [](COMPUTER_NAME_FORMAT format, char *text, DWORD *size) -> BOOL {
        const bool fits = text && *size >= sizeof COMPUTER;
        if (fits && format == ComputerNamePhysicalDnsFullyQualified)
            strcpy(text, COMPUTER);
        *size = sizeof COMPUTER;
        return fits;
    };
    Fake<decltype(GetComputerNameExA)> computer("GetComputerNameExA", name);
    Fake<decltype(_time64)> clock("_time64", 0, static_cast<__time64_t>(0x8fc12005a39eeb70));
    Fake<decltype(GetCurrentThreadId)> thread("GetCurrentThreadId", 0, 4242);
    for (const wchar_t *path : {L"\\\\?\\C:\\d\\f", L"a/b\\c/f", L"f"})
        wprintf(L"%s\n", thr_osi_temp_name(path).c_str());
    return 0;
}

TEST(TempName, NumbersFollowFromTheirInputs)
{
    support::Child child("names_files");
    for (const char *name :
         {"\\\\?\\C:\\d\\.velkora.ABCDEF.tmp", "a/b\\c/.velkora.ABCDF0.tmp", ".velkora.ABCDF3.tmp"})
        EXPECT_EQ(child.read_line(), name);
}

// --- opening ------------------------------------------------------------------------------------

const int DIRECTORY_FLAG = 0x2000; // the runtime's headers leave it out

TEST(Open, TurnsFlagsIntoASystemCallUnderAMutexNamedByThePath)
{
    const DWORD READ = GENERIC_READ, WRITE = GENERIC_WRITE | DELETE;
    const THR_WIDE_TEXT path = L"cIi83ZT"; // its hash needs the zero fill
    THR_HANDLE mutex(CreateMutexA(nullptr, FALSE, ".velkora.04FDBF67.sem"));
    auto expect_elsewhere = [&](DWORD waited) { // by a thread that ends holding it
        std::thread([&] { EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), waited); }).join();
    };
    const struct {
        int m_flags, m_mode;
        DWORD m_access, m_disposition, m_attributes;
    } cases[] = {
        {_O_RDONLY | _O_TEMPORARY | _O_SHORT_LIVED, 0400, READ | DELETE, OPEN_EXISTING, 0x04000180},
        {_O_RDWR | _O_NOINHERIT, 0040, READ | WRITE, OPEN_EXISTING, 0x80},
        {_O_WRONLY | _O_CREAT | _O_EXCL, 0333, WRITE, CREATE_NEW, 0x81},
        {_O_WRONLY | _O_CREAT | _O_TRUNC, 0004, WRITE, CREATE_ALWAYS, 0x80},
        {_O_WRONLY | _O_CREAT | _O_APPEND, 0600, WRITE, OPEN_ALWAYS, 0x80},
        {_O_WRONLY | _O_APPEND | _O_U8TEXT, 0600, READ | WRITE, OPEN_EXISTING, 0x80},
        {DIRECTORY_FLAG | _O_RANDOM, 0600, READ, OPEN_EXISTING, 0x12000080},
        {3 | _O_EXCL | _O_TRUNC | _O_SEQUENTIAL, 0600, 0, TRUNCATE_EXISTING, 0x08000080},
    };
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.m_flags);
        auto create = [&](LPCWSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
                          DWORD disposition, DWORD attributes, HANDLE) {
            EXPECT_EQ(name, path);
            EXPECT_EQ(share, 7u);
            EXPECT_EQ(security->bInheritHandle, !(c.m_flags & _O_NOINHERIT));
            EXPECT_EQ(std::tuple(access, disposition, attributes),
                      std::tuple(c.m_access, c.m_disposition, c.m_attributes));
            expect_elsewhere(WAIT_TIMEOUT);
            return INVALID_HANDLE_VALUE;
        };
        Fake<decltype(CreateFileW)> patch("CreateFileW", create);
        EXPECT_EQ(thr_osi_open(path, c.m_flags, c.m_mode), -1);
        EXPECT_EQ(patch.calls(), 1);
        expect_elsewhere(WAIT_OBJECT_0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), // of the last case
              "Improper or unspecified R/W file open flag: 3\n"
              "Improper use of _O_EXCL file open flag\n"
              "Improper use of _O_TRUNC file open flag\n");
}

// --- files and directories ----------------------------------------------------------------------

TEST(Files, AreWrittenFoundAndRemovedUnderAnyName)
{
    support::ScratchDir scratch;
    const std::filesystem::path before = current_path();
    CreateDirectoryW(scratch.file(L"\u00e4").c_str(), nullptr);
    ASSERT_EQ(thr_osi_chdir((scratch.path() + "/\xc3\xa4/").c_str()), 0);
    for (const char *refused : {"", "no such", "\\\\?\\1"})
        EXPECT_EQ(thr_osi_chdir(refused), -1);
    EXPECT_EQ(current_path().wstring(), scratch.file(L"\u00e4"));

    const std::string deep(200, 'd'), path = deep + "/" + deep, file = path + "/\xc3\xa4";
    for (const std::string &directory : {deep, path})
        EXPECT_TRUE(CreateDirectoryW(thr_osi_long_path(directory.c_str()).c_str(), nullptr));
    const int flags = _O_RDWR | _O_CREAT | _O_EXCL;
    const int descriptor = thr_osi_open(thr_osi_long_path(file.c_str()), flags, 0600);
    EXPECT_EQ(_write(descriptor, "ab", 2), 2);
    EXPECT_EQ(_close(descriptor), 0);
    struct _stat64i32 record;
    EXPECT_EQ(thr_osi_stat(file.c_str(), &record), 0);
    EXPECT_EQ(std::pair(record.st_mode & 0xC000, record.st_size), std::pair(0x8000, 2L));
    EXPECT_EQ(thr_osi_stat((path + "\\").c_str(), &record), 0);
    EXPECT_EQ(record.st_mode & 0xC000, 0x4000);
    {
        Fake<decltype(CreateFileW)> create("CreateFileW", [](auto... args) {
            EXPECT_FALSE(std::get<3>(std::tuple(args...))->bInheritHandle) << "by a child";
            return INVALID_HANDLE_VALUE;
        });
        EXPECT_EQ(thr_osi_stat(file.c_str(), &record), -1);
    }
    EXPECT_EQ(thr_osi_stat(nullptr, &record), -1);
    EXPECT_EQ(thr_osi_remove(path.c_str()), -1) << "not empty";
    for (const std::string &removed : {file, path + "/"}) {
        EXPECT_TRUE(thr_osi_path_exists(removed.c_str()));
        EXPECT_EQ(thr_osi_remove(removed.c_str()), 0);
        EXPECT_FALSE(thr_osi_path_exists(removed.c_str()));
    }
    current_path(before);
}

TEST(Remove, RenamesAFileThatCantBeDeleted)
{
    const DWORD FILE = FILE_ATTRIBUTE_ARCHIVE;
    const struct {
        DWORD m_attributes;
        int m_refused_deletes, m_refused_moves, m_result, m_moves;
    } cases[] = {
        {FILE, 1, 3, 0, 4},
        {FILE, 2, 0, -1, 1},
        {FILE, 1, 100000, -1, 100000},
        {FILE | FILE_ATTRIBUTE_READONLY, 1, 0, -1, 0},
        {FILE | FILE_ATTRIBUTE_SYSTEM, 1, 0, -1, 0},
        {FILE | FILE_ATTRIBUTE_OFFLINE, 1, 0, -1, 0},
    };
    for (const auto &c : cases) {
        std::wstring deleted, renamed = L"not at all";
        Fake<decltype(DeleteFileW)> remove("DeleteFileW", [&](LPCWSTR path) {
            deleted = path;
            return remove.calls() > c.m_refused_deletes;
        });
        Fake<decltype(MoveFileW)> move("MoveFileW", [&](LPCWSTR, LPCWSTR to) {
            renamed = to;
            return move.calls() > c.m_refused_moves;
        });
        Fake<decltype(GetFileAttributesW)> only_f("GetFileAttributesW", [&](LPCWSTR path) {
            return wcsstr(path, L".velkora.") ? INVALID_FILE_ATTRIBUTES : c.m_attributes;
        });
        EXPECT_EQ(thr_osi_remove("f"), c.m_result);
        EXPECT_EQ(move.calls(), c.m_moves);
        EXPECT_EQ(deleted == renamed, c.m_moves > c.m_refused_moves);
    }
}

TEST(CurrentDirectory, IsReadWhenItFits)
{
    const std::string longest = "C:\\" + std::string(1020, 'd');
    const struct {
        std::string m_directory;
        size_t m_size;
        int m_longer; // that much, in the ANSI code page
        const char *m_read;
    } cases[] = {
        {"C:\\w", 5, 0, "C:\\w"},
        {"C:\\w", 4, 0, nullptr},
        {"C:\\w", 6, 1, "C:\\ww"},
        {"C:\\w", 5, 1, nullptr}, // all but the terminator
        {"\\\\srv\\share\\d", 14, 0, "srv\\share\\d"},
        {"\\\\srv\\share\\d", 13, 0, nullptr}, // the length of the whole text counts
        {longest, 1024, 0, longest.c_str()},
        {longest + "d", 4096, 0, nullptr},
    };
    for (const auto &[directory, size, longer, read] : cases) {
        auto get = [&, path = directory](DWORD capacity, LPWSTR text) {
            const bool fits = path.size() < capacity;
            wcscpy(text, fits ? std::wstring(path.begin(), path.end()).c_str() : L"");
            return static_cast<DWORD>(path.size() + !fits);
        };
        Fake<decltype(GetCurrentDirectoryW)> directory_is("GetCurrentDirectoryW", get);
        // Takes no flags, as where UTF-8 is the ANSI code page.
        auto convert = [more = longer](UINT, DWORD flags, LPCWSTR text, int length, LPSTR to,
                                       auto...) {
            SetLastError(ERROR_INVALID_FLAGS);
            std::fill(std::copy(text, text + length, to), to + length + more, 'w');
            return flags ? 0 : length + more;
        };
        Fake<decltype(WideCharToMultiByte)> conversion("WideCharToMultiByte", convert);
        char buffer[4096];
        EXPECT_STREQ(thr_osi_getcwd(buffer, size), read);
        EXPECT_STREQ(THR_HEAP_TEXT(thr_osi_getcwd(nullptr, size)).get(), read);
    }
    EXPECT_INTERNAL_ERROR((support::RefusedMalloc(1, OWN), thr_osi_getcwd(nullptr, 1000)), "buf",
                          "thr_osi_sys");
}

} // namespace
