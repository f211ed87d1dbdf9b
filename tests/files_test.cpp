// Paths, files and lock files, through the library's objects.
#include "support/test.h"

#include "thr/thr_interprocess.h"
#include "thr/thr_osi_sys.h"

#include <filesystem>

#include <fcntl.h>
#include <io.h>

using namespace support;
using std::filesystem::current_path;

namespace
{

// --- paths --------------------------------------------------------------------------------------

TEST(LongPath, TakesEveryFormOfPath)
{
    const std::pair<const char *, std::wstring> cases[] = {
        {"", L""},
        {"C:/a/./c/../b%s%n\xff.txt", L"\\\\?\\C:\\a\\b%s%n\xfffd.txt"},
        {"//?/C:/d/", L"\\\\?\\C:\\d\\"},
        {"//srv/share/f", L"\\\\?\\UNC\\srv\\share\\f"},
        {"\\\\.\\pipe\\p", L"\\\\.\\pipe\\p"},
        {"\xc3\xa4\xe5\x90\x8d\xf0\x9f\x98\x80", // relative, in UTF-8
         L"\\\\?\\" + current_path().wstring() + L"\\\u00e4\u540d\xd83d\xde00"}};
    for (const auto &[path, expected] : cases)
        EXPECT_EQ(thr_osi_long_path(path).c_str(), expected) << path;
}

// --- files and directories ----------------------------------------------------------------------

TEST(Open, TurnsFlagsIntoASystemCallUnderAMutexNamedByThePath)
{
    const int DIRECTORY = 0x2000; // the runtime's headers leave it out
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
        {_O_WRONLY | _O_TRUNC | _O_APPEND | _O_U8TEXT, 0600, "c0010000 7 5 80 1"}};
    for (const auto &[flags, mode, expected] : cases) {
        std::ostringstream made;
        Gate create("CreateFileW", [&](const Call &call) {
            for (int argument : {1, 2, 4, 5})
                made << std::hex << call.arg<DWORD>(argument) << ' ';
            made << call.arg<SECURITY_ATTRIBUTES *>(3)->bInheritHandle;
            expect_elsewhere(WAIT_TIMEOUT);
            return -1;
        });
        EXPECT_EQ(thr_osi_open(L"cIi83ZT", flags, mode), -1); // its hash needs the zero fill
        EXPECT_EQ(made.str(), expected);
        expect_elsewhere(WAIT_OBJECT_0);
    }
}

TEST(Remove, TriesFreeNamesBesideAFileThatCantBeDeleted)
{
    const int EVER = 1000000;
    // attributes, looks until it is gone, taken names, refused deletes, refused moves; the result,
    // and the moves and looks that are made
    int cases[][8] = {{FILE_ATTRIBUTE_ARCHIVE, EVER, 0, 0, 0, 0, 0, 0},
                      {FILE_ATTRIBUTE_ARCHIVE, EVER, 1, 1, 1, 0, 2, 6},
                      {FILE_ATTRIBUTE_ARCHIVE, EVER, EVER, 1, 0, 0, 1, 1002}, // 1000 names
                      {FILE_ATTRIBUTE_ARCHIVE, EVER, 0, EVER, 0, -1, 1, 3},
                      {FILE_ATTRIBUTE_ARCHIVE, EVER, 0, 1, EVER, -1, 100000, 200001},
                      {FILE_ATTRIBUTE_ARCHIVE, 3, 0, 1, EVER, -1, 2, 6},
                      {FILE_ATTRIBUTE_READONLY, EVER, 0, 1, 0, -1, 0, 1},
                      {FILE_ATTRIBUTE_DIRECTORY, EVER, 0, 1, 0, -1, 0, 1}};
    uint64_t last = 0;
    for (auto &[attributes, left, taken, deletes, moves, result, moved, looked] : cases) {
        Gate remove("DeleteFileW", [n = deletes](auto &call) { return call.nth > n; });
        Gate move("MoveFileW", [n = moves](auto &call) { return call.nth > n; });
        Gate look("GetFileAttributesW", [&, f = attributes, &l = left, &t = taken](auto &call) {
            auto *path = reinterpret_cast<const wchar_t *>(call.args[0]);
            uint64_t number = 0;
            int length = 0;
            swscanf(path, L"\\\\.\\.velkora.%I64X.tmp%n", &number, &length);
            EXPECT_TRUE(!length || (!path[length] && number != std::exchange(last, number)));
            return (length ? t : l)-- > 0 ? f : -1;
        });
        EXPECT_EQ(thr_osi_remove("//./f/"), result);
        EXPECT_EQ(move.calls(), moved);
        EXPECT_EQ(look.calls(), looked);
    }
}

TEST(CurrentDirectory, IsReadWhenItFits)
{
    // Where the ANSI code page is UTF-8, it takes no flags.
    Gate convert("WideCharToMultiByte", [](const Call &call) {
        SetLastError(ERROR_INVALID_FLAGS);
        return call.arg<UINT>(0) != CP_ACP || call.arg<DWORD>(1) ? 0 : call.go_on();
    });
    const std::wstring share = L"\\\\srv\\share\\d";
    // the directory, the size; what is read: the length of the whole text counts
    const std::tuple<std::wstring, size_t, std::string> cases[] = {
        {L"C:\\w", 5, "C:\\w"}, {L"C:\\w", 4, ""}, {share, 14, "srv\\share\\d"}, {share, 13, ""}};
    for (const auto &[directory, size, read] : cases) {
        Gate current("GetCurrentDirectoryW", [&path = directory](const Call &call) {
            return path.copy(call.arg<wchar_t *>(1), call.arg<DWORD>(0));
        });
        THR_HEAP_TEXT text(thr_osi_getcwd(nullptr, size));
        EXPECT_EQ(text ? text.get() : "", read);
    }
}

// --- interprocess mode and processes ------------------------------------------------------------

TEST(Mode, ScopesNestAndRestore)
{
    THR_ENABLE_INTERPROCESS_FOR_UTST();
    EXPECT_FALSE(thr_is_interprocess_mode()) << "as at first";
    {
        THR_ENABLE_INTERPROCESS_FOR_UTST scope;
        EXPECT_TRUE(thr_is_interprocess_mode());
        thr_disable_interprocess_mode();
        EXPECT_FALSE(thr_is_interprocess_mode());
        thr_enable_interprocess_mode();
        scope = THR_ENABLE_INTERPROCESS_FOR_UTST(); // restores true at once, and in the end
        thr_disable_interprocess_mode();
    }
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
    // A handle that children inherit is not given.
    Gate opening("OpenProcess", [](auto &call) { return int(call.args[1]) ? 0 : call.go_on(); });
    for (bool is_killed : {true, false}) {
        Child child("ends_with_259");
        const size_t handles = live_handle_count();
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
        {std::string(_pgmptr) + "/db", "none"}, // a file
        {"/db", "none"}};                       // its directory part is empty
    auto resolve = [&] {
        for (int i = 0; i < 270; ++i) {
            const auto &[file, path] = cases[i % std::size(cases)];
            const THR_HEAP_TEXT resolved = thr_ip_lock_file_path(file.c_str());
            EXPECT_EQ(resolved ? resolved.get() : scratch.file("none"), scratch.file(path));
        }
    };
    std::thread other(resolve); // two threads do not meet in each other's directories
    resolve();
    other.join();
    EXPECT_EQ(current_path(), here);
    current_path(before);
}

} // namespace
