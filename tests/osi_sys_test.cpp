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
        {"C:/a/./c/../b.txt", L"\\\\?\\C:\\a\\b.txt"},
        {"\\\\srv\\share\\f", L"\\\\?\\UNC\\srv\\share\\f"},
        {"\\\\?\\C:\\x", L"\\\\?\\C:\\x"},
        {"\\\\.\\pipe\\p", L"\\\\.\\pipe\\p"},
        {"\xc3\xa4\xe5\x90\x8d\xf0\x9f\x98\x80", // relative, in UTF-8
         L"\\\\?\\" + current_path().wstring() + L"\\\u00e4\u540d\xd83d\xde00"},
    };
    for (const auto &[path, expected] : cases)
        EXPECT_EQ(thr_osi_long_path(path).c_str(), expected) << (path ? path : "null");
}

TEST(LongPath, RefusedConversionFailsTheRuntimesAssertion)
{
    for (int nth : {1, 2}) {
        const std::string size = nth == 1 ? "required" : "actual";
        auto refuse_unicode = [nth] {
            Fake<decltype(MultiByteToWideChar)> refused("MultiByteToWideChar", nth);
            thr_osi_long_path("C:\\x");
        };
        auto refuse_full = [nth] {
            Fake<decltype(GetFullPathNameW)> refused("GetFullPathNameW", nth);
            thr_osi_long_path("C:\\x");
        };
        EXPECT_EXIT(refuse_unicode(), testing::ExitedWithCode(3), size + "_unicode_path_size != 0");
        EXPECT_EXIT(refuse_full(), testing::ExitedWithCode(3), size + "_unc_path_size != 0");
    }
}

// --- temporary names ----------------------------------------------------------------------------

// What a process's names are made of, chosen so that the first number is ABCDEF. The computer's
// name has a byte above 0x7F, which counts as a negative number.
const char COMPUTER[] = "h\xe9st.lan";

ROLE(names_files)
{
    Fake<decltype(GetComputerNameExA)> computer(
        "GetComputerNameExA", [](COMPUTER_NAME_FORMAT format, char *name, DWORD *size) {
            if (name && *size >= sizeof COMPUTER && format == ComputerNamePhysicalDnsFullyQualified)
                strcpy(name, COMPUTER);
            *size = sizeof COMPUTER;
            return name != nullptr;
        });
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

TEST(Open, TurnsFlagsIntoASystemCall)
{
    const DWORD READ = GENERIC_READ, WRITE = GENERIC_WRITE | DELETE;
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
        auto create = [&](LPCWSTR path, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
                          DWORD disposition, DWORD attributes, HANDLE) {
            EXPECT_STREQ(path, L"C:\\the file");
            EXPECT_EQ(share, 7u);
            EXPECT_EQ(security->bInheritHandle, !(c.m_flags & _O_NOINHERIT));
            EXPECT_EQ(std::tuple(access, disposition, attributes),
                      std::tuple(c.m_access, c.m_disposition, c.m_attributes));
            return INVALID_HANDLE_VALUE;
        };
        Fake<decltype(CreateFileW)> patch("CreateFileW", create);
        EXPECT_EQ(thr_osi_open(L"C:\\the file", c.m_flags, c.m_mode), -1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), // of the last case
              "Improper or unspecified R/W file open flag: 3\n"
              "Improper use of _O_EXCL file open flag\n"
              "Improper use of _O_TRUNC file open flag\n");
}

TEST(Open, HoldsAMutexNamedByThePath)
{
    // The path is one whose hash needs the zero fill.
    HANDLE mutex = CreateMutexA(nullptr, FALSE, ".velkora.04FDBF67.sem");
    auto expect_elsewhere = [=](DWORD waited) {
        std::thread([=] { EXPECT_EQ(WaitForSingleObject(mutex, 0), waited); }).join();
    };
    Fake<decltype(CreateFileW)> create("CreateFileW", [&](auto...) {
        expect_elsewhere(WAIT_TIMEOUT);
        return INVALID_HANDLE_VALUE;
    });
    for (int times : {1, 2}) {
        thr_osi_open(L"cIi83ZT", _O_RDONLY, 0600);
        EXPECT_EQ(create.calls(), times);
        expect_elsewhere(WAIT_OBJECT_0); // by a thread that ends holding it
    }
    CloseHandle(mutex);
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
    auto create = [&] {
        return thr_osi_open(thr_osi_long_path(file.c_str()), _O_RDWR | _O_CREAT | _O_EXCL, 0600);
    };
    const int descriptor = create();
    EXPECT_EQ(_write(descriptor, "ab", 2), 2);
    EXPECT_EQ(_close(descriptor), 0);
    EXPECT_EQ(create(), -1) << "it is there";
    struct _stat64i32 record;
    EXPECT_EQ(thr_osi_stat(nullptr, &record), -1);
    EXPECT_EQ(thr_osi_stat(file.c_str(), &record), 0);
    EXPECT_EQ(record.st_mode & 0xC000, 0x8000);
    EXPECT_EQ(record.st_size, 2);
    EXPECT_EQ(thr_osi_stat((path + "\\").c_str(), &record), 0);
    EXPECT_EQ(record.st_mode & 0xC000, 0x4000);
    EXPECT_EQ(thr_osi_remove(path.c_str()), -1) << "not empty";
    EXPECT_TRUE(thr_osi_path_exists(file.c_str()));
    EXPECT_EQ(thr_osi_remove(file.c_str()), 0);
    EXPECT_FALSE(thr_osi_path_exists(file.c_str()));
    EXPECT_EQ(thr_osi_remove((path + "/").c_str()), 0);
    EXPECT_FALSE(thr_osi_path_exists(path.c_str()));
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
        std::wstring deleted, renamed;
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
    std::string directory;
    Fake<decltype(GetCurrentDirectoryW)> get("GetCurrentDirectoryW", [&](DWORD size, LPWSTR text) {
        if (directory.size() >= size)
            return static_cast<DWORD>(directory.size() + 1);
        wcscpy(text, std::wstring(directory.begin(), directory.end()).c_str());
        return static_cast<DWORD>(directory.size());
    });
    const std::string longest = "C:\\" + std::string(1020, 'd');
    const struct {
        std::string m_directory;
        size_t m_size;
        const char *m_read;
    } cases[] = {
        {"C:\\w", 5, "C:\\w"},
        {"C:\\w", 4, nullptr},
        {"\\\\srv\\share\\d", 14, "srv\\share\\d"},
        {"\\\\srv\\share\\d", 13, nullptr}, // the length of the whole text counts
        {longest, 1024, longest.c_str()},
        {longest + "d", 4096, nullptr},
    };
    for (const auto &c : cases) {
        directory = c.m_directory;
        char buffer[4096];
        EXPECT_STREQ(thr_osi_getcwd(buffer, c.m_size), c.m_read) << directory;
        EXPECT_STREQ(THR_HEAP_TEXT(thr_osi_getcwd(nullptr, c.m_size)).get(), c.m_read) << directory;
    }
    directory = "C:\\w";
    char buffer[10];
    auto no_flags = [](UINT, DWORD flags, auto...) { // as UTF-8 has it
        SetLastError(ERROR_INVALID_FLAGS);
        return flags ? 0 : 4;
    };
    Fake<decltype(WideCharToMultiByte)> convert("WideCharToMultiByte", no_flags);
    EXPECT_EQ(thr_osi_getcwd(buffer, 10), buffer);
    auto refused = [] {
        support::RefusedMalloc malloc(1, OWN);
        thr_osi_getcwd(nullptr, 10);
    };
    EXPECT_INTERNAL_ERROR(refused(), "buf", "thr_osi_sys");
}

} // namespace
