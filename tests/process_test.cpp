// Child processes: their streams, jobs and ends, and every call that the system may refuse. The
// children are this program in a role.
#include "support/child.h"
#include "support/handles.h"
#include "support/import_patch.h"
#include "support/recorders.h"
#include "support/scratch_dir.h"

#include "thr/thr.h"

#include <array>
#include <memory>
#include <thread>

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

BOOL accept()
{
    return TRUE;
}

// For calls whose refusal is all bits set.
DWORD refuse_with_ones()
{
    return refuse() - 1;
}

bool is_open(void *handle)
{
    DWORD flags;
    return GetHandleInformation(handle, &flags) != 0;
}

bool is_inheritable(void *handle)
{
    DWORD flags = 0;
    return GetHandleInformation(handle, &flags) && (flags & HANDLE_FLAG_INHERIT);
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
    for (int has_data; GetTickCount64() < deadline; thr_msleep(has_data ? 0 : 1)) {
        if (int code = thr_process_peek(pipe, &has_data)) {
            EXPECT_EQ(ERROR_BROKEN_PIPE, code);
            return text;
        }
        char byte = '\r';
        if (has_data && thr_process_read(pipe, &byte, 1, nullptr) != 0)
            break;
        if (byte != '\r')
            text += byte;
    }
    return text + " and no end";
}

// A child of the library and what came with it; ended and closed with its scope.
struct Process {
    void *handle = nullptr;
    void *job = nullptr;
    void *out = nullptr;
    void *err = nullptr;
    void *in = nullptr;

    Process() = default;
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
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
            close_pipe(pipe);
    }
    void close_pipe(void **pipe)
    {
        if (*pipe)
            thr_process_close_pipe(*pipe);
        *pipe = nullptr;
    }
    // The letters of `pipes` choose them: o, e, i, and m for both outputs merged.
    bool try_start(std::string command, const std::string &pipes = "", const char *directory = "")
    {
        auto has = [&](char c) { return pipes.find(c) != std::string::npos; };
        void **out_pipe = has('o') || has('m') ? &out : nullptr;
        void **err_pipe = has('m') ? &out : has('e') ? &err : nullptr;
        handle = thr_process_create_and_save_job(command.data(), directory, out_pipe, err_pipe,
                                                 has('i') ? &in : nullptr, nullptr, &job);
        return handle != nullptr;
    }
    // Under load a start is refused now and then.
    bool start(const std::string &command, const std::string &pipes = "",
               const char *directory = "")
    {
        for (int tries = 0; !try_start(command, pipes, directory) && tries < 4; tries++) {
            fprintf(stderr, "a start was refused, trying again: %s\n", command.c_str());
            close_pipes();
            Sleep(200);
        }
        return handle != nullptr;
    }
    // The exit code, from thr_process_wait(), which closes the handle.
    int end()
    {
        close_pipe(&in);
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

// Standard output, error, input.
std::array<HANDLE, 3> handles_of(const STARTUPINFOA &startup)
{
    return {startup.hStdOutput, startup.hStdError, startup.hStdInput};
}

std::array<HANDLE, 3> own_handles()
{
    STARTUPINFOA own = {};
    GetStartupInfoA(&own);
    return handles_of(own);
}

// Records what is handed to CreateProcessA, and refuses a start whose flags meet `m_refused`.
struct StartRecorder {
    struct Start {
        DWORD flags;
        BOOL inherit;
        bool is_plain; // no program, security, environment or directory of its own
        STARTUPINFOA startup;
        std::array<HANDLE, 3> handles;
        std::array<bool, 3> are_inheritable;
    };
    std::vector<Start> m_starts;
    DWORD m_refused;
    HANDLE m_process = nullptr; // our own handle of the process that was started last

    explicit StartRecorder(DWORD refused = 0) : m_refused(refused) { s_active = this; }
    ~StartRecorder() { CloseHandle(m_process); }

private:
    inline static StartRecorder *s_active;
    ImportPatch m_patch{"CreateProcessA", &create};

    static BOOL WINAPI create(const char *program, char *command, SECURITY_ATTRIBUTES *process_sa,
                              SECURITY_ATTRIBUTES *thread_sa, BOOL inherit, DWORD flags,
                              void *environment, const char *directory, STARTUPINFOA *startup,
                              PROCESS_INFORMATION *process)
    {
        bool is_plain = !program && !process_sa && !thread_sa && !environment && !directory;
        Start start = {flags, inherit, is_plain, *startup, {}, {}};
        start.handles = handles_of(*startup);
        for (int i = 0; i < 3; i++)
            start.are_inheritable[i] = is_inheritable(start.handles[i]);
        s_active->m_starts.push_back(start);
        if (flags & s_active->m_refused)
            return refuse();
        BOOL result = CreateProcessA(program, command, process_sa, thread_sa, inherit, flags,
                                     environment, directory, startup, process);
        HANDLE self = GetCurrentProcess();
        DuplicateHandle(self, process->hProcess, self, &s_active->m_process, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        return result;
    }
};

HANDLE open_job(DWORD pid)
{
    return OpenJobObjectA(JOB_OBJECT_QUERY, FALSE, std::to_string(pid).c_str());
}

bool is_job_there(DWORD pid)
{
    HANDLE job = open_job(pid);
    return job && CloseHandle(job);
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
        Process child;
        child.start(role_command("exits", {"0"}), "oei");
        Process failed;
        failed.try_start("none", "oei");
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

ROLE(says_directory)
{
    char path[MAX_PATH];
    GetCurrentDirectoryA(sizeof path, path);
    support::say(path);
    return 0;
}

// Lets a child of its own have its standard streams; ends with the handles that this left open.
ROLE(passes_streams_on)
{
    thr_process_set_inherit_handles(2);
    size_t handles = 0;
    for (const std::string &command : {role_command("exits", {"7"}), role_command("streams")}) {
        handles = support::live_handle_count();
        Process process;
        if (!process.start(command) || process.end() != 7)
            throw std::runtime_error("the child failed");
    }
    return static_cast<int>(support::live_handle_count() - handles);
}

// Starts a child through the library, and one that breaks away from the job by plain calls.
ROLE(has_children)
{
    HANDLE own_job = open_job(GetCurrentProcessId());
    auto tell = [&](const char *who, HANDLE process) {
        support::say(std::string(who) + (is_in_job(process, own_job) ? " in" : " out"));
    };
    tell("own", GetCurrentProcess());
    Process child;
    child.start(role_command("streams"), "mi");
    tell("child", child.handle);
    std::string command = role_command("exits", {"0"});
    STARTUPINFOA startup = {};
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE,
                        CREATE_BREAKAWAY_FROM_JOB | CREATE_SUSPENDED, nullptr, nullptr, &startup,
                        &process))
        return static_cast<int>(GetLastError());
    tell("free", process.hProcess);
    TerminateProcess(process.hProcess, 0);
    return 0;
}

// --- streams ------------------------------------------------------------------------------------

TEST_F(ProcessTest, StreamsHaveTheirPipesAndEnd)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), "oei"));
    for (void *end : {process.out, process.err, process.in})
        EXPECT_TRUE(is_open(end) && !is_inheritable(end));
    uint32_t count = 0;
    EXPECT_EQ(0, thr_process_write(process.in, "one\n", 4, &count));
    EXPECT_EQ(4u, count);
    EXPECT_EQ(0, thr_process_write(process.in, "two\n", 4, nullptr));
    process.close_pipe(&process.in);
    EXPECT_EQ("out\nin one\nin two\n", read_to_end(process.out));
    EXPECT_EQ("err\n", read_to_end(process.err));
    EXPECT_EQ(7, process.end());

    Process merged;
    ASSERT_TRUE(merged.start(role_command("streams"), "mi"));
    merged.close_pipe(&merged.in);
    EXPECT_EQ("out\nerr\n", read_to_end(merged.out));
}

TEST_F(ProcessTest, DirectoryIsTheCallersUnlessGiven)
{
    support::ScratchDir scratch;
    char here[MAX_PATH];
    GetCurrentDirectoryA(sizeof here, here);
    const std::pair<const char *, std::string> CASES[] = {
        {nullptr, here}, {"", here}, {scratch.path().c_str(), scratch.path()}};
    for (auto &[directory, expected] : CASES) {
        Process process;
        ASSERT_TRUE(process.start(role_command("says_directory"), "o", directory));
        EXPECT_EQ(expected + "\n", read_to_end(process.out));
        EXPECT_EQ(0, process.end()); // a folder in use can't be removed
    }
}

// A child that holds the pipe of another one would keep that one's end from arriving.
TEST_F(ProcessTest, EndArrivesWhileChildrenOfOtherThreadsRun)
{
    std::vector<Process> processes(6);
    std::vector<std::thread> threads;
    for (Process &process : processes)
        threads.emplace_back([&] { process.start(role_command("streams"), "oei"); });
    for (std::thread &thread : threads)
        thread.join();
    for (Process &process : processes) {
        ASSERT_TRUE(process.handle);
        process.close_pipe(&process.in);
        ASSERT_EQ("out\n", read_to_end(process.out));
        ASSERT_EQ("err\n", read_to_end(process.err));
        EXPECT_EQ(7, process.end());
    }
    // a lock where threads have met may keep a handle of the system's
    size_t children = processes.size();
    processes.clear();
    EXPECT_LT(support::live_handle_count(), m_handles + children);
    m_handles = support::live_handle_count();
}

TEST_F(ProcessTest, InheritFlagPassesTheCallersStreamsOn)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("passes_streams_on"), "oei"));
    EXPECT_EQ(0, thr_process_write(process.in, "word\n", 5, nullptr));
    process.close_pipe(&process.in);
    EXPECT_EQ("out\nin word\n", read_to_end(process.out));
    EXPECT_EQ("err\n", read_to_end(process.err));
    EXPECT_EQ(0, process.end()) << "handles left open by a creation";
}

// --- what the system is asked for ---------------------------------------------------------------

STARTUPINFOA startup_told;

void tell_startup(STARTUPINFOA *startup)
{
    *startup = startup_told;
}

TEST_F(ProcessTest, StartRecordHoldsWhatWasAskedFor)
{
    GetStartupInfoA(&startup_told);
    startup_told.dwFlags = STARTF_USESHOWWINDOW;
    startup_told.wShowWindow = SW_MAXIMIZE;
    ImportPatch startup("GetStartupInfoA", &tell_startup);
    const struct {
        const char *pipes;
        int flag;
        bool has_console;
        BOOL inherit;
        std::array<bool, 3> are_ours; // output, error, input: made for this child
    } CASES[] = {
        {"", 0, false, 0, {}},
        {"i", 0, true, 1, {false, false, true}},
        {"oe", 0, false, 1, {true, true, false}},
        {"m", 0, false, 1, {true, true, false}},
        {"", -1, false, -1, {true, true, true}},
        {"o", 2, false, 1, {true, true, true}},
    };
    for (auto &c : CASES) {
        SCOPED_TRACE(std::string("pipes ") + c.pipes + " flag " + std::to_string(c.flag));
        ImportPatch console("GetConsoleMode", c.has_console ? &accept : &refuse);
        StartRecorder recorder(CREATE_SUSPENDED);
        thr_process_set_inherit_handles(c.flag);
        Process process;
        EXPECT_FALSE(process.try_start("none", c.pipes));
        thr_process_set_inherit_handles(0);
        ASSERT_EQ(2u, recorder.m_starts.size());
        const StartRecorder::Start &start = recorder.m_starts[0];
        DWORD no_window = c.has_console ? 0 : CREATE_NO_WINDOW;
        EXPECT_EQ(CREATE_SUSPENDED | CREATE_BREAKAWAY_FROM_JOB | no_window, start.flags);
        DWORD startup_flags = *c.pipes || c.flag ? STARTF_USESTDHANDLES : STARTF_USESHOWWINDOW;
        EXPECT_EQ(startup_flags, start.startup.dwFlags);
        EXPECT_EQ(SW_MAXIMIZE, start.startup.wShowWindow);
        EXPECT_EQ(startup_told.lpDesktop, start.startup.lpDesktop);
        EXPECT_EQ(c.inherit, start.inherit);
        EXPECT_TRUE(start.is_plain);
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(c.are_ours[i], start.handles[i] != own_handles()[i]) << i;
            EXPECT_TRUE(!c.are_ours[i] || start.are_inheritable[i]) << i;
            EXPECT_FALSE(c.are_ours[i] && is_open(start.handles[i])) << i;
        }
    }
}

int calls_to_refusal; // the call that this counts down to is refused

BOOL create_pipe(HANDLE *read, HANDLE *write, SECURITY_ATTRIBUTES *security, DWORD size)
{
    return --calls_to_refusal == 0 ? refuse() : CreatePipe(read, write, security, size);
}

BOOL duplicate(HANDLE from, HANDLE handle, HANDLE to, HANDLE *copy, DWORD access, BOOL inherit,
               DWORD options)
{
    return --calls_to_refusal == 0
               ? refuse()
               : DuplicateHandle(from, handle, to, copy, access, inherit, options);
}

TEST_F(ProcessTest, RefusedPipeLeavesItsStreamAlone)
{
    for (int i = 0; i < 6; i++) { // each call in turn, for output, error and input
        SCOPED_TRACE(i);
        auto patch = i < 3 ? std::make_unique<ImportPatch>("CreatePipe", &create_pipe)
                           : std::make_unique<ImportPatch>("DuplicateHandle", &duplicate);
        StartRecorder recorder(CREATE_SUSPENDED);
        Process process;
        calls_to_refusal = i % 3 + 1;
        EXPECT_FALSE(process.try_start("none", "oei"));
        void *ends[] = {process.out, process.err, process.in};
        for (int stream = 0; stream < 3; stream++) {
            bool is_piped = stream != i % 3;
            EXPECT_EQ(is_piped, ends[stream] != nullptr) << stream;
            EXPECT_EQ(is_piped, recorder.m_starts.at(0).handles[stream] != own_handles()[stream]);
        }
    }
}

TEST_F(ProcessTest, FailedCommandTellsWhyAndLeavesThePipeEnds)
{
    Process process;
    int untouched = 0;
    process.job = &untouched;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(process.try_start("no-such-program.exe --option", "oei"));
    std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, printed.find("CreateProcess failed: ")) << printed;
    EXPECT_EQ(failure_lines(ERROR_FILE_NOT_FOUND, "no-such-program.exe --option"), m_debug.take());
    EXPECT_EQ(&untouched, process.job);
    process.job = nullptr;
    for (void *end : {process.out, process.err, process.in})
        EXPECT_TRUE(is_open(end));
    EXPECT_EQ("", read_to_end(process.out)); // the child's end is closed
}

TEST_F(ProcessTest, RefusedResumeLeavesNothingRunning)
{
    StartRecorder recorder;
    ImportPatch patch("ResumeThread", &refuse_with_ones);
    Process process;
    std::string command = role_command("exits", {"3"});
    EXPECT_FALSE(process.try_start(command, "o"));
    EXPECT_EQ(nullptr, process.job);
    EXPECT_EQ(failure_lines(ERROR_ACCESS_DENIED, command), m_debug.take());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(recorder.m_process, support::PATIENCE_MS));
    EXPECT_EQ("", read_to_end(process.out));
}

// --- jobs ---------------------------------------------------------------------------------------

TEST_F(ProcessTest, JobIsNamedByTheChildAndLetsBreakAway)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("has_children"), "o"));
    EXPECT_TRUE(is_job_there(GetProcessId(process.handle)));
    EXPECT_TRUE(is_in_job(process.handle, process.job));
    EXPECT_EQ("own in\nchild in\nfree out\n", read_to_end(process.out));
    EXPECT_EQ(0, process.end());
}

TEST_F(ProcessTest, JobWithoutAPlaceStaysOpen)
{
    std::string command = role_command("exits", {"3"});
    Process process;
    process.handle =
        thr_process_create(command.data(), nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_TRUE(process.handle);
    DWORD pid = GetProcessId(process.handle);
    EXPECT_EQ(3, process.end());
    EXPECT_TRUE(is_job_there(pid));
    m_handles++;
}

// The limits are the test's own here, since not every system lets them be read back.
DWORD limits_set;

BOOL query_limits(HANDLE, JOBOBJECTINFOCLASS, JOBOBJECT_EXTENDED_LIMIT_INFORMATION *info)
{
    info->BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_PRIORITY_CLASS;
    return TRUE;
}

BOOL set_limits(HANDLE, JOBOBJECTINFOCLASS kind, JOBOBJECT_EXTENDED_LIMIT_INFORMATION *info,
                DWORD size)
{
    EXPECT_EQ(JobObjectExtendedLimitInformation, kind);
    EXPECT_EQ(sizeof *info, size);
    limits_set = info->BasicLimitInformation.LimitFlags;
    return TRUE;
}

TEST_F(ProcessTest, JobGetsOneLimitFlagMore)
{
    ImportPatch query("QueryInformationJobObject", &query_limits);
    ImportPatch set("SetInformationJobObject", &set_limits);
    Process process;
    ASSERT_TRUE(process.start(role_command("exits", {"0"})));
    EXPECT_EQ(DWORD(JOB_OBJECT_LIMIT_PRIORITY_CLASS | JOB_OBJECT_LIMIT_BREAKAWAY_OK), limits_set);
}

TEST_F(ProcessTest, RefusedBreakawayIsTriedWithout)
{
    StartRecorder recorder(CREATE_BREAKAWAY_FROM_JOB);
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), "oi"));
    ASSERT_EQ(2u, recorder.m_starts.size());
    EXPECT_TRUE(recorder.m_starts[0].flags & CREATE_BREAKAWAY_FROM_JOB);
    EXPECT_EQ(recorder.m_starts[0].flags ^ CREATE_BREAKAWAY_FROM_JOB, recorder.m_starts[1].flags);
    EXPECT_EQ(recorder.m_starts[0].handles, recorder.m_starts[1].handles);
    process.close_pipe(&process.in);
    EXPECT_EQ("out\n", read_to_end(process.out));
}

TEST_F(ProcessTest, MemberOfAJobLeavesItsChildrenInIt)
{
    const DWORD pid = GetCurrentProcessId();
    HANDLE own_job = CreateJobObjectA(nullptr, std::to_string(pid).c_str());
    StartRecorder recorder;
    Process process;
    bool is_started = process.start(role_command("streams"), "mi");
    CloseHandle(own_job);
    for (int tries = 0; is_job_there(pid) && tries < 500; tries++)
        thr_msleep(10); // the name can outlast the last handle for a moment
    EXPECT_FALSE(is_job_there(pid));
    ASSERT_TRUE(is_started);
    EXPECT_FALSE(recorder.m_starts.at(0).flags & CREATE_BREAKAWAY_FROM_JOB);
    EXPECT_TRUE(process.job && !is_in_job(process.handle, process.job));
}

TEST_F(ProcessTest, RefusedJobCallsDoNotStopTheChild)
{
    const DWORD CODE = ERROR_ACCESS_DENIED;
    const struct {
        const char *call;
        Strings reports;
        Strings messages;
    } CASES[] = {
        {"QueryInformationJobObject",
         {support::os_failure_text("query job info", "result", CODE)},
         {}},
        {"SetInformationJobObject",
         {support::os_failure_text("modify job info", "result", CODE)},
         {}},
        {"AssignProcessToJobObject",
         {},
         {"AssignProcessToJobObject failed with error(5): \"" + system_words(CODE) + "\""}},
    };
    support::ReportRecorder reports;
    for (auto &c : CASES) {
        SCOPED_TRACE(c.call);
        ImportPatch patch(c.call, &refuse);
        Process process;
        ASSERT_TRUE(process.start(role_command("exits", {"3"})));
        EXPECT_EQ(3, process.end());
        EXPECT_EQ(c.reports, reports.take_messages());
        EXPECT_EQ(c.messages, m_debug.take());
    }
    ImportPatch patch("CreateJobObjectA", &refuse);
    Process process;
    process.job = &process;
    EXPECT_TRUE(process.start(role_command("exits", {"3"})));
    EXPECT_EQ(nullptr, process.job);
}

// --- operations ---------------------------------------------------------------------------------

TEST_F(ProcessTest, WaitTellsRunningFromEnded)
{
    thr_process_status status = {-2, -2};
    EXPECT_EQ(-1, thr_process_wait(nullptr, &status, 0));
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), "mi"));
    EXPECT_EQ(0, thr_process_wait(process.handle, &status, 1));
    {
        ImportPatch code("GetExitCodeProcess", &refuse);
        EXPECT_EQ(-1, thr_process_wait(process.handle, &status, 1));
    }
    ImportPatch wait("WaitForSingleObject", &refuse_with_ones);
    EXPECT_EQ(-1, thr_process_wait(process.handle, &status, 0));
    EXPECT_EQ(-2, status.status);
    EXPECT_EQ(-2, status.exit_code);
    EXPECT_TRUE(is_open(process.handle));
    process.close_pipe(&process.in);
    WaitForSingleObject(process.handle, support::PATIENCE_MS);
    EXPECT_EQ(7, process.end()); // a failed wait for a process that has ended does not matter
}

TEST_F(ProcessTest, ExitCode259LooksLikeRunning)
{
    Process process;
    ASSERT_TRUE(process.start(role_command("exits", {"259"})));
    EXPECT_EQ(0, thr_process_wait(process.handle, nullptr, 0));
    EXPECT_TRUE(is_open(process.handle));
}

TEST_F(ProcessTest, TerminateEndsTheChildAndClosesTheHandle)
{
    EXPECT_EQ(-1, thr_process_terminate(nullptr, {0, 5}));
    Process process;
    ASSERT_TRUE(process.start(role_command("streams"), "mi"));
    DWORD pid = GetProcessId(process.handle);
    HANDLE weak = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, pid);
    EXPECT_EQ(ERROR_ACCESS_DENIED, thr_process_terminate(weak, {0, 5}));
    EXPECT_TRUE(is_open(weak));
    EXPECT_EQ(0, thr_process_terminate(process.handle, {9, 5}));
    EXPECT_FALSE(is_open(process.handle));
    process.handle = weak;
    EXPECT_EQ(5, process.end());
}

TEST_F(ProcessTest, PipesAreReadWrittenPeekedAndClosed)
{
    HANDLE read_end;
    HANDLE write_end;
    ASSERT_TRUE(CreatePipe(&read_end, &write_end, nullptr, 0));
    int has_data = -1;
    EXPECT_EQ(0, thr_process_peek(read_end, &has_data));
    EXPECT_EQ(0, has_data);
    EXPECT_EQ(0, thr_process_write(write_end, "abc", 3, nullptr));
    EXPECT_EQ(0, thr_process_peek(read_end, nullptr));
    EXPECT_EQ(0, thr_process_peek(read_end, &has_data));
    EXPECT_EQ(1, has_data);
    char bytes[8] = {};
    uint32_t count = 99;
    EXPECT_EQ(0, thr_process_read(read_end, bytes, 2, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(0, thr_process_read(read_end, bytes + 2, 1, nullptr));
    EXPECT_STREQ("abc", bytes);
    EXPECT_EQ(0, thr_process_close_pipe(write_end));
    EXPECT_EQ(ERROR_BROKEN_PIPE, thr_process_read(read_end, bytes, 2, &count));
    EXPECT_EQ(ERROR_ACCESS_DENIED, thr_process_write(read_end, "x", 1, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(ERROR_BROKEN_PIPE, thr_process_peek(read_end, &has_data));
    EXPECT_EQ(0, has_data);
    for (void *pipe : {read_end, read_end, HANDLE(nullptr)})
        EXPECT_EQ(0, thr_process_close_pipe(pipe));
    thr_process_close_handle(nullptr);
}

// --- running a command --------------------------------------------------------------------------

TEST_F(ProcessTest, RunGivesTheExitCode)
{
    const std::pair<std::string, int> CASES[] = {{role_command("exits", {"0"}), 0},
                                                 {role_command("exits", {"3"}), 3},
                                                 {role_command("exits", {"259"}), -1},
                                                 {"no-such-program.exe", -1}};
    for (auto &[command, code] : CASES)
        EXPECT_EQ(code, thr_run(std::string(command).data())) << command;
    ImportPatch patch("GetExitCodeProcess", &refuse);
    EXPECT_EQ(-1, thr_run(role_command("exits", {"0"}).data()));
    EXPECT_EQ(5, thr_system("exit 5"));
}

// --- the calling process ------------------------------------------------------------------------

TEST_F(ProcessTest, StdinIsThatOfTheStartRecord)
{
    ImportPatch patch("GetStartupInfoA", &tell_startup);
    const std::pair<HANDLE, HANDLE> CASES[] = {
        {INVALID_HANDLE_VALUE, GetStdHandle(STD_INPUT_HANDLE)},
        {nullptr, nullptr},
        {&startup_told, &startup_told}};
    for (auto &[field, expected] : CASES) {
        startup_told.hStdInput = field;
        EXPECT_EQ(expected, thr_process_get_stdin());
    }
}

TEST_F(ProcessTest, LowersItsPriorityAndAsksItsLoopToEnd)
{
    EXPECT_EQ(0, thr_process_lower_priority());
    EXPECT_EQ(DWORD(IDLE_PRIORITY_CLASS), GetPriorityClass(GetCurrentProcess()));
    SetPriorityClass(GetCurrentProcess(), NORMAL_PRIORITY_CLASS);
    ImportPatch patch("SetPriorityClass", &refuse);
    EXPECT_EQ(ERROR_ACCESS_DENIED, thr_process_lower_priority());

    thr_process_exit({3, 4});
    MSG message;
    ASSERT_TRUE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(UINT(WM_QUIT), message.message);
    EXPECT_EQ(-1, static_cast<int>(message.wParam));
}

// --- outcome records ----------------------------------------------------------------------------

TEST(SysFunc, KeepsWhatItIsGiven)
{
    using Words = std::array<int32_t, 3>;
    thr_sys_func record;
    auto expect = [&](const Words &words) {
        EXPECT_EQ(words, (Words{thr_sys_func_get_name(&record), thr_sys_func_get_wstat(&record),
                                thr_sys_func_get_errno(&record)}));
        EXPECT_EQ(0, memcmp(words.data(), &record, sizeof record));
    };
    thr_sys_func_init(&record, 7, 2);
    expect({7, 0, 2});
    thr_sys_func_waitpid_init(&record, -7, 256, -2);
    expect({-7, 256, -2});
    char *message = thr_sys_func_create_msg();
    EXPECT_STREQ("", message);
    thr_sys_func_delete_msg(message);
}

TEST(SysFuncDeathTest, MessageNeedsMemory)
{
    EXPECT_INTERNAL_ERROR(
        {
            ImportPatch patch("malloc", &refuse);
            thr_sys_func_create_msg();
        },
        "msg_buf", "thr_process");
}
