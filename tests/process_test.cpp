// Child processes: their streams, jobs and ends, and the calls that the system may refuse. The
// children are this program in a role.

#include "support/test.h"

#include <array>
#include <future>
#include <stdexcept>

using namespace support;

namespace
{

// What a pipe holds up to its end, carriage returns left out. Throws when that does not come.
std::string read_to_end(void *pipe)
{
    std::string text;
    const ULONGLONG deadline = GetTickCount64() + PATIENCE_MS;
    int code, has_data = -1;
    while ((code = thr_process_peek(pipe, &has_data)) == 0) {
        char byte = '\r';
        if (!has_data)
            Sleep(1);
        else if (thr_process_read(pipe, &byte, 1, nullptr) == 0 && byte != '\r')
            text += byte;
        if (GetTickCount64() > deadline)
            throw std::runtime_error("the end of a pipe does not arrive");
        has_data = -1;
    }
    EXPECT_TRUE(code == ERROR_BROKEN_PIPE && has_data == 0);
    return text;
}

// The pipes of a child: none, or one for its input, and one for each or for both of its outputs.
enum Pipes { NONE, INPUT, APART, MERGED };

// A child of the library and what came with it; ended and closed with its scope.
struct Process {
    void *handle{}, *job{}, *out{}, *err{}, *in{};

    ~Process()
    {
        for (void *pipe : {out, err, in})
            thr_process_close_pipe(pipe);
        thr_process_terminate(handle, {0, 1});
        thr_process_close_handle(job);
    }
    // Under load a start is refused now and then, so there are some tries.
    bool start(std::string command, Pipes pipes = NONE, int tries = 4)
    {
        void **in_pipe = pipes == NONE ? nullptr : &in, **out_pipe = pipes > INPUT ? &out : nullptr;
        void **err_pipe = pipes == APART ? &err : out_pipe;
        for (int i = 0; !handle && i < tries; i++) {
            Sleep(i * 200);
            handle = thr_process_create_and_save_job(command.data(), "", out_pipe, err_pipe,
                                                     in_pipe, nullptr, &job);
        }
        return handle != nullptr;
    }
    // The exit code, from thr_process_wait(), which closes the handle.
    int end()
    {
        thr_process_close_pipe(std::exchange(in, nullptr));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(handle, PATIENCE_MS));
        thr_process_status status = {-2, -2};
        EXPECT_EQ(reinterpret_cast<intptr_t>(handle), thr_process_wait(handle, &status, 1));
        EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(std::exchange(handle, nullptr), 0));
        EXPECT_EQ(status.status, status.exit_code);
        return status.exit_code;
    }
};

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
    say("out");
    fputs("err\n", stderr);
    fflush(stderr);
    while (auto line = hear())
        say("in " + *line);
    return thr_process_get_stdin() == GetStdHandle(STD_INPUT_HANDLE) ? 7 : 1;
}

// Has children by the library: one that must not take its streams away, one with a pipe, one that
// breaks away from the job, since it does not know of it, and one with its own streams.
ROLE(has_children)
{
    const std::string id = std::to_string(GetCurrentProcessId());
    HANDLE own_job = OpenJobObjectA(JOB_OBJECT_QUERY, FALSE, id.c_str());
    Process first, second, free, last;
    thr_process_set_inherit_handles(2);
    first.start(role_command("exits", {"7"}));
    second.start(role_command("streams"), MERGED);
    {
        Gate unseen(Refusal{"OpenJobObjectA", EVERY, 0, ERROR_ACCESS_DENIED});
        free.start(role_command("exits", {"7"}));
    }
    for (auto [process, job] : {std::pair(GetCurrentProcess(), own_job),
                                {second.handle, own_job},
                                {second.handle, second.job},
                                {free.handle, own_job}})
        say(is_in_job(process, job) ? "in" : "out");
    const bool are_good = first.end() + second.end() + free.end() == 21 &&
                          read_to_end(second.out) == "out\nerr\n" &&
                          last.start(role_command("streams"));
    return are_good ? last.end() : 1;
}

// A child that holds the pipe of another one would keep that one's end from arriving.
TEST(ProcessStreams, HaveTheirPipesAndEndWhileOthersRun)
{
    std::array<Process, 6> processes;
    std::vector<std::thread> threads;
    for (Process &process : processes)
        threads.emplace_back([&] { process.start(role_command("streams"), APART); });
    for (std::thread &thread : threads)
        thread.join();
    for (Process &process : processes) {
        ASSERT_TRUE(process.handle);
        thr_process_close_handle(std::exchange(process.job, nullptr)); // that does not end it
        uint32_t count = 0;
        EXPECT_EQ(0, thr_process_write(process.in, "one\ntwo\n", 8, &count));
        EXPECT_EQ(8u, count);
        ASSERT_EQ(7, process.end());
        ASSERT_EQ("out\nin one\nin two\nerr\n",
                  read_to_end(process.out) + read_to_end(process.err));
    }
}

TEST(ProcessStreams, AndJobsAreThoseOfTheFamily)
{
    Process parent;
    ASSERT_TRUE(parent.start(role_command("has_children"), APART));
    EXPECT_TRUE(is_in_job(parent.handle, parent.job));
    EXPECT_EQ(0, thr_process_write(parent.in, "word\n", 5, nullptr));
    ASSERT_EQ(7, parent.end());
    EXPECT_EQ("in\nin\nout\nout\nout\nin word\nerr\n",
              read_to_end(parent.out) + read_to_end(parent.err));
}

TEST(ProcessStreams, AreAllThatChangesInTheStartupRecord)
{
    // What is asked for, all refused: the flags, whether the child inherits, and of the start-up
    // record its flags, the size of its table and its handles, with '*' for a new one; and the
    // directory.
    std::ostringstream asked;
    auto refuse = [&](const Call &call) {
        auto *record = call.arg<STARTUPINFOA *>(8);
        asked << std::hex << call.arg<DWORD>(5) << " " << call.arg<BOOL>(4) << " "
              << record->dwFlags << " " << (record->lpReserved2 ? record->cbReserved2 : 0) << " ";
        for (HANDLE handle : {record->hStdInput, record->hStdOutput, record->hStdError})
            asked << (handle == HANDLE(record->lpDesktop) ? '=' : '*');
        asked << " " << (call.args[7] ? call.arg<const char *>(7) : "none") << ";";
        return FALSE;
    };
    // a host that has no outputs: as a handle, this value would be the process itself
    auto own_stream = [](const Call &call) {
        return reinterpret_cast<intptr_t>(
            call.arg<DWORD>(0) == STD_INPUT_HANDLE ? GetCurrentThread() : INVALID_HANDLE_VALUE);
    };
    auto own_record = [](const Call &call) {
        memset(call.arg<void *>(0), 2, sizeof(STARTUPINFOA));
        return 0;
    };
    Gate gates[] = {Gate("GetStartupInfoA", own_record), Gate("GetStdHandle", own_stream),
                    Gate(Refusal{"GetConsoleMode", EVERY, FALSE, ERROR_INVALID_HANDLE}),
                    Gate("CreateProcessA", refuse)};
    const std::tuple<int, Pipes, std::string> cases[] = {{0, NONE, " 0 2020202 202 === none;"},
                                                         {2, NONE, " 2 100 0 *== none;"},
                                                         {0, INPUT, " 1 100 0 *== none;"},
                                                         {0, APART, " 1 100 0 *** none;"}};
    for (auto &[inherit, pipes, expected] : cases) {
        thr_process_set_inherit_handles(inherit);
        asked.str("");
        EXPECT_FALSE(Process().start("none", pipes, 1));
        EXPECT_EQ(asked.str(), "9000004" + expected + "8000004" + expected) << "and no breakaway";
    }
    thr_process_set_inherit_handles(0);
    char command[] = "none";
    EXPECT_FALSE(thr_process_create(command, "C:\\", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(asked.str().substr(asked.str().size() - 5), " C:\\;");
}

// --- starts -------------------------------------------------------------------------------------

// The first time that a hook is told of a refusal it waits for another thread, which starts a child
// that stays.
std::string told; // by debug messages
std::optional<Gate> refusal;
std::optional<Process> other;

void wait_for_other()
{
    static std::future<bool> start;
    if (!refusal)
        return;
    refusal.reset();
    start = std::async(std::launch::async,
                       [] { return other.emplace().start(role_command("streams"), APART); });
    EXPECT_EQ(start.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST(ProcessStart, TellsWhatIsRefusedWithNothingHeld)
{
    auto hear_debug = [](const char *, const char *format, va_list args) {
        char text[4096];
        vsnprintf(text, sizeof text, format, args);
        told += text;
        wait_for_other();
    };
    thr_set_debug_func(hear_debug, 0);
    thr_set_report_func([](const char *, const char *, const char *, int) { wait_for_other(); });
    const DWORD code = ERROR_BAD_EXE_FORMAT; // the system's words have a place for a name, %1
    const std::tuple<Refusal, int, const char *> cases[] = {
        {{"CreateProcessA", EVERY, FALSE, code}, 0, "%1"},
        {{"ResumeThread", 1, -1, code}, 0, "%1"}, // nor is the child left
        {{"SetInformationJobObject", 1, FALSE, code}, 3, ""},
        {{"AssignProcessToJobObject", 1, FALSE, code}, 3, "%1"}};
    testing::internal::CaptureStderr();
    for (auto &[refused, exit_code, words] : cases) {
        told.clear();
        refusal.emplace(refused);
        other.reset();
        Process process;
        process.job = &process;
        const bool is_started = process.start(role_command("exits", {"3"}), APART, 1);
        EXPECT_EQ(is_started, std::exchange(process.job, nullptr) != &process) << refused.import;
        EXPECT_EQ("", read_to_end(process.out) + read_to_end(process.err));
        EXPECT_EQ(ERROR_NO_DATA, thr_process_write(process.in, "", 1, nullptr));
        EXPECT_EQ(exit_code, is_started ? process.end() : 0);
        EXPECT_EQ(7, other && other->handle ? other->end() : -1);
        EXPECT_NE(told.find(words), told.npos) << told;
    }
    EXPECT_EQ(0u, testing::internal::GetCapturedStderr().find("CreateProcess failed: "));
    thr_set_debug_func(nullptr, 0);
    thr_set_report_func(nullptr);
}

// --- operations ---------------------------------------------------------------------------------

TEST(ProcessOperations, TellRunningFromEnded)
{
    HANDLE job = CreateJobObjectA(nullptr, nullptr);
    Gate gate("CreateJobObjectA", [=](const Call &) { return reinterpret_cast<intptr_t>(job); });
    thr_process_status status = {-2, -2};
    Process process;
    process.handle = thr_process_create(role_command("streams").data(), nullptr, &process.out,
                                        &process.out, &process.in, nullptr);
    ASSERT_TRUE(process.handle);
    EXPECT_TRUE(is_in_job(process.handle, job)) << "there was no place for its handle";
    EXPECT_EQ(0, thr_process_wait(process.handle, &status, 1));
    {
        Gate refused(Refusal{"WaitForSingleObject", 1, intptr_t(WAIT_FAILED), 0});
        EXPECT_EQ(-1, thr_process_wait(process.handle, &status, 0));
    }
    EXPECT_EQ(-2, status.exit_code);
    HANDLE weak =
        OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, GetProcessId(process.handle));
    EXPECT_EQ(ERROR_ACCESS_DENIED, thr_process_terminate(weak, {0, 5}));
    EXPECT_EQ(0, thr_process_terminate(process.handle, {9, 5}));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(std::exchange(process.handle, weak), 0)) << "closed";
    EXPECT_EQ(5, process.end());
}

// Prints more than a pipe holds.
ROLE(prints)
{
    auto printing = std::async(std::launch::async, say, std::string(1 << 20, 'x'));
    _exit(printing.wait_for(std::chrono::seconds(20)) == std::future_status::ready ? 3 : 1);
}

TEST(ProcessOperations, WithoutAHandle)
{
    EXPECT_EQ(3, thr_run(role_command("prints").data()));
    EXPECT_EQ(-1, thr_run(role_command("exits", {"259"}).data())) << "as if it still ran";
    EXPECT_EQ(5, thr_system("exit 5"));
    Process none;
    int has_data = -1;
    EXPECT_TRUE(CreatePipe(&none.out, &none.in, nullptr, 0));
    EXPECT_TRUE(thr_process_peek(none.out, &has_data) == 0 && has_data == 0);
    Gate no_input("GetStartupInfoA", [](const Call &call) {
        call.arg<STARTUPINFOA *>(0)->hStdInput = INVALID_HANDLE_VALUE;
        return 0;
    });
    EXPECT_EQ(thr_process_get_stdin(), GetStdHandle(STD_INPUT_HANDLE));
    const DWORD before = GetPriorityClass(GetCurrentProcess());
    EXPECT_EQ(0, thr_process_lower_priority());
    EXPECT_EQ(IDLE_PRIORITY_CLASS, GetPriorityClass(GetCurrentProcess()));
    SetPriorityClass(GetCurrentProcess(), before);
    thr_sys_func record;
    thr_sys_func_init(&record, -7, -2);
    EXPECT_TRUE(thr_sys_func_get_name(&record) == -7 && thr_sys_func_get_wstat(&record) == 0);
    EXPECT_EQ(-2, thr_sys_func_get_errno(&record));
}

} // namespace
