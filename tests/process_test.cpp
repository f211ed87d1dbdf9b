// Child processes: their streams, jobs and ends, and the calls that the system may refuse. The
// children are this program in a role.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr.h"

#include <array>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

using support::ImportPatch;
using support::role_command;
using support::system_words;
using Strings = std::vector<std::string>;

namespace
{

// Stands in for a call that is refused. It takes no arguments: the caller of a function of this
// platform removes them.
BOOL refuse()
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

// What a pipe holds up to its end, carriage returns left out. Gives up when that does not come.
std::string read_to_end(void *pipe)
{
    std::string text;
    const ULONGLONG deadline = GetTickCount64() + support::PATIENCE_MS;
    int code, has_data;
    while ((code = thr_process_peek(pipe, &has_data)) == 0 && GetTickCount64() < deadline) {
        char byte = '\r';
        if (!has_data)
            Sleep(1);
        else if (thr_process_read(pipe, &byte, 1, nullptr) == 0 && byte != '\r')
            text += byte;
    }
    EXPECT_EQ(ERROR_BROKEN_PIPE, code) << "the end does not arrive";
    return text;
}

// The pipes of a child: none, or one for its input and one for each or for both of its outputs.
enum Pipes { NONE, APART, MERGED };

// A child of the library and what came with it; ended and closed with its scope.
struct Process {
    void *handle{}, *job{}, *out{}, *err{}, *in{};

    ~Process()
    {
        close_pipes();
        thr_process_terminate(handle, {0, 1});
        thr_process_close_handle(job);
    }
    void close_pipes()
    {
        for (void **pipe : {&out, &err, &in})
            thr_process_close_pipe(std::exchange(*pipe, nullptr));
    }
    // Under load a start is refused now and then, so there are some tries.
    bool start(std::string command, Pipes pipes = NONE, int tries = 4)
    {
        void **out_pipe = pipes == NONE ? nullptr : &out, **in_pipe = pipes == NONE ? nullptr : &in;
        for (int i = 0; !handle && i < tries; i++) {
            Sleep(i * 200);
            close_pipes();
            handle = thr_process_create_and_save_job(command.data(), "", out_pipe,
                                                     pipes == APART ? &err : out_pipe, in_pipe,
                                                     nullptr, &job);
        }
        return handle != nullptr;
    }
    // The exit code, from thr_process_wait(), which closes the handle.
    int end()
    {
        thr_process_close_pipe(std::exchange(in, nullptr));
        bool has_ended = WaitForSingleObject(handle, support::PATIENCE_MS) == WAIT_OBJECT_0;
        EXPECT_TRUE(has_ended || !TerminateProcess(handle, 1)) << "the child does not end";
        thr_process_status status = {-2, -2};
        EXPECT_EQ(reinterpret_cast<intptr_t>(handle), thr_process_wait(handle, &status, 0));
        EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(std::exchange(handle, nullptr), 0));
        EXPECT_EQ(status.status, status.exit_code);
        return status.exit_code;
    }
};

HANDLE open_job(DWORD pid)
{
    return OpenJobObjectA(JOB_OBJECT_QUERY, FALSE, std::to_string(pid).c_str());
}

bool is_in_job(HANDLE process, HANDLE job)
{
    BOOL is_in = FALSE;
    EXPECT_TRUE(IsProcessInJob(process, job, &is_in));
    return is_in != 0;
}

// --- streams ------------------------------------------------------------------------------------

ROLE(exits)
{
    return std::stoi(args[0]);
}

// Says a word on each output, then gives its input back, then ends with code 7.
ROLE(streams)
{
    if (thr_process_get_stdin() != GetStdHandle(STD_INPUT_HANDLE))
        return 1;
    support::say("out");
    fputs("err\n", stderr);
    fflush(stderr);
    while (auto line = support::hear())
        support::say("in " + *line);
    return 7;
}

// Lets children of its own have its standard streams: the first must not take them away.
ROLE(passes_streams_on)
{
    thr_process_set_inherit_handles(2);
    for (const char *role : {"exits", "streams"}) {
        Process process;
        if (!process.start(role_command(role, {"7"})) || process.end() != 7)
            return 1;
    }
    return 0;
}

TEST(ProcessStreams, HaveTheirPipesAndEnd)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), APART));
    thr_process_close_handle(std::exchange(process.job, nullptr)); // which does not end the child
    uint32_t count = 0;
    EXPECT_EQ(0, thr_process_write(process.in, "one\ntwo\n", 8, &count));
    EXPECT_EQ(8u, count);
    EXPECT_EQ(7, process.end());
    char bytes[] = "??";
    EXPECT_EQ(0, thr_process_read(process.out, bytes, 2, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(bytes + read_to_end(process.out), "out\nin one\nin two\n");
    EXPECT_EQ(ERROR_BROKEN_PIPE, thr_process_read(process.out, bytes, 3, nullptr));
    EXPECT_EQ("err\n", read_to_end(process.err));

    Process merged;
    ASSERT_TRUE(merged.start(role_command("streams"), MERGED));
    EXPECT_EQ(7, merged.end());
    EXPECT_EQ("out\nerr\n", read_to_end(merged.out));

    Process passing;
    ASSERT_TRUE(passing.start(role_command("passes_streams_on"), APART));
    EXPECT_EQ(0, thr_process_write(passing.in, "word\n", 5, nullptr));
    EXPECT_EQ(0, passing.end());
    EXPECT_EQ("out\nin word\n", read_to_end(passing.out));
    EXPECT_EQ("err\n", read_to_end(passing.err));
}

// A child that holds the pipe of another one would keep that one's end from arriving.
TEST(ProcessStreams, EndWhileChildrenOfOtherThreadsRun)
{
    std::array<Process, 6> processes;
    std::vector<std::thread> threads;
    for (Process &process : processes)
        threads.emplace_back([&] { process.start(role_command("streams"), APART); });
    for (std::thread &thread : threads)
        thread.join();
    for (Process &process : processes) {
        ASSERT_TRUE(process.handle);
        EXPECT_EQ(7, process.end());
        ASSERT_EQ("out\n", read_to_end(process.out));
        ASSERT_EQ("err\n", read_to_end(process.err));
    }
}

// --- starts -------------------------------------------------------------------------------------

TEST(ProcessStart, IsInTheDirectoryGivenAndKeepsTheJobOpen)
{
    support::ScratchDir scratch;
    Process process;
    char command[] = "cmd /c cd";
    process.handle = thr_process_create(command, scratch.path().c_str(), &process.out, nullptr,
                                        nullptr, nullptr);
    ASSERT_TRUE(process.handle);
    DWORD pid = GetProcessId(process.handle);
    EXPECT_EQ(scratch.path() + "\n", read_to_end(process.out));
    EXPECT_EQ(0, process.end()); // a folder in use can't be removed
    EXPECT_TRUE(CloseHandle(open_job(pid))) << "there was no place for its handle";
}

TEST(ProcessStart, ThatFailsTellsWhyAndLeavesThePipeEnds)
{
    support::DebugRecorder debug;
    Process process;
    process.job = &process;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(process.start("no-such-program.exe --option", APART, 1));
    EXPECT_EQ(0u, testing::internal::GetCapturedStderr().find("CreateProcess failed: "));
    // Of the line break that ends the system's words, the line feed is cut off.
    EXPECT_EQ(debug.take(),
              (Strings{"CreateProcess failed!", "  Error Code     : 2",
                       "  System Message : " + system_words(ERROR_FILE_NOT_FOUND) + "\r",
                       "  Command        : no-such-program.exe --option"}));
    EXPECT_EQ(&process, std::exchange(process.job, nullptr)) << "left alone";
    EXPECT_EQ("", read_to_end(process.out) + read_to_end(process.err)) << "nobody else's ends";
    EXPECT_EQ(ERROR_NO_DATA, thr_process_write(process.in, "", 1, nullptr));
}

HANDLE suspended_child;

DWORD refuse_resume(HANDLE thread)
{
    suspended_child = OpenProcess(SYNCHRONIZE, FALSE, GetProcessIdOfThread(thread));
    return refuse() - 1;
}

TEST(ProcessStart, WithoutResumeLeavesNothingRunning)
{
    ImportPatch patch("ResumeThread", &refuse_resume);
    Process process;
    EXPECT_FALSE(process.start(role_command("exits", {"3"}), NONE, 1));
    EXPECT_EQ(nullptr, process.job);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(suspended_child, support::PATIENCE_MS));
    CloseHandle(suspended_child);
}

std::vector<DWORD> start_flags;

BOOL refuse_start(const char *, char *, void *, void *, BOOL, DWORD flags)
{
    start_flags.push_back(flags);
    return refuse();
}

TEST(ProcessStart, IsTriedWithoutBreakaway)
{
    ImportPatch no_console("GetConsoleMode", &refuse), start("CreateProcessA", &refuse_start);
    start_flags.clear();
    EXPECT_FALSE(Process().start("none", NONE, 1));
    const DWORD flags = CREATE_SUSPENDED | CREATE_NO_WINDOW;
    EXPECT_EQ(start_flags, (std::vector<DWORD>{flags | CREATE_BREAKAWAY_FROM_JOB, flags}));
}

// --- jobs ---------------------------------------------------------------------------------------

// Starts a child through the library, and one that breaks away from the job by plain calls.
ROLE(has_children)
{
    HANDLE own = GetCurrentProcess(), own_job = open_job(GetCurrentProcessId());
    Process child;
    child.start(role_command("streams"), MERGED);
    std::string command = role_command("exits", {"0"});
    STARTUPINFOA startup = {};
    PROCESS_INFORMATION free = {};
    CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE,
                   CREATE_BREAKAWAY_FROM_JOB | CREATE_SUSPENDED, nullptr, nullptr, &startup, &free);
    for (auto [process, job] : {std::pair(own, own_job),
                                {child.handle, own_job},
                                {child.handle, child.job},
                                {free.hProcess, own_job}})
        support::say(is_in_job(process, job) ? "in" : "out");
    // The child ends by itself: a console host of one that is killed at its start may stay, and
    // would hold our own output open.
    return child.end() == 7 && TerminateProcess(free.hProcess, 0) ? 0 : 1;
}

TEST(ProcessJob, IsNamedByTheChildWhoseChildrenStayAndMayBreakAway)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("has_children"), MERGED));
    EXPECT_TRUE(CloseHandle(open_job(GetProcessId(process.handle))));
    EXPECT_TRUE(is_in_job(process.handle, process.job));
    EXPECT_EQ("in\nin\nout\nout\n", read_to_end(process.out));
    EXPECT_EQ(0, process.end());
}

TEST(ProcessJob, RefusedCallsDoNotStopTheChild)
{
    support::ReportRecorder reports;
    support::DebugRecorder debug;
    for (const char *call :
         {"QueryInformationJobObject", "SetInformationJobObject", "AssignProcessToJobObject"}) {
        ImportPatch patch(call, &refuse);
        Process process;
        ASSERT_TRUE(process.start(role_command("exits", {"3"}))) << call;
        EXPECT_EQ(3, process.end()) << call;
    }
    EXPECT_EQ(2u, reports.take().size());
    EXPECT_EQ(debug.take(), Strings{"AssignProcessToJobObject failed with error(5): \"" +
                                    system_words(ERROR_ACCESS_DENIED) + "\r\n\""});
}

// --- operations ---------------------------------------------------------------------------------

TEST(ProcessOperations, TellRunningFromEnded)
{
    thr_process_status status = {-2, -2};
    EXPECT_EQ(-1, thr_process_wait(nullptr, &status, 0));
    EXPECT_EQ(-1, thr_process_terminate(nullptr, {0, 5}));
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), MERGED));
    EXPECT_EQ(0, thr_process_wait(process.handle, &status, 1));
    EXPECT_EQ(-2, status.exit_code);
    HANDLE weak =
        OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, GetProcessId(process.handle));
    EXPECT_EQ(ERROR_ACCESS_DENIED, thr_process_terminate(weak, {0, 5}));
    EXPECT_EQ(0, thr_process_terminate(process.handle, {9, 5}));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(std::exchange(process.handle, weak), 0)) << "closed";
    EXPECT_EQ(5, process.end());
}

TEST(ProcessOperations, PeekTellsOfDataAndLeavesIt)
{
    HANDLE read_end, write_end;
    ASSERT_TRUE(CreatePipe(&read_end, &write_end, nullptr, 0));
    for (int expected : {0, 1, 1}) {
        int has_data = -1;
        EXPECT_EQ(0, thr_process_peek(read_end, &has_data));
        EXPECT_EQ(expected, has_data);
        if (!has_data) {
            EXPECT_EQ(0, thr_process_write(write_end, "x", 1, nullptr));
        }
    }
    CloseHandle(write_end);
    CloseHandle(read_end);
}

TEST(ProcessOperations, RunGivesTheExitCode)
{
    EXPECT_EQ(3, thr_run(role_command("exits", {"3"}).data()));
    EXPECT_EQ(-1, thr_run(role_command("exits", {"259"}).data())) << "as if it still ran";
    EXPECT_EQ(5, thr_system("exit 5"));
}

TEST(ProcessOperations, GiveTheStandardInputThatIsNotInTheStartupRecord)
{
    ImportPatch patch(
        "GetStartupInfoA", +[](STARTUPINFOA *info) { info->hStdInput = INVALID_HANDLE_VALUE; });
    EXPECT_EQ(thr_process_get_stdin(), GetStdHandle(STD_INPUT_HANDLE));
}

TEST(SysFunc, KeepsWhatItIsGiven)
{
    thr_sys_func record;
    thr_sys_func_waitpid_init(&record, 1, 256, 1);
    EXPECT_EQ(256, thr_sys_func_get_wstat(&record));
    thr_sys_func_init(&record, -7, -2);
    EXPECT_EQ(-7, thr_sys_func_get_name(&record));
    EXPECT_EQ(0, thr_sys_func_get_wstat(&record));
    EXPECT_EQ(-2, thr_sys_func_get_errno(&record));
}

} // namespace
