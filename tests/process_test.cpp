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
    int code = 0, has_data = 1;
    auto is_due = [&] { return thr_process_peek(pipe, &has_data) != 0 || has_data; };
    while (eventually(is_due) && !(code = thr_process_read(pipe, bytes, sizeof bytes, &count)))
        text.append(bytes, count);
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text + (code == ERROR_BROKEN_PIPE && !has_data ? "" : "and no end");
}

// A child of the library and what came with it. It ends with its pipes, at the latest with those of
// this program.
struct Process {
    void *handle{}, *job{}, *out{}, *err{}, *in{};

    // With a pipe for each of the 3 streams, with 2, both outputs having the same, or with none.
    bool start(std::string command, int pipes, bool in_some_tries = true)
    {
        auto place = [=](void **pipe) { return pipes > 0 ? pipe : nullptr; };
        auto create = [&] {
            handle = thr_process_create_and_save_job(command.data(), "C:\\", place(&out),
                                                     place(pipes == 3 ? &err : &out), place(&in),
                                                     nullptr, &job);
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
    member.start(role_command("streams"), 3);
    Gate unseen(Refusal{"OpenJobObjectA", EVERY, 0, ERROR_ACCESS_DENIED});
    free.start("cmd /c exit 0", 0);
    heir.start(role_command("streams"), 0);
    const bool is_right = is_in_job(member.handle, own_job) && !is_in_job(free.handle, own_job) &&
                          !is_in_job(member.handle, member.job);
    return is_right && member.end() == 7 ? free.end() + heir.end() : 1;
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
    Gate creation("CreateProcessA", [](const Call &call) { // others may make their pipes meanwhile
        Sleep(20);
        return call.go_on();
    });
    for (size_t i = std::size(roles); i-- > 0;)
        threads.emplace_back([&, i] { processes[i].start(role_command(roles[i]), 3); });
    for (std::thread &thread : threads)
        thread.join();
    for (int i : {0, 3, 1, 2}) { // the ends of who came last and first, while the others run
        Process &process = processes[i];
        EXPECT_TRUE(is_in_job(process.handle, process.job));
        thr_process_close_handle(std::exchange(process.job, nullptr)); // that does not end it
        EXPECT_EQ(thr_process_write(process.in, "one\ntwo\n", 8, nullptr), 0);
        ASSERT_EQ(process.end(), 7);
        ASSERT_EQ(read_to_end(process.out), "out\nin one\nin two\n");
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
        asked << " " << call.arg<const char *>(7) << ";";
        return FALSE;
    };
    // a host that has no streams: as a handle, this value would be the process itself
    Gate streams(Refusal{"GetStdHandle", EVERY, -1, ERROR_SUCCESS});
    Gate console(Refusal{"GetConsoleMode", EVERY, FALSE, ERROR_INVALID_HANDLE});
    Gate own(
        "GetStartupInfoA", +[](STARTUPINFOA *record) { memset(record, 2, sizeof *record); });
    Gate creation("CreateProcessA", refuse);
    const std::tuple<int, int, const char *, std::string> cases[] = {
        {2, 0, "GetConsoleMode", " 2 2020202 202 === C:\\;"}, // nothing more
        {0, 3, "GetConsoleMode", " 1 100 0 *** C:\\;"},
        {0, 2, "GetConsoleMode", " 1 100 0 *** C:\\;"},
        {0, 3, "DuplicateHandle", " 0 2020202 202 === C:\\;"}};
    for (auto &[inherit, pipes, refused, expected] : cases) {
        Gate refusal(Refusal{refused, EVERY, FALSE, ERROR_NOT_ENOUGH_MEMORY});
        thr_process_set_inherit_handles(inherit);
        asked.str("");
        EXPECT_FALSE(Process().start("none", pipes, false));
        EXPECT_EQ(asked.str(), "9000004" + expected + "8000004" + expected) << "and no breakaway";
    }
    EXPECT_EQ(thr_process_get_stdin(), HANDLE(0x0202020202020202));
}

TEST(Process, RunsOrIsGoneAfterARefusal)
{
    // What a write to the child comes to where there is none, else what it ends with.
    const std::tuple<Refusal, int> cases[] = {{{"CreateProcessA", EVERY, FALSE, 5}, ERROR_NO_DATA},
                                              {{"ResumeThread", 1, -1, 5}, ERROR_NO_DATA},
                                              {{"SetInformationJobObject", 1, FALSE, 5}, 3},
                                              {{"AssignProcessToJobObject", 1, FALSE, 5}, 3}};
    thr_set_report_func([](auto...) {}); // what is refused is told
    for (auto &[refused, outcome] : cases) {
        Gate refusal(refused), words(Refusal{"perror", EVERY, 0, 0});
        Process process;
        const bool is_started = process.start("cmd /c exit 3", 3, false);
        EXPECT_EQ(words.calls(), !is_started) << refused.import;
        EXPECT_EQ(read_to_end(process.out) + read_to_end(process.err), "");
        EXPECT_EQ(is_started ? process.end() : thr_process_write(process.in, "", 1, 0), outcome);
    }
}

TEST(Process, IsWaitedForAndTerminated)
{
    HANDLE job = CreateJobObjectA(nullptr, nullptr);
    Gate gate("CreateJobObjectA", [=](const Call &) { return reinterpret_cast<intptr_t>(job); });
    Process process;
    process.handle = thr_process_create(role_command("streams").data(), "", &process.out,
                                        &process.out, &process.in, nullptr);
    EXPECT_TRUE(is_in_job(process.handle, job)) << "there was no place for its handle";
    Gate waits(Refusal{"WaitForSingleObject", EVERY, WAIT_FAILED, 0});
    Gate codes(Refusal{"GetExitCodeProcess", 3, FALSE, 0});
    EXPECT_EQ(thr_process_wait(process.handle, nullptr, 2), -1);
    EXPECT_EQ(thr_process_wait(process.handle, nullptr, 3), 0);
    EXPECT_EQ(thr_process_wait(process.handle, nullptr, 1), -1);
    HANDLE weak =
        OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, GetProcessId(process.handle));
    EXPECT_EQ(thr_process_terminate(weak, {0, 5}), ERROR_ACCESS_DENIED);
    EXPECT_EQ(thr_process_terminate(reinterpret_cast<uint64_t>(process.handle), 5), 0);
    process.handle = weak;
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
}

} // namespace
