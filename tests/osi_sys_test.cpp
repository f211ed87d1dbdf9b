// Paths and files, through the library's objects.
#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_osi_sys.h"

#include <cstring>
#include <functional>
#include <set>
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
    static Result real(Args... args) { return s_real(args...); }
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

// A folder that is the current directory for one scope.
struct Scratch : support::ScratchDir {
    Scratch() { EXPECT_TRUE(SetCurrentDirectoryW(wide_path().c_str())); }
    ~Scratch() { SetCurrentDirectoryW(m_before.c_str()); }
    const std::wstring m_before = current();
    static std::wstring current()
    {
        wchar_t path[1024] = {};
        GetCurrentDirectoryW(1024, path);
        return path;
    }
};

bool there(const std::wstring &path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

HANDLE open_file(const std::wstring &path, DWORD share)
{
    return CreateFileW(path.c_str(), GENERIC_WRITE, share, nullptr, CREATE_ALWAYS, 0, nullptr);
}

std::wstring plain(const THR_WIDE_TEXT &text)
{
    return text.c_str();
}

// --- paths --------------------------------------------------------------------------------------

TEST(LongPath, TakesEveryFormOfPath)
{
    Scratch scratch;
    const std::wstring here = L"\\\\?\\" + scratch.wide_path();
    const std::string name(1000, 'n');
    const std::pair<const char *, std::wstring> cases[] = {
        {nullptr, L""},
        {"", L""},
        {"C:\\a\\b.txt", L"\\\\?\\C:\\a\\b.txt"},
        {"C:/a/./c/../b.txt", L"\\\\?\\C:\\a\\b.txt"},
        {"C:\\d\\", L"\\\\?\\C:\\d\\"},
        {"x/y", here + L"\\x\\y"},
        {name.c_str(), here + L"\\" + std::wstring(1000, L'n')},
        {"\\\\srv\\share\\f", L"\\\\?\\UNC\\srv\\share\\f"},
        {"//srv/share/f", L"\\\\?\\UNC\\srv\\share\\f"},
        {"\\\\?\\C:\\x", L"\\\\?\\C:\\x"},
        {"\\\\?\\UNC\\srv\\s", L"\\\\?\\UNC\\srv\\s"},
        {"\\\\?\\unc\\srv\\s", L"\\\\?\\unc\\srv\\s"},
        {"\\\\.\\pipe\\p", L"\\\\.\\pipe\\p"},
        {"\xc3\xa4\xe5\x90\x8d\xf0\x9f\x98\x80", here + L"\\\u00e4\u540d\xd83d\xde00"},
    };
    for (const auto &[path, expected] : cases)
        EXPECT_EQ(plain(thr_osi_long_path(path)), expected) << (path ? path : "null");

    EXPECT_EQ(thr_osi_skip_to_drive(L"\\\\?\\C:\\w"), 4u);
    EXPECT_EQ(thr_osi_skip_to_drive(L"12\\3"), 4u);
    THR_WIDE_TEXT path = L"d\\/";
    EXPECT_EQ(thr_osi_strip_trailing_separator(std::move(path)), L"d\\");
    EXPECT_EQ(path, L"");
    EXPECT_EQ(thr_osi_strip_trailing_separator(L""), L"");
}

TEST(LongPath, RefusedConversionFailsTheRuntimesAssertion)
{
    support::ImportPatch patch(
        "_wassert", +[](const wchar_t *text, const wchar_t *, unsigned) { throw text; }, OWN);
    auto result = [] {
        try {
            return plain(thr_osi_long_path("C:\\x"));
        } catch (const wchar_t *text) {
            return std::wstring(text);
        }
    };
    for (int nth : {1, 2}) {
        const std::wstring which = nth == 1 ? L"required_" : L"actual_";
        {
            Fake<decltype(MultiByteToWideChar)> refused("MultiByteToWideChar", nth);
            EXPECT_EQ(result(), which + L"unicode_path_size != 0");
        }
        Fake<decltype(GetFullPathNameW)> refused("GetFullPathNameW", nth);
        EXPECT_EQ(result(), which + L"unc_path_size != 0");
    }
}

// --- temporary names ----------------------------------------------------------------------------

// What a process's names are made of, chosen so that the first number is ABCDEF. The computer's
// name has a byte above 0x7F, which counts as a negative number.
const char COMPUTER[] = "h\xe9st.lan";
const DWORD THREAD = 4242;
const auto TIME = static_cast<__time64_t>(0x8fc12005a39eeb70);

ROLE(names_files)
{
    Fake<decltype(GetComputerNameExA)> computer(
        "GetComputerNameExA", [](COMPUTER_NAME_FORMAT format, char *name, DWORD *size) {
            const bool fits = name && *size >= sizeof COMPUTER;
            if (fits)
                strcpy(name, COMPUTER);
            *size = fits ? sizeof COMPUTER - 1 : sizeof COMPUTER;
            return fits && format == ComputerNamePhysicalDnsFullyQualified;
        });
    Fake<decltype(_time64)> clock("_time64", 0, TIME);
    Fake<decltype(GetCurrentThreadId)> thread("GetCurrentThreadId", 0, THREAD);
    Fake<decltype(GetFileAttributesW)> none("GetFileAttributesW", 0, INVALID_FILE_ATTRIBUTES);
    for (const wchar_t *path : {L"\\\\?\\C:\\d\\f", L"a/b\\c/f", L"f", L"d\\"})
        wprintf(L"%s\n", thr_osi_temp_name(path).c_str());
    return 0;
}

TEST(TempName, NumbersFollowFromTheirInputs)
{
    support::Child child("names_files");
    for (const char *name : {"\\\\?\\C:\\d\\.velkora.ABCDEF.tmp", "a/b\\c/.velkora.ABCDF0.tmp",
                             ".velkora.ABCDF3.tmp", "d\\.velkora.ABCDF8.tmp"})
        EXPECT_EQ(child.read_line(), name);
}

TEST(TempName, IsTheFirstFreeOneOfAThousand)
{
    for (int taken : {2, 5000}) {
        const size_t tried = taken == 2 ? 3 : 1000;
        std::set<std::wstring> asked;
        Fake<decltype(GetFileAttributesW)> attributes("GetFileAttributesW", [&](LPCWSTR path) {
            asked.insert(path);
            return attributes.calls() <= taken ? 0 : INVALID_FILE_ATTRIBUTES;
        });
        EXPECT_EQ(asked.count(plain(thr_osi_temp_name(L"C:\\d\\f"))), 1u);
        EXPECT_EQ(asked.size(), tried);
    }
}

TEST(FailedAllocation, IsAnInternalError)
{
    auto without_memory = [](auto call) {
        support::ImportPatch one(
            "malloc", +[](size_t) -> void * { return nullptr; }, OWN);
        support::ImportPatch two(
            "calloc", +[](size_t, size_t) -> void * { return nullptr; }, OWN);
        call();
    };
    const char FILE_NAME[] = "thr_osi_sys";
    EXPECT_INTERNAL_ERROR(without_memory([] { thr_osi_temp_name(L"f"); }), "buffer", FILE_NAME);
    EXPECT_INTERNAL_ERROR(without_memory([] { thr_osi_getcwd(nullptr, 999); }), "buf", FILE_NAME);
}

// --- opening ------------------------------------------------------------------------------------

const int DIRECTORY_FLAG = 0x2000; // the runtime's headers leave it out

TEST(Open, TurnsFlagsIntoASystemCall)
{
    const DWORD READ = GENERIC_READ, WRITE = GENERIC_WRITE | DELETE;
    const std::string R_W = "Improper or unspecified R/W file open flag: 3\n";
    const std::string EXCL = "Improper use of _O_EXCL file open flag\n";
    const std::string TRUNC = "Improper use of _O_TRUNC file open flag\n";
    const struct {
        int m_flags, m_mode;
        DWORD m_access, m_disposition, m_attributes;
        std::string m_printed;
    } cases[] = {
        {_O_RDONLY, 0400, READ, OPEN_EXISTING, 0x80, ""},
        {_O_RDWR | _O_NOINHERIT, 0040, READ | WRITE, OPEN_EXISTING, 0x80, ""},
        {_O_WRONLY | _O_CREAT | _O_EXCL, 0333, WRITE, CREATE_NEW, 0x81, ""},
        {_O_WRONLY | _O_CREAT | _O_TRUNC, 0444, WRITE, CREATE_ALWAYS, 0x80, ""},
        {_O_WRONLY | _O_CREAT | _O_APPEND, 0600, WRITE, OPEN_ALWAYS, 0x80, ""},
        {_O_WRONLY | _O_APPEND | _O_U8TEXT, 0600, READ | WRITE, OPEN_EXISTING, 0x80, ""},
        {_O_WRONLY | _O_TRUNC | _O_U8TEXT, 0600, WRITE, TRUNCATE_EXISTING, 0x80, ""},
        {_O_TEMPORARY | _O_SHORT_LIVED, 0600, READ | DELETE, OPEN_EXISTING, 0x04000180, ""},
        {DIRECTORY_FLAG | _O_RANDOM, 0600, READ, OPEN_EXISTING, 0x12000080, ""},
        {_O_SEQUENTIAL | _O_RANDOM, 0, READ, OPEN_EXISTING, 0x08000081, ""},
        {_O_EXCL, 0600, READ, OPEN_EXISTING, 0x80, EXCL},
        {_O_TRUNC, 0600, READ, TRUNCATE_EXISTING, 0x80, TRUNC},
        {3 | _O_EXCL | _O_TRUNC, 0600, 0, TRUNCATE_EXISTING, 0x80, R_W + EXCL + TRUNC},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << "flags " << c.m_flags);
        testing::internal::CaptureStderr();
        {
            Fake<decltype(CreateFileW)> create(
                "CreateFileW",
                [&](LPCWSTR path, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
                    DWORD disposition, DWORD attributes, HANDLE) {
                    EXPECT_STREQ(path, L"C:\\the file");
                    EXPECT_EQ(access, c.m_access);
                    EXPECT_EQ(share, 7u);
                    EXPECT_EQ(security->bInheritHandle, !(c.m_flags & _O_NOINHERIT));
                    EXPECT_EQ(disposition, c.m_disposition);
                    EXPECT_EQ(attributes, c.m_attributes);
                    return INVALID_HANDLE_VALUE;
                });
            EXPECT_EQ(thr_osi_open(L"C:\\the file", c.m_flags, c.m_mode), -1);
            EXPECT_EQ(create.calls(), 1);
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.m_printed);
    }
}

TEST(Open, OpensFilesAndLeavesNoHandle)
{
    Scratch scratch;
    size_t before = 0;
    for (int i = 0; i < 4; i++) {
        int out = thr_osi_open(L"f", _O_WRONLY | _O_CREAT | _O_TRUNC, 0600);
        EXPECT_EQ(_write(out, "ab", 2), 2);
        int in = thr_osi_open(L"f", _O_RDONLY, 0600);
        char text[8];
        EXPECT_EQ(_read(in, text, sizeof text), 2);
        EXPECT_EQ(_close(out) + _close(in), 0);
        EXPECT_EQ(thr_osi_open(L"f", _O_WRONLY | _O_CREAT | _O_EXCL, 0600), -1);
        Fake<decltype(_open_osfhandle)> no_descriptor("_open_osfhandle", 0, -1);
        EXPECT_EQ(thr_osi_open(L"f", _O_RDONLY, 0600), -1);
        before = i == 0 ? support::live_handle_count() : before;
    }
    EXPECT_EQ(support::live_handle_count(), before);
}

// What a thread that wants the mutex at once gets; what it gets, it gives back.
DWORD wait_elsewhere(const char *mutex_name)
{
    DWORD result = WAIT_FAILED;
    std::thread([&] {
        HANDLE mutex = OpenMutexA(SYNCHRONIZE, FALSE, mutex_name);
        result = WaitForSingleObject(mutex, 0);
        if (result != WAIT_TIMEOUT)
            ReleaseMutex(mutex);
        CloseHandle(mutex);
    }).join();
    return result;
}

TEST(Open, HoldsAMutexNamedByThePath)
{
    // The second path is one whose hash needs the zero fill.
    const std::pair<const wchar_t *, const char *> names[] = {
        {L"\\\\?\\C:\\x", ".velkora.48492416CFB756C3.sem"}, {L"cIi83ZT", ".velkora.04FDBF67.sem"}};
    for (auto [path, expected] : names) {
        const char *name = expected;
        Fake<decltype(CreateFileW)> create("CreateFileW", [=](auto...) {
            EXPECT_EQ(wait_elsewhere(name), DWORD{WAIT_TIMEOUT}) << "held around the call";
            return INVALID_HANDLE_VALUE;
        });
        HANDLE kept = CreateMutexA(nullptr, FALSE, name);
        thr_osi_open(path, _O_RDONLY, 0600);
        EXPECT_EQ(wait_elsewhere(name), WAIT_OBJECT_0);
        std::thread([=] { WaitForSingleObject(kept, 0); }).join(); // ends holding it
        thr_osi_open(path, _O_RDONLY, 0600);
        EXPECT_EQ(wait_elsewhere(name), WAIT_OBJECT_0) << "released as often as it was taken";
        EXPECT_EQ(create.calls(), 2);
        CloseHandle(kept);
    }
}

TEST(Open, GoesOnWithoutTheMutex)
{
    Fake<decltype(ReleaseMutex)> release("ReleaseMutex", 0);
    for (DWORD result : {DWORD{WAIT_TIMEOUT}, WAIT_FAILED}) {
        Fake<decltype(WaitForSingleObject)> wait("WaitForSingleObject", [=](HANDLE, DWORD timeout) {
            EXPECT_EQ(timeout, 600000u);
            return result;
        });
        EXPECT_EQ(_close(thr_osi_open(L".", DIRECTORY_FLAG, 0600)), 0);
        EXPECT_EQ(wait.calls(), 1);
    }
    Fake<decltype(CreateMutexA)> no_mutex("CreateMutexA", 0);
    EXPECT_EQ(_close(thr_osi_open(L".", DIRECTORY_FLAG, 0600)), 0);
    EXPECT_EQ(release.calls(), 0) << "never taken";
}

// --- files and directories ----------------------------------------------------------------------

TEST(Files, AreFoundAndRemovedUnderAnyName)
{
    Scratch scratch;
    struct _stat64i32 record;
    const std::wstring here = L"\\\\?\\" + scratch.wide_path() + L"\\";
    const std::wstring wide_deep(200, L'd');
    const std::string deep(200, 'd'), odd = "\xc3\xa4\xe5\x90\x8d"; // the latter in UTF-8
    CreateDirectoryW((here + wide_deep).c_str(), nullptr);
    for (const auto &[path, wide] : {std::pair(odd, here + L"\u00e4\u540d"),
                                     {deep + "/" + deep, here + wide_deep + L"\\" + wide_deep}}) {
        const std::string file = path + "/" + odd;
        ASSERT_TRUE(CreateDirectoryW(wide.c_str(), nullptr));
        CloseHandle(open_file(wide + L"\\\u00e4\u540d", 0));
        ASSERT_EQ(thr_osi_stat(file.c_str(), &record), 0);
        EXPECT_EQ(record.st_mode & 0xC000, 0x8000);
        ASSERT_EQ(thr_osi_stat((path + "\\").c_str(), &record), 0);
        EXPECT_EQ(record.st_mode & 0xC000, 0x4000);
        EXPECT_TRUE(thr_osi_path_exists(file.c_str()));
        EXPECT_EQ(thr_osi_remove(path.c_str()), -1) << "not empty";
        EXPECT_EQ(thr_osi_remove(file.c_str()), 0);
        EXPECT_FALSE(thr_osi_path_exists(file.c_str()));
        EXPECT_EQ(thr_osi_remove((path + "/").c_str()), 0);
        EXPECT_FALSE(there(wide));
    }
    for (const char *refused : {static_cast<const char *>(nullptr), "", "no such"}) {
        EXPECT_EQ(thr_osi_stat(refused, &record), -1);
        EXPECT_EQ(thr_osi_remove(refused), -1);
        EXPECT_FALSE(thr_osi_path_exists(refused));
    }
    Fake<decltype(_fstat64)> no_record("_fstat64", 0, -1); // what the narrower one calls
    EXPECT_EQ(thr_osi_stat(".", &record), -1);
}

TEST(Remove, RenamesAFileThatCantBeDeleted)
{
    Scratch scratch;
    std::wstring renamed;
    for (int nth : {1, 0}) { // the file under its own name alone can't be deleted, or under none
        Fake<decltype(MoveFileW)> move("MoveFileW", [&](LPCWSTR from, LPCWSTR to) {
            renamed = to;
            return move.real(from, to);
        });
        Fake<decltype(DeleteFileW)> refused("DeleteFileW", nth);
        CloseHandle(open_file(L"f", 0));
        EXPECT_EQ(thr_osi_remove("f"), nth - 1);
        EXPECT_FALSE(there(L"f"));
        EXPECT_EQ(there(renamed), nth == 0);
    }
    // Held without delete sharing, until it goes away while moves are tried.
    HANDLE held = open_file(L"f", FILE_SHARE_READ);
    Fake<decltype(MoveFileW)> move("MoveFileW", [&](LPCWSTR from, LPCWSTR to) {
        EXPECT_FALSE(move.real(from, to));
        if (move.calls() == 3) {
            CloseHandle(held);
            EXPECT_TRUE(DeleteFileW(L"f"));
        }
        return FALSE;
    });
    EXPECT_EQ(thr_osi_remove("f"), -1);
    EXPECT_EQ(move.calls(), 3);
}

TEST(Remove, GivesUpOnSomeFilesAtOnceAndOnOthersInTheEnd)
{
    Scratch scratch;
    CloseHandle(open_file(L"f", 0));
    SetFileAttributesW(L"f", FILE_ATTRIBUTE_READONLY);
    Fake<decltype(MoveFileW)> move("MoveFileW", 0);
    EXPECT_EQ(thr_osi_remove("f"), -1);
    EXPECT_TRUE(there(L"f"));
    // From here on the file system is a fake that answers quickly.
    DWORD attributes;
    Fake<decltype(DeleteFileW)> no_delete("DeleteFileW", 0);
    Fake<decltype(GetFileAttributesW)> only_f("GetFileAttributesW", [&](LPCWSTR path) {
        return wcsstr(path, L".velkora.") ? INVALID_FILE_ATTRIBUTES : attributes;
    });
    for (DWORD kept : {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_SYSTEM, FILE_ATTRIBUTE_OFFLINE}) {
        attributes = FILE_ATTRIBUTE_ARCHIVE | kept;
        EXPECT_EQ(thr_osi_remove("f"), -1);
    }
    EXPECT_EQ(move.calls(), 0);
    attributes = FILE_ATTRIBUTE_ARCHIVE;
    EXPECT_EQ(thr_osi_remove("f"), -1);
    EXPECT_EQ(move.calls(), 100000);
}

TEST(CurrentDirectory, IsEntered)
{
    Scratch scratch;
    CreateDirectoryW(L"\u00e4", nullptr);
    CloseHandle(open_file(L"f", 0));
    for (const char *path : {"\xc3\xa4", "\xc3\xa4\\", "./\xc3\xa4/"}) {
        ASSERT_EQ(thr_osi_chdir(path), 0);
        EXPECT_EQ(scratch.current(), scratch.wide_path() + L"\\\u00e4");
        ASSERT_EQ(thr_osi_chdir(".."), 0);
    }
    for (const char *refused : {static_cast<const char *>(nullptr), "", "f", "no such", "\\\\?\\1"})
        EXPECT_EQ(thr_osi_chdir(refused), -1);
    EXPECT_EQ(scratch.current(), scratch.wide_path());
    Fake<decltype(SetCurrentDirectoryW)> enter("SetCurrentDirectoryW", [](LPCWSTR path) {
        EXPECT_STREQ(path, L"UNC\\srv\\share\\d\\");
        return TRUE;
    });
    EXPECT_EQ(thr_osi_chdir("\\\\srv\\share\\d"), 0);
    EXPECT_EQ(enter.calls(), 1);
}

TEST(CurrentDirectory, IsReadWhenItFits)
{
    std::string directory;
    Fake<decltype(GetCurrentDirectoryW)> get("GetCurrentDirectoryW", [&](DWORD size, LPWSTR text) {
        const bool fits = directory.size() < size;
        if (fits)
            wcscpy(text, std::wstring(directory.begin(), directory.end()).c_str());
        return static_cast<DWORD>(directory.size() + !fits);
    });
    const std::string longest = "C:\\" + std::string(1020, 'd');
    const struct {
        std::string m_directory;
        size_t m_size;
        const char *m_read;
    } cases[] = {
        {"C:\\w", 5, "C:\\w"},
        {"C:\\w", 4, nullptr},
        {"C:\\w", 0, nullptr},
        {"", 9, nullptr}, // refused
        {"\\\\srv\\share\\d", 14, "srv\\share\\d"},
        {"\\\\srv\\share\\d", 13, nullptr}, // the length of the whole text counts
        {"12\\3", 64, nullptr},
        {longest, 1024, longest.c_str()},
        {longest + "d", 4096, nullptr},
    };
    for (const auto &c : cases) {
        directory = c.m_directory;
        char buffer[4096];
        EXPECT_STREQ(thr_osi_getcwd(buffer, c.m_size), c.m_read) << directory;
        char *made = thr_osi_getcwd(nullptr, c.m_size);
        EXPECT_STREQ(made, c.m_read) << directory;
        free(made);
    }
    directory = "C:\\w";
    // Refused; no room for the end; UTF-8 as the ANSI code page, which takes no flags.
    for (int converted : {0, 10, 4}) {
        auto conversion = [=](UINT code_page, DWORD flags, auto...) {
            EXPECT_EQ(code_page, UINT{CP_ACP});
            SetLastError(converted ? ERROR_INVALID_FLAGS : ERROR_INSUFFICIENT_BUFFER);
            return flags ? 0 : converted;
        };
        Fake<decltype(WideCharToMultiByte)> convert("WideCharToMultiByte", conversion);
        char buffer[10];
        EXPECT_EQ(thr_osi_getcwd(buffer, 10), converted == 4 ? buffer : nullptr);
    }
}

} // namespace
