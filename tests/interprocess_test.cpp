// Lock files and their paths, through the library's objects. A patch here redirects this program's
// own calls.
#include "support/child.h"
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

std::string current()
{
    char path[1024] = {};
    GetCurrentDirectoryA(sizeof path, path);
    return path;
}

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
        {
            THR_ENABLE_INTERPROCESS_FOR_UTST inner;
            thr_disable_interprocess_mode();
        }
        EXPECT_TRUE(thr_is_interprocess_mode()) << "as it was when the inner one was made";
        THR_ENABLE_INTERPROCESS_FOR_UTST other; // would restore true ...
        other = outer;                          // ... and now restores false
    }
    EXPECT_FALSE(thr_is_interprocess_mode());
    thr_enable_interprocess_mode();
    EXPECT_TRUE(thr_is_interprocess_mode());
    thr_disable_interprocess_mode();
    EXPECT_STREQ(thr_get_interprocess_file_extension(), "flock");
}

ROLE(ends_with)
{
    support::say("started");
    support::hear();
    return std::stoi(args[0]);
}

TEST(PidActive, GoesByTheExitCode)
{
    for (auto [code, is_active] : {std::pair("0", false), {"259", true}, {"-1", false}}) {
        Child child("ends_with", {code});
        ASSERT_EQ(child.read_line(), "started");
        EXPECT_TRUE(thr_is_pid_active(child.pid()));
        child.write_line("end");
        ASSERT_EQ(child.wait(), std::stoi(code));
        // This process has the ended one open, so that its id is still its own.
        EXPECT_EQ(thr_is_pid_active(child.pid()), is_active) << code;
    }
    EXPECT_TRUE(thr_is_pid_active(GetCurrentProcessId()));
    EXPECT_FALSE(thr_is_pid_active(0xFFFFFFF0));
}

// --- lock-file paths ----------------------------------------------------------------------------

TEST(LockFilePath, IsAbsoluteAndLeavesTheCurrentDirectory)
{
    ScratchDir scratch;
    for (const char *directory : {"x", "y"})
        CreateDirectoryA(scratch.file(directory).c_str(), nullptr);
    make_file(scratch.file("file"));
    const std::string before = current(), here = scratch.file("y");
    SetCurrentDirectoryA(here.c_str());
    const std::pair<std::string, std::string> cases[] = {
        {"db", scratch.file("y/db")},
        {"../x/", scratch.file("x/")},
        {"..\\x\\db", scratch.file("x/db")},
        {"..\\x/..\\db", scratch.file("x/..\\db")}, // the last slash splits, no backslash does
        {"../no such/db", "none"},
        {"../file/db", "none"},
        {"/db", "none"}, // its directory part is empty
    };
    for (const auto &[file, expected] : cases) {
        EXPECT_EQ(lock_path(file), expected) << file;
        EXPECT_EQ(current(), here) << file;
    }
    SetCurrentDirectoryA(before.c_str());
}

// Windows refuses to enter a directory whose path is too long; Wine would enter it.
ROLE(resolves_unentered)
{
    thr_set_report_func(
        [](const char *message, const char *, const char *, int) { support::say(message); });
    auto refuse = +[](LPCWSTR) { return FALSE; };
    support::ImportPatch refused("SetCurrentDirectoryW", refuse, GetModuleHandleA(nullptr));
    support::say(lock_path(args[0]));
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
            const std::wstring wide(path.begin(), path.end());
            ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + wide).c_str(), nullptr));
        }
        Child child("resolves_unentered", {path + "/db"});
        EXPECT_EQ(child.read_line(), message.empty() ? path + "/db" : message);
        EXPECT_EQ(child.wait(), message.empty() ? 0 : -1) << length;
    }
}

TEST(LockFilePath, BrokenPreconditionsAreInternalErrors)
{
    char *text;
    for (const char *file : {static_cast<const char *>(nullptr), ""})
        EXPECT_INTERNAL_ERROR(thr_ip_split_path(file, &text, nullptr, nullptr), "file && *file",
                              "thr_interprocess");
    EXPECT_INTERNAL_ERROR(thr_ip_split_path("db", nullptr, nullptr, nullptr), "directory",
                          "thr_interprocess");
}

// --- lock files ---------------------------------------------------------------------------------

TEST(LockFile, IsHeldByOneTakerUntilItIsClosed)
{
    ScratchDir scratch;
    const std::string file = scratch.file("db.flock"), missing = scratch.file("no such/db.flock");
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
    EXPECT_FALSE(DeleteFileA(file.c_str())) << "nothing is shared with the others";
    EXPECT_TRUE(there(file));
    thr_ip_lock_file_close(file.c_str(), held);
    EXPECT_FALSE(there(file));
    make_file(file);
    thr_ip_lock_file_close(file.c_str(), THR_BAD_FILE_HANDLE);
    EXPECT_TRUE(there(file)) << "no handle, nothing to do";
    EXPECT_FALSE(thr_ip_lock_file_is_held(file.c_str()));
    EXPECT_FALSE(there(file)) << "left over";
    EXPECT_EQ(thr_ip_lock_file_create(missing.c_str(), &error), THR_BAD_FILE_HANDLE);
    EXPECT_EQ(error, EINVAL);
    EXPECT_TRUE(thr_ip_lock_file_is_held(missing.c_str())) << "every refusal says so";
}

} // namespace
