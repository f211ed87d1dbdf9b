// Paths, files and lock files, through the library's objects.
#include "support/test.h"

#include "thr/thr_interprocess.h"
#include "thr/thr_osi_sys.h"

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <io.h>

using namespace support;
using std::filesystem::current_path;

namespace
{

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
    for (const char *refused : {static_cast<const char *>(nullptr), "", "no such", "\\\\?\\1"})
        EXPECT_EQ(thr_osi_chdir(refused) + thr_osi_stat(refused, nullptr), -2);
}

TEST(TempName, IsAFreeOneBesideThePath)
{
    // The second name is taken, and from the fourth on all are: the last of 1000 is given then.
    Gate look("GetFileAttributesW",
              [](auto &call) { return call.nth == 2 || call.nth > 3 ? 0 : -1; });
    uint64_t last = 0, number = 0;
    for (const std::wstring directory : {L"\\\\?\\C:\\d\\", L"a/b\\c/", L""}) {
        const THR_WIDE_TEXT name = thr_osi_temp_name((directory + L"f").c_str());
        int length = 0;
        swscanf(name.c_str(), (directory + L".velkora.%I64X.tmp%n").c_str(), &number, &length);
        EXPECT_EQ(static_cast<size_t>(length), name.size());
        EXPECT_NE(number, std::exchange(last, number));
    }
    EXPECT_EQ(look.calls(), 1003);
}

// --- files and directories ----------------------------------------------------------------------

TEST(Open, TurnsFlagsIntoASystemCallUnderAMutexNamedByThePath)
{
    const int DIRECTORY = 0x2000;          // the runtime's headers leave it out
    const THR_WIDE_TEXT path = L"cIi83ZT"; // its hash needs the zero fill
    THR_HANDLE mutex(CreateMutexA(nullptr, FALSE, ".velkora.04FDBF67.sem"));
    auto expect_elsewhere = [&](DWORD waited) { // by a thread that ends holding it
        std::thread([&] { EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), waited); }).join();
    };
    // flags, mode; access, sharing, disposition, attributes, whether inheritable
    const std::tuple<int, int, const char *> cases[] = {
        {_O_RDONLY | _O_TEMPORARY | _O_SHORT_LIVED | DIRECTORY, 0400, "80010000 7 3 6000180 1"},
        {_O_RDWR | _O_NOINHERIT | _O_CREAT | _O_EXCL | _O_RANDOM, 0333, "c0010000 7 1 10000081 0"},
        {_O_WRONLY | _O_CREAT | _O_TRUNC | _O_SEQUENTIAL, 0040, "40010000 7 2 8000080 1"},
        {_O_WRONLY | _O_CREAT | _O_APPEND, 0004, "40010000 7 4 80 1"},
        {_O_WRONLY | _O_TRUNC | _O_APPEND | _O_U8TEXT, 0600, "c0010000 7 5 80 1"},
        {3 | _O_EXCL | _O_TRUNC, 0600, "0 7 5 80 1"}};
    DWORD limit = 0; // of the wait for the mutex
    Gate waits("WaitForSingleObject", [&](const Call &call) {
        limit = std::max(limit, call.arg<DWORD>(1));
        return call.go_on();
    });
    testing::internal::CaptureStderr();
    for (const auto &[flags, mode, expected] : cases) {
        std::ostringstream made;
        Gate create("CreateFileW", [&](const Call &call) {
            for (int argument : {1, 2, 4, 5})
                made << std::hex << call.arg<DWORD>(argument) << ' ';
            made << call.arg<SECURITY_ATTRIBUTES *>(3)->bInheritHandle;
            EXPECT_EQ(path, call.arg<LPCWSTR>(0));
            expect_elsewhere(WAIT_TIMEOUT);
            return -1;
        });
        EXPECT_EQ(thr_osi_open(path, flags, mode), -1);
        EXPECT_EQ(made.str(), expected);
        expect_elsewhere(WAIT_OBJECT_0);
    }
    EXPECT_EQ(limit, 600000u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), // of the last case
              "Improper or unspecified R/W file open flag: 3\n"
              "Improper use of _O_EXCL file open flag\n"
              "Improper use of _O_TRUNC file open flag\n");
}

TEST(Remove, RenamesAFileThatCantBeDeleted)
{
    ScratchDir scratch;
    const std::string file = scratch.file("f");
    const int EVER = 1000000;
    // attributes, looks until it is gone, refused deletes and moves; result, moves
    const std::tuple<DWORD, int, LONG, LONG, int, LONG> cases[] = {
        {FILE_ATTRIBUTE_ARCHIVE, EVER, 0, 0, 0, 0},
        {FILE_ATTRIBUTE_ARCHIVE, EVER, 1, 1, 0, 2},
        {FILE_ATTRIBUTE_ARCHIVE, EVER, EVERY, 0, -1, 1},
        {FILE_ATTRIBUTE_ARCHIVE, EVER, 1, EVERY, -1, 100000},
        {FILE_ATTRIBUTE_ARCHIVE, 3, 1, EVERY, -1, 2},
        {FILE_ATTRIBUTE_READONLY, EVER, 1, 0, -1, 0},
        {FILE_ATTRIBUTE_SYSTEM, EVER, 1, 0, -1, 0},
        {FILE_ATTRIBUTE_OFFLINE, EVER, 1, 0, -1, 0},
        {FILE_ATTRIBUTE_DIRECTORY, EVER, 1, 0, -1, 0}};
    for (auto [attributes, looks, refused_deletes, refused_moves, result, moves] : cases) {
        std::ofstream(file) << "";
        Gate remove(Refusal{"DeleteFileW", refused_deletes, FALSE, ERROR_ACCESS_DENIED});
        Gate move(Refusal{"MoveFileW", refused_moves, FALSE, ERROR_ACCESS_DENIED});
        Gate look("GetFileAttributesW", [&left = looks, f = attributes](const Call &call) {
            const bool is_f = !wcsstr(call.arg<LPCWSTR>(0), L".velkora.") && left-- > 0;
            return is_f ? f : INVALID_FILE_ATTRIBUTES;
        });
        EXPECT_EQ(thr_osi_remove((file + "/").c_str()), result);
        EXPECT_EQ(move.calls(), moves);
    }
}

TEST(CurrentDirectory, IsReadWhenItFits)
{
    // A directory is one character longer in the ANSI code page, which is UTF-8: no flags.
    Gate convert("WideCharToMultiByte", [](const Call &call) {
        const int length = call.arg<int>(3);
        *std::copy_n(call.arg<LPCWSTR>(2), length, call.arg<char *>(4)) = '+';
        SetLastError(ERROR_INVALID_FLAGS);
        return call.arg<UINT>(0) != CP_ACP || call.arg<DWORD>(1) ? 0 : length + 1;
    });
    const std::string longest = "C:\\" + std::string(1020, 'd'), share = "\\\\srv\\share\\d";
    // the directory, the size; what is read
    const std::tuple<std::string, size_t, std::string> cases[] = {
        {"C:\\w", 6, "C:\\w+"},         {"C:\\w", 5, ""}, // all but the terminator
        {share, 14, "srv\\share\\d+"},  {share, 13, ""},  // the length of the whole text counts
        {longest, 4096, longest + "+"}, {longest + "d", 4096, ""}};
    for (const auto &[directory, size, read] : cases) {
        Gate current("GetCurrentDirectoryW", [&path = directory](const Call &call) {
            const bool fits = path.size() < call.arg<DWORD>(0);
            std::copy_n(path.c_str(), fits ? path.size() + 1 : 0, call.arg<LPWSTR>(1));
            return path.size() + !fits;
        });
        THR_HEAP_TEXT text(thr_osi_getcwd(nullptr, size));
        EXPECT_EQ(text ? text.get() : "", read);
    }
}

// --- interprocess mode and processes ------------------------------------------------------------

TEST(Mode, ScopesNestAndRestore)
{
    EXPECT_FALSE(thr_is_interprocess_mode());
    {
        THR_ENABLE_INTERPROCESS_FOR_UTST scope;
        EXPECT_TRUE(thr_is_interprocess_mode());
        scope = THR_ENABLE_INTERPROCESS_FOR_UTST(); // restores true at once, and in the end
        thr_disable_interprocess_mode();
    }
    EXPECT_TRUE(thr_is_interprocess_mode());
    thr_disable_interprocess_mode();
    THR_ENABLE_INTERPROCESS_FOR_UTST();
    EXPECT_FALSE(thr_is_interprocess_mode());
    thr_enable_interprocess_mode();
    EXPECT_TRUE(thr_is_interprocess_mode());
    EXPECT_STREQ(thr_get_interprocess_file_extension(), "flock");
}

ROLE(ends_with_259)
{
    hear();
    return STILL_ACTIVE;
}

TEST(PidActive, GoesByTheExitCode)
{
    EXPECT_TRUE(thr_is_pid_active(GetCurrentProcessId()));
    for (bool is_killed : {true, false}) {
        Child child("ends_with_259");
        const size_t handles = live_handle_count();
        Gate opening("OpenProcess", [](const Call &call) {
            EXPECT_FALSE(call.arg<BOOL>(1)) << "inherited by a child";
            return call.go_on();
        });
        // The system opens the neighbour of an id that is no multiple of four.
        Gate neighbour("GetProcessId", [](auto &call) { return call.nth == 2 ? 4 : call.go_on(); });
        EXPECT_TRUE(thr_is_pid_active(child.pid()));
        EXPECT_FALSE(thr_is_pid_active(child.pid()));
        EXPECT_EQ(live_handle_count(), handles);
        is_killed ? child.kill() : child.close_stdin();
        ASSERT_TRUE(child.wait());
        // This process has the ended one open, so that its id is still its own.
        EXPECT_EQ(thr_is_pid_active(child.pid()), !is_killed) << "as it ends with 259";
    }
}

// --- lock files ---------------------------------------------------------------------------------

TEST(LockFilePath, IsAbsoluteAndLeavesTheCurrentDirectory)
{
    ScratchDir scratch;
    for (const char *directory : {"x", "y/z"})
        std::filesystem::create_directories(scratch.file(directory));
    std::ofstream(scratch.file("file")) << "";
    const std::filesystem::path before = current_path(), here = scratch.file("y");
    current_path(here);
    const std::pair<std::string, std::string> cases[] = {
        {"db", "y/db"},
        {"../x/", "x/"},
        {"..\\x\\db", "x/db"},
        {"..\\x/..\\db", "x/..\\db"}, // the last slash splits, no backslash does
        {"..//x/%s%n\x01\xff:*?", "x/%s%n\x01\xff:*?"},
        {"z/" + std::string(300, 'l'), "y\\z/" + std::string(300, 'l')},
        {"../no such/db", "none"},
        {"../file/db", "none"},
        {"/db", "none"}}; // its directory part is empty
    Gate look("CreateFileW", [](const Call &call) {
        EXPECT_FALSE(call.arg<SECURITY_ATTRIBUTES *>(3)->bInheritHandle) << "by a child";
        return call.go_on();
    });
    auto resolve = [&] {
        for (int round = 0; round < 30; ++round) {
            for (const auto &[file, path] : cases) {
                const THR_HEAP_TEXT resolved = thr_ip_lock_file_path(file.c_str());
                EXPECT_EQ(resolved ? resolved.get() : scratch.file("none"), scratch.file(path));
            }
        }
    };
    std::thread other(resolve); // two threads do not meet in each other's directories
    resolve();
    other.join();
    // In the directory where it is, and on the way back.
    for (const char *refused : {"GetCurrentDirectoryW", "SetCurrentDirectoryW"}) {
        EXPECT_EQ(current_path(), here);
        Gate refusing(Refusal{refused, 2, 0, ERROR_ACCESS_DENIED});
        EXPECT_FALSE(thr_ip_lock_file_path("../x/db"));
    }
    current_path(before);
}

} // namespace
