// Paths, files and lock files, through the library's objects.

#include "support/test.h"

#include "thr/thr_interprocess.h"
#include "thr/thr_osi_sys.h"

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <io.h>
#include <time.h>

using std::filesystem::current_path;
using support::Call;
using support::Child;
using support::ScratchDir;

namespace
{

// Stands in for an import of this program, whose own calls reach it too.
struct Fake : support::Gate {
    Fake(const char *import, Way way) : Gate(import, way, GetModuleHandleA(nullptr)) {}
};

// --- paths and temporary names ------------------------------------------------------------------

TEST(LongPath, TakesEveryFormOfPath)
{
    const std::pair<const char *, std::wstring> cases[] = {
        {nullptr, L""},
        {"", L""},
        {"C:/a/./c/../b%s%n\xff.txt", L"\\\\?\\C:\\a\\b%s%n\xfffd.txt"},
        {"//?/C:/d/", L"\\\\?\\C:\\d\\"},
        {"//srv/share/f", L"\\\\?\\UNC\\srv\\share\\f"},
        {"\\\\.\\pipe\\p", L"\\\\.\\pipe\\p"},
        {"\xc3\xa4\xe5\x90\x8d\xf0\x9f\x98\x80", // relative, in UTF-8
         L"\\\\?\\" + current_path().wstring() + L"\\\u00e4\u540d\xd83d\xde00"}};
    for (const auto &[path, expected] : cases)
        EXPECT_EQ(thr_osi_long_path(path).c_str(), expected) << (path ? path : "null");
}

// What a process's names are made of is chosen so that the first number is ABCDEF. The computer's
// name has a byte above 0x7F, which counts as a negative number.
void print_temporary_names()
{
    static const char COMPUTER[] = "h\xe9st.lan";
    Fake computer("GetComputerNameExA", [](const Call &call) {
        auto *size = call.arg<DWORD *>(2);
        const bool fits = call.arg<char *>(1) && *size >= sizeof COMPUTER;
        if (fits && call.arg<int>(0) == ComputerNamePhysicalDnsFullyQualified)
            strcpy(call.arg<char *>(1), COMPUTER);
        *size = sizeof COMPUTER;
        return fits;
    });
    Fake clock("_time64", [](auto &) { return 0x8fc12005a39eeb70; });
    Fake thread("GetCurrentThreadId", [](auto &) { return 4242; });
    for (const wchar_t *path : {L"\\\\?\\C:\\d\\f", L"a/b\\c/f", L"f"})
        fprintf(stderr, "%ls\n", thr_osi_temp_name(path).c_str());
    exit(0);
}

TEST(TempName, NumbersFollowFromTheirInputs)
{
    EXPECT_EXIT(print_temporary_names(), testing::ExitedWithCode(0),
                support::literal_regex("\\\\?\\C:\\d\\.velkora.ABCDEF.tmp\n"
                                       "a/b\\c/.velkora.ABCDF0.tmp\n.velkora.ABCDF3.tmp\n"));
}

// --- files and directories ----------------------------------------------------------------------

TEST(Open, TurnsFlagsIntoASystemCallUnderAMutexNamedByThePath)
{
    const DWORD READ = GENERIC_READ, WRITE = GENERIC_WRITE | DELETE;
    const int DIRECTORY_FLAG = 0x2000;     // the runtime's headers leave it out
    const THR_WIDE_TEXT path = L"cIi83ZT"; // its hash needs the zero fill
    THR_HANDLE mutex(CreateMutexA(nullptr, FALSE, ".velkora.04FDBF67.sem"));
    auto expect_elsewhere = [&](DWORD waited) { // by a thread that ends holding it
        std::thread([&] { EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), waited); }).join();
    };
    // flags, mode; access, disposition, attributes
    const std::tuple<int, int, DWORD, DWORD, DWORD> cases[] = {
        {_O_RDONLY | _O_TEMPORARY | _O_SHORT_LIVED, 0400, READ | DELETE, OPEN_EXISTING, 0x04000180},
        {_O_RDWR | _O_NOINHERIT, 0040, READ | WRITE, OPEN_EXISTING, 0x80},
        {_O_WRONLY | _O_CREAT | _O_EXCL, 0333, WRITE, CREATE_NEW, 0x81},
        {_O_WRONLY | _O_CREAT | _O_TRUNC, 0004, WRITE, CREATE_ALWAYS, 0x80},
        {_O_WRONLY | _O_CREAT | _O_APPEND, 0600, WRITE, OPEN_ALWAYS, 0x80},
        {_O_WRONLY | _O_APPEND | _O_U8TEXT, 0600, READ | WRITE, OPEN_EXISTING, 0x80},
        {DIRECTORY_FLAG | _O_RANDOM, 0600, READ, OPEN_EXISTING, 0x12000080},
        {3 | _O_EXCL | _O_TRUNC | _O_SEQUENTIAL, 0600, 0, TRUNCATE_EXISTING, 0x08000080}};
    testing::internal::CaptureStderr();
    for (const auto &expected : cases) {
        const int flags = std::get<0>(expected), mode = std::get<1>(expected);
        Fake create("CreateFileW", [&](const Call &call) {
            EXPECT_EQ(path, call.arg<LPCWSTR>(0));
            EXPECT_EQ(
                std::tuple(flags, mode, call.arg<DWORD>(1), call.arg<DWORD>(4), call.arg<DWORD>(5)),
                expected);
            EXPECT_EQ(call.arg<DWORD>(2), 7u);
            EXPECT_EQ(call.arg<SECURITY_ATTRIBUTES *>(3)->bInheritHandle, !(flags & _O_NOINHERIT));
            expect_elsewhere(WAIT_TIMEOUT);
            return -1;
        });
        EXPECT_EQ(thr_osi_open(path, flags, mode) + create.calls(), 0);
        expect_elsewhere(WAIT_OBJECT_0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), // of the last case
              "Improper or unspecified R/W file open flag: 3\n"
              "Improper use of _O_EXCL file open flag\n"
              "Improper use of _O_TRUNC file open flag\n");
}

TEST(Files, AreWrittenFoundAndRemovedUnderAnyName)
{
    ScratchDir scratch;
    const std::filesystem::path before = current_path();
    CreateDirectoryW(scratch.file(L"\u00e4").c_str(), nullptr);
    EXPECT_EQ(thr_osi_chdir((scratch.path() + "/\xc3\xa4/").c_str()), 0);
    for (const char *refused : {"", "no such", "\\\\?\\1"})
        EXPECT_EQ(thr_osi_chdir(refused), -1);
    EXPECT_EQ(current_path().wstring(), scratch.file(L"\u00e4"));

    const std::string deep(200, 'd'), path = deep + "/" + deep, file = path + "/\xc3\xa4";
    for (const std::string &directory : {deep, path})
        CreateDirectoryW(thr_osi_long_path(directory.c_str()).c_str(), nullptr);
    const int flags = _O_RDWR | _O_CREAT | _O_EXCL;
    const int descriptor = thr_osi_open(thr_osi_long_path(file.c_str()), flags, 0600);
    EXPECT_EQ(_write(descriptor, "ab", 2) + _close(descriptor), 2);
    struct _stat64i32 record;
    EXPECT_EQ(thr_osi_stat(file.c_str(), &record), 0);
    EXPECT_EQ(std::pair(record.st_mode & 0xC000, record.st_size), std::pair(0x8000, 2L));
    EXPECT_EQ(thr_osi_stat((path + "\\").c_str(), &record), 0);
    EXPECT_EQ(record.st_mode & 0xC000, 0x4000);
    {
        Fake create("CreateFileW", [](const Call &call) {
            EXPECT_FALSE(call.arg<SECURITY_ATTRIBUTES *>(3)->bInheritHandle) << "by a child";
            return -1;
        });
        EXPECT_EQ(thr_osi_stat(file.c_str(), &record) + thr_osi_stat(nullptr, &record), -2);
    }
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
    // attributes, refused deletes and moves; result, moves
    const std::tuple<DWORD, int, int, int, int> cases[] = {
        {FILE_ATTRIBUTE_ARCHIVE, 1, 3, 0, 4},
        {FILE_ATTRIBUTE_ARCHIVE, 2, 0, -1, 1},
        {FILE_ATTRIBUTE_ARCHIVE, 1, 100000, -1, 100000},
        {FILE_ATTRIBUTE_READONLY, 1, 0, -1, 0},
        {FILE_ATTRIBUTE_SYSTEM, 1, 0, -1, 0},
        {FILE_ATTRIBUTE_OFFLINE, 1, 0, -1, 0}};
    for (const auto &[attributes, refused_deletes, refused_moves, result, moves] : cases) {
        std::wstring deleted, renamed = L"not at all";
        Fake remove("DeleteFileW", [&, refused = refused_deletes](const Call &call) {
            deleted = call.arg<LPCWSTR>(0);
            EXPECT_NE(deleted.back(), L'\\');
            return call.nth > refused;
        });
        Fake move("MoveFileW", [&, refused = refused_moves](const Call &call) {
            renamed = call.arg<LPCWSTR>(1);
            return call.nth > refused;
        });
        Fake only_f("GetFileAttributesW", [&, f = attributes](const Call &call) {
            return wcsstr(call.arg<LPCWSTR>(0), L".velkora.") ? INVALID_FILE_ATTRIBUTES : f;
        });
        EXPECT_EQ(thr_osi_remove("f/"), result);
        EXPECT_EQ(move.calls(), moves);
        EXPECT_EQ(deleted == renamed, moves > refused_moves);
    }
}

TEST(CurrentDirectory, IsReadWhenItFits)
{
    const std::string longest = "C:\\" + std::string(1020, 'd'), share = "\\\\srv\\share\\d";
    // the directory, the size, how much longer it is in the ANSI code page; what is read
    const std::tuple<std::string, size_t, int, const char *> cases[] = {
        {"C:\\w", 5, 0, "C:\\w"},
        {"C:\\w", 4, 0, nullptr},
        {"C:\\w", 6, 1, "C:\\ww"},
        {"C:\\w", 5, 1, nullptr}, // all but the terminator
        {share, 14, 0, "srv\\share\\d"},
        {share, 13, 0, nullptr}, // the length of the whole text counts
        {longest, 1024, 0, longest.c_str()},
        {longest + "d", 4096, 0, nullptr}};
    for (const auto &[directory, size, longer, read] : cases) {
        Fake current("GetCurrentDirectoryW", [&, path = directory](const Call &call) {
            const bool fits = path.size() < call.arg<DWORD>(0);
            wcscpy(call.arg<LPWSTR>(1),
                   fits ? std::wstring(path.begin(), path.end()).c_str() : L"");
            return path.size() + !fits;
        });
        // Takes no flags, as where UTF-8 is the ANSI code page.
        Fake convert("WideCharToMultiByte", [more = longer](const Call &call) {
            const int length = call.arg<int>(3);
            LPCWSTR text = call.arg<LPCWSTR>(2);
            char *end = std::copy(text, text + length, call.arg<char *>(4));
            std::fill(end, end + more, 'w');
            SetLastError(ERROR_INVALID_FLAGS);
            return call.arg<DWORD>(1) ? 0 : length + more;
        });
        char buffer[4096];
        EXPECT_STREQ(thr_osi_getcwd(buffer, size), read);
        EXPECT_STREQ(THR_HEAP_TEXT(thr_osi_getcwd(nullptr, size)).get(), read);
    }
    EXPECT_INTERNAL_ERROR((Fake("malloc", [](auto &) { return 0; }), thr_osi_getcwd(nullptr, 1000)),
                          "buf", "thr_osi_sys");
}

// --- interprocess mode and processes ------------------------------------------------------------

TEST(Mode, ScopesNestAndRestore)
{
    thr_enable_interprocess_mode();
    EXPECT_TRUE(thr_is_interprocess_mode());
    thr_disable_interprocess_mode();
    THR_ENABLE_INTERPROCESS_FOR_UTST();
    EXPECT_FALSE(thr_is_interprocess_mode());
    {
        THR_ENABLE_INTERPROCESS_FOR_UTST outer, inner;
        EXPECT_TRUE(thr_is_interprocess_mode());
        outer = THR_ENABLE_INTERPROCESS_FOR_UTST(); // restores true at once, and in the end
        thr_disable_interprocess_mode();
    }
    EXPECT_TRUE(thr_is_interprocess_mode());
    thr_disable_interprocess_mode();
    EXPECT_STREQ(thr_get_interprocess_file_extension(), "flock");
}

ROLE(ends_with)
{
    support::hear();
    return std::stoi(args[0]);
}

TEST(PidActive, GoesByTheExitCode)
{
    for (int code : {0, 259}) {
        Child child("ends_with", {std::to_string(code)});
        EXPECT_TRUE(thr_is_pid_active(child.pid()));
        {
            // The system opens the neighbour of an id that is no multiple of four.
            Fake neighbour("GetProcessId", [](auto &) { return 4; });
            EXPECT_FALSE(thr_is_pid_active(child.pid()));
        }
        child.close_stdin();
        ASSERT_EQ(child.wait(), code);
        // This process has the ended one open, so that its id is still its own.
        EXPECT_EQ(thr_is_pid_active(child.pid()), code == 259);
    }
    EXPECT_TRUE(thr_is_pid_active(GetCurrentProcessId()));
}

// --- lock files ---------------------------------------------------------------------------------

std::string lock_path(const std::string &file)
{
    THR_HEAP_TEXT path = thr_ip_lock_file_path(file.c_str());
    return path ? path.get() : "none";
}

TEST(LockFilePath, IsAbsoluteAndLeavesTheCurrentDirectory)
{
    ScratchDir scratch;
    for (const char *directory : {"x", "y", "y/z"})
        CreateDirectoryA(scratch.file(directory).c_str(), nullptr);
    std::ofstream(scratch.file("file")) << "";
    const std::filesystem::path before = current_path(), here = scratch.file("y");
    current_path(here);
    const std::string longest(70000, 'l');
    const std::pair<std::string, std::string> cases[] = {
        // the second "" for none
        {"db", "y/db"},
        {"../x/", "x/"},
        {"..\\x\\db", "x/db"},
        {"..\\x/..\\db", "x/..\\db"}, // the last slash splits, no backslash does
        {"..//x/%s%n\x01\xff:*?", "x/%s%n\x01\xff:*?"},
        {"z/" + longest, "y\\z/" + longest},
        {"../no such/db", ""},
        {"../x\xff/db", ""},
        {"../file/db", ""},
        {"/db", ""}}; // its directory part is empty
    for (const auto &[file, expected] : cases) {
        EXPECT_EQ(lock_path(file), expected.empty() ? "none" : scratch.file(expected)) << file;
        EXPECT_EQ(current_path(), here) << file;
    }
    // Two threads do not meet in each other's directories.
    auto resolve = [&](std::string file, const std::string &expected) {
        for (int i = 0; i < 300; i++)
            EXPECT_EQ(lock_path(file), expected);
    };
    std::thread other(resolve, "../x/db", scratch.file("x/db"));
    resolve("z/db", scratch.file("y\\z/db"));
    other.join();
    current_path(before);
}

// Windows refuses to enter a directory whose path is too long; Wine would enter it.
ROLE(resolves_unentered)
{
    thr_set_report_func(
        [](const char *message, const char *, const char *, int) { support::say(message); });
    Fake refused("SetCurrentDirectoryW", [](auto &) { return FALSE; });
    support::say(lock_path(args[0] + "/db"));
    return 0;
}

TEST(LockFilePath, OfADirectoryTooLongToEnter)
{
    const std::pair<size_t, std::string> cases[] = {
        {259, "len >= MAX_PATH"}, {260, ""}, {1024, ""}, {1025, "unc to char conversion failed"}};
    for (const auto &[length, message] : cases) {
        ScratchDir scratch;
        std::string path = scratch.path();
        while (path.size() < length) { // in steps of at most 50 characters, and never of one
            const size_t missing = length - path.size();
            path += "\\" + std::string(missing > 52 ? 50 : missing == 52 ? 49 : missing - 1, 'd');
            CreateDirectoryW(thr_osi_long_path(path.c_str()).c_str(), nullptr);
        }
        Child child("resolves_unentered", {path});
        EXPECT_EQ(child.read_line(), message.empty() ? path + "/db" : message);
        EXPECT_EQ(child.wait(), message.empty() ? 0 : -1) << length;
    }
}

} // namespace
