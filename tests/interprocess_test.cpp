// Lock files and their paths, through the library's objects. A patch here redirects this program's
// own calls.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr_classes.h"
#include "thr/thr_interprocess.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

using support::Child;
using support::ScratchDir;

namespace
{

const HMODULE OWN = GetModuleHandleA(nullptr);

std::string lock_path(const std::string &file)
{
    THR_HEAP_TEXT path = thr_ip_lock_file_path(file.c_str());
    return path ? path.get() : "none";
}

// --- mode and processes -------------------------------------------------------------------------

TEST(Mode, ScopesNestAndRestore)
{
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
        {
            // The system opens the neighbour of an id that is no multiple of four.
            support::ImportPatch neighbour(
                "GetProcessId", +[](HANDLE) { return DWORD(4); }, OWN);
            EXPECT_FALSE(thr_is_pid_active(child.pid()));
        }
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
    for (const char *directory : {"x", "y", "y/z"})
        CreateDirectoryA(scratch.file(directory).c_str(), nullptr);
    std::ofstream(scratch.file("file")) << "";
    const std::filesystem::path before = std::filesystem::current_path(), here = scratch.file("y");
    current_path(here);
    const std::pair<std::string, std::string> cases[] = {
        {"db", scratch.file("y/db")},
        {"../x/", scratch.file("x/")},
        {"..\\x\\db", scratch.file("x/db")},
        {"..\\x/..\\db", scratch.file("x/..\\db")}, // the last slash splits, no backslash does
        {"..//x/%s%n\x01\xff:*?", scratch.file("x/%s%n\x01\xff:*?")},
        {"z/" + std::string(70000, 'l'), scratch.file("y\\z/" + std::string(70000, 'l'))},
        {"../no such/db", "none"},
        {"../x\xff/db", "none"},
        {"../file/db", "none"},
        {"/db", "none"}, // its directory part is empty
    };
    for (const auto &[file, expected] : cases) {
        EXPECT_EQ(lock_path(file), expected) << file;
        EXPECT_EQ(std::filesystem::current_path(), here) << file;
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
    EXPECT_INTERNAL_ERROR(lock_path(""), "file && *file", "thr_interprocess");
}

// Windows refuses to enter a directory whose path is too long; Wine would enter it.
ROLE(resolves_unentered)
{
    thr_set_report_func(
        [](const char *message, const char *, const char *, int) { support::say(message); });
    auto refuse = +[](LPCWSTR) { return FALSE; };
    support::ImportPatch refused("SetCurrentDirectoryW", refuse, OWN);
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

// --- lock files ---------------------------------------------------------------------------------

TEST(LockFile, IsHeldByOneTakerUntilItIsClosed)
{
    ScratchDir scratch;
    const std::string file = scratch.file("db.flock"), missing = scratch.file("no such/db.flock");
    int error = -1;
    std::ofstream(file) << ""; // left over: in nobody's way
    HANDLE held = thr_ip_lock_file_create(file.c_str(), &error);
    ASSERT_NE(held, THR_BAD_FILE_HANDLE);
    EXPECT_EQ(error, 0);
    DWORD flags = HANDLE_FLAG_INHERIT;
    EXPECT_TRUE(GetHandleInformation(held, &flags) && !(flags & HANDLE_FLAG_INHERIT));
    EXPECT_EQ(thr_ip_lock_file_create(file.c_str(), &error), THR_BAD_FILE_HANDLE);
    EXPECT_EQ(error, EEXIST);
    EXPECT_TRUE(thr_ip_lock_file_is_held(file.c_str()));
    EXPECT_FALSE(DeleteFileA(file.c_str())) << "nothing is shared with the others";
    EXPECT_TRUE(std::filesystem::exists(file));
    thr_ip_lock_file_close(file.c_str(), held);
    EXPECT_FALSE(std::filesystem::exists(file));
    std::ofstream(file) << "";
    thr_ip_lock_file_close(file.c_str(), THR_BAD_FILE_HANDLE);
    EXPECT_TRUE(std::filesystem::exists(file)) << "no handle, nothing to do";
    EXPECT_FALSE(thr_ip_lock_file_is_held(file.c_str()));
    EXPECT_FALSE(std::filesystem::exists(file)) << "left over";
    EXPECT_EQ(thr_ip_lock_file_create(missing.c_str(), &error), THR_BAD_FILE_HANDLE);
    EXPECT_EQ(error, EINVAL);
    EXPECT_TRUE(thr_ip_lock_file_is_held(missing.c_str())) << "every refusal says so";
}

} // namespace
