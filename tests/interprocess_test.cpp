// Lock files and their paths, through the library's objects. A patch here redirects this program's
// own calls.
#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_classes.h"
#include "thr/thr_interprocess.h"

#include <cerrno>

#include <gtest/gtest.h>

using support::Child;
using support::ScratchDir;

namespace
{

const HMODULE OWN = GetModuleHandleA(nullptr);

// Refuses the nth call of an import (counted from 1; 0: every call); the others go through.
template <class Function> class Refuse;
template <class Result, class... Args> class Refuse<Result(Args...)>
{
public:
    Refuse(const char *function, int nth) : m_patch(function, &call, OWN)
    {
        s_real = m_patch.original<Result (*)(Args...)>();
        s_calls = 0;
        s_nth = nth;
    }

private:
    static Result call(Args... args)
    {
        return s_nth == 0 || ++s_calls == s_nth ? Result() : s_real(args...);
    }
    inline static Result (*s_real)(Args...);
    inline static int s_calls, s_nth;
    support::ImportPatch m_patch;
};

// A folder that is the current directory for one scope.
struct Scratch : support::ScratchDir {
    Scratch() { EXPECT_TRUE(SetCurrentDirectoryA(path().c_str())); }
    ~Scratch() { SetCurrentDirectoryA(m_before.c_str()); }
    const std::string m_before = current();
    static std::string current()
    {
        char path[1024] = {};
        GetCurrentDirectoryA(sizeof path, path);
        return path;
    }
};

bool there(const std::string &path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

void make_file(const std::string &path)
{
    CloseHandle(CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
}

std::string lock_path(const std::string &file)
{
    THR_HEAP_TEXT path = thr_ip_lock_file_path(file.c_str());
    return path ? path.get() : "none";
}

// --- mode and processes -------------------------------------------------------------------------

TEST(Mode, ScopesNestAndRestore)
{
    EXPECT_FALSE(thr_is_interprocess_mode());
    {
        THR_ENABLE_INTERPROCESS_FOR_UTST outer;
        EXPECT_TRUE(thr_is_interprocess_mode());
        {
            THR_ENABLE_INTERPROCESS_FOR_UTST inner;
            thr_disable_interprocess_mode();
            EXPECT_FALSE(thr_is_interprocess_mode());
        }
        EXPECT_TRUE(thr_is_interprocess_mode()) << "as it was when the inner one was made";
        {
            THR_ENABLE_INTERPROCESS_FOR_UTST other; // would restore true ...
            other = outer;                          // ... and now restores false
            EXPECT_TRUE(thr_is_interprocess_mode());
        }
        EXPECT_FALSE(thr_is_interprocess_mode());
    }
    thr_enable_interprocess_mode();
    EXPECT_TRUE(thr_is_interprocess_mode());
    thr_disable_interprocess_mode();
    EXPECT_STREQ(thr_get_interprocess_file_extension(), "flock");
    EXPECT_EQ(thr_get_interprocess_file_extension(), thr_get_interprocess_file_extension());
}

ROLE(ends_with)
{
    support::say("started");
    support::hear();
    return std::stoi(args[0]);
}

TEST(PidActive, GoesByTheExitCode)
{
    const size_t before = support::live_handle_count();
    for (auto [code, is_active] : {std::pair("0", false), {"259", true}, {"-1", false}}) {
        Child child("ends_with", {code});
        ASSERT_EQ(child.read_line(), "started");
        EXPECT_TRUE(thr_is_pid_active(child.pid()));
        {
            Refuse<decltype(GetExitCodeProcess)> refused("GetExitCodeProcess", 0);
            EXPECT_FALSE(thr_is_pid_active(child.pid()));
        }
        Refuse<decltype(OpenProcess)> refused("OpenProcess", 2);
        child.write_line("end");
        ASSERT_EQ(child.wait(), std::stoi(code));
        // This process has the ended one open, so that its id is still its own.
        EXPECT_EQ(thr_is_pid_active(child.pid()), is_active) << code;
        EXPECT_FALSE(thr_is_pid_active(child.pid())) << "it can't be opened";
    }
    EXPECT_FALSE(thr_is_pid_active(0xFFFFFFF0));
    EXPECT_EQ(support::live_handle_count(), before);
    Refuse<decltype(OpenProcess)> refused("OpenProcess", 0);
    EXPECT_TRUE(thr_is_pid_active(GetCurrentProcessId())) << "its own process is not opened";
}

// --- lock-file paths ----------------------------------------------------------------------------

TEST(LockFilePath, SplitsAndJoins)
{
    Scratch scratch;
    CreateDirectoryA("locks", nullptr);
    make_file("file");
    const struct {
        std::string m_path, m_directory, m_file;
        bool m_has_directory, m_result;
    } cases[] = {
        {"db", ".", "db", false, true},
        {"locks/db", "locks", "db", true, true},
        {"locks\\db", "locks", "db", true, true},
        {"locks/", "locks", "", true, true},
        {"file/db", "file", "db", true, false},
        {"/db", "", "db", true, false},
        {"C:\\no such/sub\\db", "C:\\no such", "sub\\db", true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.m_path);
        char *directory, *file;
        bool has_directory;
        EXPECT_EQ(thr_ip_split_path(c.m_path.c_str(), &directory, &has_directory, &file),
                  c.m_result);
        EXPECT_EQ(has_directory, c.m_has_directory);
        THR_HEAP_TEXT joined(thr_ip_join_path(directory, file));
        EXPECT_EQ(joined.get(), c.m_directory + "/" + c.m_file);
        free(file);
        free(directory);
        EXPECT_EQ(thr_ip_split_path(c.m_path.c_str(), &directory, nullptr, nullptr), c.m_result);
        EXPECT_EQ(directory, c.m_directory);
        free(directory);
    }
}

TEST(LockFilePath, IsAbsoluteAndLeavesTheCurrentDirectory)
{
    Scratch scratch;
    CreateDirectoryA("x", nullptr);
    CreateDirectoryA("y", nullptr);
    SetCurrentDirectoryA("y");
    const std::pair<std::string, std::string> cases[] = {
        {"db", scratch.file("y/db")},
        {"../x/db", scratch.file("x/db")},
        {"..\\x\\db", scratch.file("x/db")},
        {scratch.path() + "/y/../x/./db", scratch.file("x/db")},
        {"../no such/db", "none"},
        {"/db", "none"}, // its directory part is empty
    };
    for (const auto &[file, expected] : cases) {
        EXPECT_EQ(lock_path(file), expected);
        EXPECT_EQ(scratch.current(), scratch.file("y")) << file;
    }
    // The nth call of these is refused: reading and entering, there and back.
    for (int nth : {1, 2}) {
        Refuse<decltype(GetCurrentDirectoryW)> refused("GetCurrentDirectoryW", nth);
        EXPECT_EQ(lock_path("../x/db"), "none") << nth;
    }
    EXPECT_EQ(scratch.current(), scratch.file("y"));
    Refuse<decltype(SetCurrentDirectoryW)> refused("SetCurrentDirectoryW", 2);
    EXPECT_EQ(lock_path("../x/db"), "none");
    EXPECT_EQ(scratch.current(), scratch.file("x")) << "it could not be left";
}

// Windows refuses to enter a directory whose path is too long; Wine would enter it.
ROLE(resolves_unentered)
{
    thr_set_report_func([](const char *message, const char *, const char *file, int) {
        support::say(std::string(file) + ": " + message);
    });
    Refuse<decltype(SetCurrentDirectoryW)> refused("SetCurrentDirectoryW", 0);
    support::say(lock_path(args[0]));
    return 0;
}

TEST(LockFilePath, OfADirectoryTooLongToEnter)
{
    const std::string at = "thr/thr_interprocess.cpp: ";
    const std::pair<size_t, std::string> cases[] = {
        {259, at + "len >= MAX_PATH"},
        {260, ""},
        {1024, ""},
        {1025, at + "unc to char conversion failed"},
    };
    for (const auto &[length, message] : cases) {
        ScratchDir scratch;
        std::string path = scratch.path();
        std::wstring wide = L"\\\\?\\" + scratch.wide_path();
        while (path.size() < length) { // in steps of at most 50 characters, and never of one
            const size_t missing = length - path.size();
            const std::string part(missing > 52 ? 50 : missing == 52 ? 49 : missing - 1, 'd');
            path += "\\" + part;
            wide += L"\\" + std::wstring(part.begin(), part.end());
            ASSERT_TRUE(CreateDirectoryW(wide.c_str(), nullptr));
        }
        Child child("resolves_unentered", {path + "/db"});
        EXPECT_EQ(child.read_line(), message.empty() ? path + "/db" : message);
        EXPECT_EQ(child.wait(), message.empty() ? 0 : -1) << length;
        int error;
        HANDLE held = thr_ip_lock_file_create((path + "/db").c_str(), &error);
        EXPECT_EQ(error, 0) << "the lock file itself has no such limit";
        CloseHandle(held);
    }
}

TEST(LockFilePath, BrokenPreconditionsAreInternalErrors)
{
    static char *text;
    const std::pair<const char *, void (*)()> cases[] = {
        {"file && *file", [] { thr_ip_split_path(nullptr, &text, nullptr, nullptr); }},
        {"file && *file", [] { thr_ip_lock_file_path(""); }},
        {"directory", [] { thr_ip_split_path("db", nullptr, nullptr, nullptr); }},
    };
    for (const auto &[message, broken] : cases)
        EXPECT_INTERNAL_ERROR(broken(), message, "thr_interprocess");
    auto without_duplicate = [](int nth) {
        Refuse<decltype(_strdup)> refused("_strdup", nth);
        thr_ip_lock_file_path("./db");
    };
    EXPECT_INTERNAL_ERROR(without_duplicate(1), "tmp_file", "thr_interprocess");
    EXPECT_INTERNAL_ERROR(without_duplicate(2), "*filename", "thr_interprocess");
}

// --- lock files ---------------------------------------------------------------------------------

TEST(LockFile, IsHeldByOneTakerUntilItIsClosed)
{
    ScratchDir scratch;
    const std::string file = scratch.file("db.flock"), missing = scratch.file("no such/db.flock");
    size_t before = 0;
    for (int i = 0; i < 4; i++) {
        int error = -1;
        make_file(file); // left over: in nobody's way
        HANDLE held = thr_ip_lock_file_create(file.c_str(), &error);
        ASSERT_NE(held, THR_BAD_FILE_HANDLE);
        EXPECT_EQ(error, 0);
        DWORD flags = HANDLE_FLAG_INHERIT;
        EXPECT_TRUE(GetHandleInformation(held, &flags) && !(flags & HANDLE_FLAG_INHERIT));
        EXPECT_EQ(thr_ip_lock_file_create(file.c_str(), &error), THR_BAD_FILE_HANDLE);
        EXPECT_EQ(error, EEXIST);
        EXPECT_TRUE(thr_ip_lock_file_is_held(file.c_str()));
        for (DWORD access : {DWORD{GENERIC_READ}, DWORD{GENERIC_WRITE}, DWORD{DELETE}})
            EXPECT_EQ(CreateFileA(file.c_str(), access, 7, nullptr, OPEN_EXISTING, 0, nullptr),
                      INVALID_HANDLE_VALUE);
        EXPECT_TRUE(there(file)) << "the others left the holder's file alone";
        thr_ip_lock_file_close(file.c_str(), held);
        EXPECT_FALSE(there(file));
        EXPECT_FALSE(thr_ip_lock_file_is_held(file.c_str()));
        EXPECT_FALSE(there(file));
        make_file(file);
        thr_ip_lock_file_close(file.c_str(), THR_BAD_FILE_HANDLE);
        EXPECT_TRUE(there(file)) << "no handle, nothing to do";
        EXPECT_FALSE(thr_ip_lock_file_is_held(file.c_str()));
        EXPECT_FALSE(there(file)) << "left over";

        EXPECT_EQ(thr_ip_lock_file_create(missing.c_str(), &error), THR_BAD_FILE_HANDLE);
        EXPECT_EQ(error, EINVAL);
        EXPECT_TRUE(thr_ip_lock_file_is_held(missing.c_str())) << "every refusal says so";
        before = i == 0 ? support::live_handle_count() : before;
    }
    EXPECT_EQ(support::live_handle_count(), before);
}

ROLE(holds_lock_file)
{
    int error;
    thr_ip_lock_file_create(args[0].c_str(), &error);
    support::say(std::to_string(error));
    support::hear();
    return 0;
}

TEST(LockFile, GoesWithItsHoldersProcess)
{
    ScratchDir scratch;
    const std::string file = scratch.file("db.flock");
    for (bool is_killed : {true, false}) {
        Child holder("holds_lock_file", {file});
        ASSERT_EQ(holder.read_line(), "0");
        EXPECT_TRUE(thr_ip_lock_file_is_held(file.c_str()));
        is_killed ? holder.kill() : holder.close_stdin();
        EXPECT_TRUE(holder.wait().has_value());
        // The system can take a moment to clear up after a process.
        for (int tries = 0; tries < 500 && there(file); tries++)
            Sleep(10);
        EXPECT_FALSE(there(file));
        EXPECT_FALSE(thr_ip_lock_file_is_held(file.c_str()));
    }
}

} // namespace
