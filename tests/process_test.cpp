// Child processes: their streams, jobs and ends, and the calls that the system may refuse. The
// children are this program in a role.
#include "support/test.h"

using namespace support;

namespace
{

// What a pipe holds up to its end, carriage returns left out.
std::string read_to_end(void *pipe)
{
    std::string text;
    char bytes[64];
    uint32_t count;
    int has_data;
    auto has_something = [&] {
        has_data = 1;
        return thr_process_peek(pipe, &has_data) != 0 || has_data;
    };
    while (eventually(has_something) && has_data) {
        if (thr_process_read(pipe, bytes, sizeof bytes, &count) != 0)
            return "what is there can't be read";
        text.append(bytes, count);
    }
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    const bool is_end = thr_process_peek(pipe, nullptr) == ERROR_BROKEN_PIPE &&
                        thr_process_read(pipe, bytes, 1, nullptr) == ERROR_BROKEN_PIPE;
    return text + (is_end ? "" : "and no end");
}

// A child of the library and what came with it. It ends with its pipes, at the latest with those of
// this program.
struct Process {
    void *handle{}, *job{}, *out{}, *err{}, *in{};

    bool start(std::string command, bool has_pipes, bool in_some_tries = true)
    {
        auto place = [=](void **pipe) { return has_pipes ? pipe : nullptr; };
        auto create = [&] {
            handle = thr_process_create_and_save_job(command.data(), "", place(&out), place(&err),
                                                     place(&in), nullptr, &job);
            return handle != nullptr;
        };
        return in_some_tries ? start_in_some_tries(create) : create();
    }
    // The exit code, from thr_process_wait(), which closes the handle.
    int end()
    {
        thr_process_close_pipe(std::exchange(in, nullptr));
        EXPECT_EQ(WaitForSingleObject(handle, PATIENCE_MS), WAIT_OBJECT_0);
        thr_process_status status = {-2, -2};
        EXPECT_EQ(thr_process_wait(handle, &status, 1), reinterpret_cast<intptr_t>(handle));
        EXPECT_EQ(WaitForSingleObject(std::exchange(handle, nullptr), 0), WAIT_FAILED);
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

// Says a word on each output, then gives its input back, then ends with code 7.
ROLE(streams)
{
    say("out");
    fputs("err\n", stderr);
    while (auto line = hear())
        say("in " + *line);
    return 7;
}

// Has children by the library: one with pipes, one that breaks away from the job, since it does not
// know of it, and one with its own streams, which the others have not taken away.
ROLE(has_children)
{
    const std::string id = std::to_string(GetCurrentProcessId());
    HANDLE own_job = OpenJobObjectA(JOB_OBJECT_QUERY, FALSE, id.c_str());
    Process member, free, heir;
    thr_process_set_inherit_handles(2);
    member.start(role_command("streams"), true);
    {
        Gate unseen(Refusal{"OpenJobObjectA", EVERY, 0, ERROR_ACCESS_DENIED});
        free.start("cmd /c exit 7", false);
    }
    say(is_in_job(member.handle, own_job) ? "in" : "out");
    say(is_in_job(member.handle, member.job) || is_in_job(free.handle, own_job) ? "in" : "out");
    thr_process_wait(free.handle, nullptr, 0);
    return member.end() == 7 && heir.start(role_command("streams"), false) ? heir.end() : 1;
}

// A child that holds the pipe of another one would keep that one's end from arriving.
TEST(Process, HasItsStreamsAndJobWhileOthersStart)
{
    const char *const roles[] = {"has_children", "streams", "streams", "streams"};
    Process processes[std::size(roles)];
    std::vector<std::thread> threads;
    Gate made("CreateJobObjectA", [&](const Call &call) { // each with its pipes, none run yet
        eventually([&] { return made.calls() >= LONG(std::size(roles)); });
        return call.go_on();
    });
    for (size_t i = 0; i < std::size(roles); i++)
        threads.emplace_back([&, i] { processes[i].start(role_command(roles[i]), true); });
    for (std::thread &thread : threads)
        thread.join();
    std::string first = "in\nout\n";
    for (Process &process : processes) {
        ASSERT_TRUE(process.handle);
        EXPECT_TRUE(is_in_job(process.handle, process.job));
        thr_process_close_handle(std::exchange(process.job, nullptr)); // that does not end it
        uint32_t count = 99;
        EXPECT_EQ(thr_process_write(process.in, "one\ntwo\n", 8, &count), 0);
        EXPECT_EQ(count, 8u);
        ASSERT_EQ(process.end(), 7);
        ASSERT_EQ(read_to_end(process.out), std::exchange(first, "") + "out\nin one\nin two\n");
        ASSERT_EQ(read_to_end(process.err), "err\n");
    }
}

TEST(Process, IsAskedForWithWhatChangesInTheStartupRecord)
{
    // What is asked for, all refused: the flags, whether the child inherits, and of the start-up
    // record its flags, the size of its table and its handles, with '*' for a new one that can be
    // inherited; and the directory.
    std::ostringstream asked;
    auto refuse = [&](const Call &call) {
        auto *record = call.arg<STARTUPINFOA *>(8);
        asked << std::hex << call.arg<DWORD>(5) << " " << call.arg<BOOL>(4) << " "
              << record->dwFlags << " " << (record->lpReserved2 ? record->cbReserved2 : 0) << " ";
        for (HANDLE handle : {record->hStdInput, record->hStdOutput, record->hStdError}) {
            DWORD flags = 0;
            GetHandleInformation(handle, &flags);
            asked << (handle == HANDLE(record->lpDesktop) ? '='
                                                          : "?*"[flags & HANDLE_FLAG_INHERIT]);
        }
        asked << " " << (call.args[7] ? call.arg<const char *>(7) : "none") << ";";
        return FALSE;
    };
    // a host that has no streams: as a handle, this value would be the process itself
    Gate gates[] = {
        Gate(Refusal{"GetStdHandle", EVERY, -1, ERROR_SUCCESS}),
        Gate(Refusal{"GetConsoleMode", EVERY, FALSE, ERROR_INVALID_HANDLE}),
        Gate(
            "GetStartupInfoA", +[](STARTUPINFOA *record) { memset(record, 2, sizeof *record); }),
        Gate("CreateProcessA", refuse)};
    const std::tuple<int, bool, const char *, std::string> cases[] = {
        {2, false, "GetConsoleMode", " 2 2020202 202 === none;"}, // nothing more
        {0, true, "GetConsoleMode", " 1 100 0 *** none;"},
        {0, true, "DuplicateHandle", " 0 2020202 202 === none;"},
        {0, true, "CreatePipe", " 0 2020202 202 === none;"}};
    for (auto &[inherit, has_pipes, refused, expected] : cases) {
        Gate refusal(Refusal{refused, EVERY, FALSE, ERROR_NOT_ENOUGH_MEMORY});
        thr_process_set_inherit_handles(inherit);
        asked.str("");
        EXPECT_FALSE(Process().start("none", has_pipes, false));
        EXPECT_EQ(asked.str(), "9000004" + expected + "8000004" + expected) << "and no breakaway";
    }
    char command[] = "none";
    asked.str("");
    EXPECT_FALSE(thr_process_create(command, "C:\\", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(thr_run(command), -1);
    EXPECT_NE(asked.str().find(" C:\\;9000004 1 100 0 =** none;"), std::string::npos);
    EXPECT_EQ(thr_process_get_stdin(), HANDLE(0x0202020202020202));
}

TEST(Process, TellsWhatIsRefusedWithNothingHeld)
{
    // What a write to the child comes to where there is none, else what it ends with.
    const std::tuple<Refusal, int> cases[] = {{{"CreateProcessA", EVERY, FALSE, 5}, ERROR_NO_DATA},
                                              {{"ResumeThread", 1, -1, 5}, ERROR_NO_DATA},
                                              {{"SetInformationJobObject", 1, FALSE, 5}, 3},
                                              {{"AssignProcessToJobObject", 1, FALSE, 5}, 3}};
    thr_set_report_func([](auto...) {}); // what is refused is told
    testing::internal::CaptureStderr();
    for (auto &[refused, outcome] : cases) {
        Gate refusal(refused), enter("EnterCriticalSection"), leave("LeaveCriticalSection");
        Gate words("FormatMessageA", [&](const Call &call) {
            EXPECT_EQ(enter.calls(), leave.calls()) << "no lock is held";
            return call.go_on();
        });
        Process process;
        process.job = &process;
        const bool is_started = process.start("cmd /c exit 3", true, false);
        EXPECT_EQ(is_started, std::exchange(process.job, nullptr) != &process) << refused.import;
        EXPECT_EQ(read_to_end(process.out) + read_to_end(process.err), "");
        EXPECT_EQ(is_started ? process.end() : thr_process_write(process.in, "", 1, 0), outcome);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("CreateProcess failed: "), 0u);
}

TEST(Process, IsWaitedForAndTerminated)
{
    HANDLE job = CreateJobObjectA(nullptr, nullptr);
    Gate gate("CreateJobObjectA", [=](const Call &) { return reinterpret_cast<intptr_t>(job); });
    thr_process_status status = {-2, -2};
    Process process;
    process.handle = thr_process_create(role_command("streams").data(), nullptr, &process.out,
                                        &process.out, &process.in, nullptr);
    ASSERT_TRUE(process.handle);
    EXPECT_TRUE(is_in_job(process.handle, job)) << "there was no place for its handle";
    const std::tuple<const char *, int, int> cases[] = {{"WaitForSingleObject", 2, -1},
                                                        {"WaitForSingleObject", 3, 0},
                                                        {"GetExitCodeProcess", 1, -1}};
    for (auto &[refused, options, result] : cases) {
        Gate refusal(Refusal{refused, 1, refused[0] == 'W' ? WAIT_FAILED : 0, 0});
        EXPECT_EQ(thr_process_wait(process.handle, &status, options), result);
    }
    EXPECT_EQ(status.exit_code, -2);
    HANDLE weak =
        OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, GetProcessId(process.handle));
    EXPECT_EQ(thr_process_terminate(weak, {0, 5}), ERROR_ACCESS_DENIED);
    EXPECT_EQ(thr_process_terminate(process.handle, {9, 5}), 0);
    EXPECT_EQ(WaitForSingleObject(std::exchange(process.handle, weak), 0), WAIT_FAILED) << "closed";
    EXPECT_EQ(process.end(), 5);
}

// Prints more than a pipe holds.
ROLE(prints)
{
    say(std::string(1 << 20, 'x'));
    return 3;
}

TEST(Process, OperationsWithoutAHandle)
{
    EXPECT_EQ(thr_run(role_command("prints").data()), 3);
    EXPECT_EQ(thr_run(std::string("cmd /c exit 259").data()), -1) << "as if it still ran";
    EXPECT_EQ(thr_system("exit 5"), 5);
    Process none;
    int has_data = -1;
    EXPECT_TRUE(CreatePipe(&none.out, &none.in, nullptr, 0));
    EXPECT_TRUE(thr_process_peek(none.out, &has_data) == 0 && has_data == 0);
    Gate no_input(
        "GetStartupInfoA", +[](STARTUPINFOA *own) { own->hStdInput = INVALID_HANDLE_VALUE; });
    EXPECT_EQ(thr_process_get_stdin(), GetStdHandle(STD_INPUT_HANDLE));
    thr_sys_func record;
    thr_sys_func_waitpid_init(&record, -7, 5, -2);
    EXPECT_TRUE(thr_sys_func_get_name(&record) == -7 && thr_sys_func_get_wstat(&record) == 5);
    thr_sys_func_init(&record, -7, -2);
    EXPECT_TRUE(thr_sys_func_get_wstat(&record) == 0 && thr_sys_func_get_errno(&record) == -2);
    EXPECT_STREQ(thr_sys_func_create_msg(), "");
    EXPECT_EQ(thr_process_lower_priority(), 0);
    EXPECT_EQ(GetPriorityClass(GetCurrentProcess()), DWORD(IDLE_PRIORITY_CLASS));
    Gate refused(Refusal{"SetPriorityClass", 1, FALSE, ERROR_ACCESS_DENIED});
    EXPECT_EQ(thr_process_lower_priority(), ERROR_ACCESS_DENIED);
}

} // namespace
