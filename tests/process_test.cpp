// Child processes: their streams, jobs and ends, and the calls that the system may refuse. The
// children are this program in a role.
#include "support/child.h"
#include "support/handles.h"
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

bool is_open(void *handle)
{
    DWORD flags;
    return GetHandleInformation(handle, &flags) != 0;
}

std::string system_words(DWORD code)
{
    char words[512];
    return std::string(words, FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0, words,
                                             sizeof words, nullptr));
}

// The debug messages of a child that can't be started.
Strings failure_lines(DWORD code, const std::string &command)
{
    std::string words = system_words(code);
    words.pop_back(); // the line feed; the carriage return before it stays
    return {"CreateProcess failed!", "  Error Code     : " + std::to_string(code),
            "  System Message : " + words, "  Command        : " + command};
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

// A child of the library and what came with it; ended and closed with its scope.
struct Process {
    void *handle{}, *job{}, *out{}, *err{}, *in{};

    ~Process()
    {
        close_pipes();
        if (handle && thr_process_terminate(handle, {0, 1}) != 0)
            thr_process_close_handle(handle);
        thr_process_close_handle(job);
    }
    void close_pipes()
    {
        for (void **pipe : {&out, &err, &in})
            thr_process_close_pipe(std::exchange(*pipe, nullptr));
    }
    // The letters of `pipes` choose them: o, e, i, and m for both outputs merged. Under load a
    // start is refused now and then, so there are some tries.
    bool start(std::string command, const std::string &pipes = "", const char *directory = "",
               int tries = 4)
    {
        auto has = [&](char c) { return pipes.find(c) != std::string::npos; };
        void **out_pipe = has('o') || has('m') ? &out : nullptr;
        void **err_pipe = has('m') ? &out : has('e') ? &err : nullptr;
        for (int i = 0; !handle && i < tries; i++) {
            Sleep(i * 200);
            close_pipes();
            handle = thr_process_create_and_save_job(command.data(), directory, out_pipe, err_pipe,
                                                     has('i') ? &in : nullptr, nullptr, &job);
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
        EXPECT_FALSE(is_open(handle));
        handle = nullptr;
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

// Every test records the debug messages, and leaves no handle open.
class ProcessTest : public testing::Test
{
protected:
    // What is opened on first use is none of a test's business.
    static void SetUpTestSuite()
    {
        Process().start(role_command("exits", {"0"}), "oei");
        Process().start("none", "oei", "", 1);
        SCOPED_TRACE("GoogleTest opens its own thread here");
    }
    void TearDown() override { EXPECT_EQ(m_handles, support::live_handle_count()); }

    size_t m_handles = support::live_handle_count();
    support::DebugRecorder m_debug;
};

} // namespace

// --- roles --------------------------------------------------------------------------------------

ROLE(exits)
{
    return std::stoi(args[0]);
}

// Says a word on each output, then gives its input back, then ends with code 7.
ROLE(streams)
{
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

// Starts a child through the library, and one that breaks away from the job by plain calls.
ROLE(has_children)
{
    HANDLE own_job = open_job(GetCurrentProcessId());
    auto tell = [&](const char *who, HANDLE process, HANDLE job) {
        support::say(std::string(who) + (is_in_job(process, job) ? " in" : " out"));
    };
    tell("own", GetCurrentProcess(), own_job);
    Process child;
    child.start(role_command("streams"), "mi");
    tell("child", child.handle, own_job);
    tell("child's", child.handle, child.job);
    std::string command = role_command("exits", {"0"});
    STARTUPINFOA startup = {};
    PROCESS_INFORMATION process = {};
    CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE,
                   CREATE_BREAKAWAY_FROM_JOB | CREATE_SUSPENDED, nullptr, nullptr, &startup,
                   &process);
    tell("free", process.hProcess, own_job);
    return TerminateProcess(process.hProcess, 0) ? 0 : 1;
}

// --- streams ------------------------------------------------------------------------------------

TEST_F(ProcessTest, StreamsHaveTheirPipesAndEnd)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), "oei"));
    DWORD flags;
    for (void *end : {process.out, process.err, process.in})
        EXPECT_TRUE(GetHandleInformation(end, &flags) && !(flags & HANDLE_FLAG_INHERIT));
    uint32_t count = 0;
    EXPECT_EQ(0, thr_process_write(process.in, "one\ntwo\n", 8, &count));
    EXPECT_EQ(8u, count);
    EXPECT_EQ(7, process.end());
    char bytes[] = "??";
    EXPECT_EQ(0, thr_process_read(process.out, bytes, 2, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(bytes + read_to_end(process.out), "out\nin one\nin two\n");
    EXPECT_EQ(ERROR_BROKEN_PIPE, thr_process_read(process.out, bytes, 3, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ("err\n", read_to_end(process.err));

    Process merged;
    ASSERT_TRUE(merged.start(role_command("streams"), "mi"));
    EXPECT_EQ(7, merged.end());
    EXPECT_EQ("out\nerr\n", read_to_end(merged.out));

    Process passing;
    ASSERT_TRUE(passing.start(role_command("passes_streams_on"), "oei"));
    EXPECT_EQ(0, thr_process_write(passing.in, "word\n", 5, nullptr));
    EXPECT_EQ(0, passing.end());
    EXPECT_EQ("out\nin word\n", read_to_end(passing.out));
    EXPECT_EQ("err\n", read_to_end(passing.err));
}

TEST_F(ProcessTest, DirectoryIsTheOneGiven)
{
    support::ScratchDir scratch;
    Process process;
    ASSERT_TRUE(process.start("cmd /c cd", "o", scratch.path().c_str()));
    EXPECT_EQ(scratch.path() + "\n", read_to_end(process.out));
    EXPECT_EQ(0, process.end()); // a folder in use can't be removed
}

// A child that holds the pipe of another one would keep that one's end from arriving.
TEST_F(ProcessTest, EndArrivesWhileChildrenOfOtherThreadsRun)
{
    {
        std::array<Process, 6> processes;
        std::vector<std::thread> threads;
        for (Process &process : processes)
            threads.emplace_back([&] { process.start(role_command("streams"), "oei"); });
        for (std::thread &thread : threads)
            thread.join();
        for (Process &process : processes) {
            ASSERT_TRUE(process.handle);
            EXPECT_EQ(7, process.end());
            ASSERT_EQ("out\n", read_to_end(process.out));
            ASSERT_EQ("err\n", read_to_end(process.err));
        }
    }
    // A lock where threads have met may keep a handle of the system's.
    EXPECT_LT(support::live_handle_count(), m_handles + 6);
    m_handles = support::live_handle_count();
}

// --- failed starts ------------------------------------------------------------------------------

TEST_F(ProcessTest, FailedCommandTellsWhyAndLeavesThePipeEnds)
{
    Process process;
    int untouched = 0;
    process.job = &untouched;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(process.start("no-such-program.exe --option", "oei", "", 1));
    EXPECT_EQ(0u, testing::internal::GetCapturedStderr().find("CreateProcess failed: "));
    EXPECT_EQ(failure_lines(ERROR_FILE_NOT_FOUND, "no-such-program.exe --option"), m_debug.take());
    EXPECT_EQ(&untouched, std::exchange(process.job, nullptr));
    EXPECT_TRUE(is_open(process.err) && is_open(process.in));
    EXPECT_EQ("", read_to_end(process.out)) << "the child's end is closed";
}

HANDLE suspended_child;

DWORD refuse_resume(HANDLE thread)
{
    suspended_child = OpenProcess(SYNCHRONIZE, FALSE, GetProcessIdOfThread(thread));
    return refuse() - 1;
}

TEST_F(ProcessTest, RefusedResumeLeavesNothingRunning)
{
    ImportPatch patch("ResumeThread", &refuse_resume);
    Process process;
    std::string command = role_command("exits", {"3"});
    EXPECT_FALSE(process.start(command, "o", "", 1));
    EXPECT_EQ(nullptr, process.job);
    EXPECT_EQ(failure_lines(ERROR_ACCESS_DENIED, command), m_debug.take());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(suspended_child, support::PATIENCE_MS));
    CloseHandle(suspended_child);
}

std::vector<DWORD> start_flags;

BOOL WINAPI refuse_breakaway(const char *, char *command, void *, void *, BOOL inherit, DWORD flags,
                             void *, const char *, STARTUPINFOA *startup,
                             PROCESS_INFORMATION *process)
{
    start_flags.push_back(flags);
    return flags & CREATE_BREAKAWAY_FROM_JOB
               ? refuse()
               : CreateProcessA(nullptr, command, nullptr, nullptr, inherit, flags, nullptr,
                                nullptr, startup, process);
}

TEST_F(ProcessTest, RefusedBreakawayIsTriedWithout)
{
    ImportPatch no_console("GetConsoleMode", &refuse);
    ImportPatch patch("CreateProcessA", &refuse_breakaway);
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), "oi"));
    start_flags.resize(2); // those of the first try
    const DWORD flags = CREATE_SUSPENDED | CREATE_NO_WINDOW;
    EXPECT_EQ(start_flags, (std::vector<DWORD>{flags | CREATE_BREAKAWAY_FROM_JOB, flags}));
    EXPECT_EQ(7, process.end());
}

// --- jobs ---------------------------------------------------------------------------------------

TEST_F(ProcessTest, JobIsNamedByTheChildWhoseChildrenStayAndMayBreakAway)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("has_children"), "o"));
    EXPECT_TRUE(CloseHandle(open_job(GetProcessId(process.handle))));
    EXPECT_TRUE(is_in_job(process.handle, process.job));
    EXPECT_EQ("own in\nchild in\nchild's out\nfree out\n", read_to_end(process.out));
    EXPECT_EQ(0, process.end());
}

// The limits are taken here, since not every system lets them be read back.
DWORD limits_set;

BOOL set_limits(HANDLE, JOBOBJECTINFOCLASS kind, JOBOBJECT_EXTENDED_LIMIT_INFORMATION *info)
{
    limits_set = info->BasicLimitInformation.LimitFlags;
    return kind == JobObjectExtendedLimitInformation;
}

TEST_F(ProcessTest, JobAllowsBreakawayAndStaysOpenWithoutAPlace)
{
    ImportPatch set("SetInformationJobObject", &set_limits);
    Process process;
    process.handle = thr_process_create(role_command("exits", {"3"}).data(), nullptr, nullptr,
                                        nullptr, nullptr, nullptr);
    ASSERT_TRUE(process.handle);
    EXPECT_EQ(DWORD(JOB_OBJECT_LIMIT_BREAKAWAY_OK), limits_set);
    DWORD pid = GetProcessId(process.handle);
    EXPECT_EQ(3, process.end());
    EXPECT_TRUE(CloseHandle(open_job(pid)));
    m_handles++;
}

TEST_F(ProcessTest, RefusedJobCallsDoNotStopTheChild)
{
    const DWORD code = ERROR_ACCESS_DENIED;
    const std::pair<const char *, std::string> cases[] = {
        {"QueryInformationJobObject", support::os_failure_text("query job info", "result", code)},
        {"SetInformationJobObject", support::os_failure_text("modify job info", "result", code)},
        {"AssignProcessToJobObject",
         "AssignProcessToJobObject failed with error(5): \"" + system_words(code) + "\""},
    };
    support::ReportRecorder reports;
    for (const auto &[call, expected] : cases) {
        SCOPED_TRACE(call);
        ImportPatch patch(call, &refuse);
        Process process;
        ASSERT_TRUE(process.start(role_command("exits", {"3"})));
        EXPECT_EQ(3, process.end());
        Strings told = reports.take_messages();
        EXPECT_EQ(Strings{expected}, told.empty() ? m_debug.take() : told);
    }
}

// --- operations ---------------------------------------------------------------------------------

TEST_F(ProcessTest, WaitAndTerminateTellRunningFromEnded)
{
    thr_process_status status = {-2, -2};
    EXPECT_EQ(-1, thr_process_wait(nullptr, &status, 0));
    EXPECT_EQ(-1, thr_process_terminate(nullptr, {0, 5}));
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), "mi"));
    EXPECT_EQ(0, thr_process_wait(process.handle, &status, 1));
    EXPECT_EQ(-2, status.exit_code);
    HANDLE weak =
        OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, GetProcessId(process.handle));
    EXPECT_EQ(ERROR_ACCESS_DENIED, thr_process_terminate(weak, {0, 5}));
    EXPECT_TRUE(is_open(weak));
    EXPECT_EQ(0, thr_process_terminate(process.handle, {9, 5}));
    EXPECT_FALSE(is_open(process.handle));
    process.handle = weak;
    EXPECT_EQ(5, process.end());
}

TEST_F(ProcessTest, RunGivesTheExitCode)
{
    const std::pair<std::string, int> CASES[] = {{role_command("exits", {"3"}), 3},
                                                 {role_command("exits", {"259"}), -1},
                                                 {"no-such-program.exe", -1}};
    for (auto &[command, code] : CASES)
        EXPECT_EQ(code, thr_run(std::string(command).data())) << command;
    EXPECT_EQ(5, thr_system("exit 5"));
}

TEST(SysFunc, KeepsWhatItIsGiven)
{
    thr_sys_func record;
    auto expect = [&](int32_t name, int32_t wstat, int32_t error) {
        EXPECT_EQ(name, thr_sys_func_get_name(&record));
        EXPECT_EQ(wstat, thr_sys_func_get_wstat(&record));
        EXPECT_EQ(error, thr_sys_func_get_errno(&record));
    };
    thr_sys_func_waitpid_init(&record, -7, 256, -2);
    expect(-7, 256, -2);
    thr_sys_func_init(&record, 7, 2);
    expect(7, 0, 2);
    support::RefusedMalloc refused;
    EXPECT_INTERNAL_ERROR(thr_sys_func_create_msg(), "msg_buf", "thr_process");
}
