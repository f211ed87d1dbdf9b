// The named pipes of thr.dll, among processes and threads.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include "thr/thr_classes.h"

#include <future>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

using Pipe = THR_NAMED_PIPE;
using support::RefusedMalloc;
const char NAME[] = "pipe", PATH[] = "\\\\.\\pipe\\";
const auto MOMENT = std::chrono::milliseconds(50);
const std::map<std::string, bool (Pipe::*)()> ORDERS = {
    {"create", &Pipe::create},       {"create_r", &Pipe::create_r}, {"connect", &Pipe::connect},
    {"connect_r", &Pipe::connect_r}, {"open", &Pipe::open},         {"open_w", &Pipe::open_w},
    {"close", &Pipe::close},         {"remove", &Pipe::remove}};

// Obeys orders one after the other, and answers with each result, or the bytes that came; "error"
// asks for the last code, "client" opens the other pipe, and "write -" writes nothing.
std::string obey(Pipe &pipe, const std::string &orders, Pipe *client = nullptr)
{
    std::string answers, order, text;
    for (std::istringstream words(orders); words >> order;) {
        int result = pipe.get_error();
        size_t size = 0;
        if (ORDERS.count(order))
            result = (pipe.*ORDERS.at(order))();
        else if (order == "client")
            result = client->open();
        else if (order == "write" && words >> text)
            result = pipe.write(text.data(), text == "-" ? 0 : text.size());
        else if (order != "error" && words >> size && (text.resize(size), true))
            result = order == "read" ? pipe.read(&text[0], size) : pipe.peek(&text[0], size);
        const bool has_bytes = size > 0 && result >= 0;
        answers += has_bytes ? "'" + text.substr(0, result) + "' " : std::to_string(result) + " ";
    }
    return answers;
}

ROLE(obeys)
{
    Pipe pipe(args[0].c_str());
    while (auto orders = support::hear())
        support::say(obey(pipe, *orders));
    return 0;
}

// Plays a scene of steps "X orders = answers;", where X is the server S, or C, a client in another
// process or thread. The answers are "..." while it waits; a step without orders hears the rest.
void play(const std::string &scene, bool has_process)
{
    Pipe server(NAME), client(NAME);
    support::Child child("obeys", {NAME});
    std::map<std::string, std::future<std::string>> actors;
    std::string name, orders, answers;
    for (std::istringstream steps(scene); steps >> name;) {
        std::getline(std::getline(steps, orders, '=') >> std::ws, answers, ';');
        auto act = [&, name, orders] {
            if (name == "S" || !has_process)
                return obey(name == "S" ? server : client, orders);
            child.write_line(orders);
            return child.read_line().value_or("gone");
        };
        auto &actor = actors[name];
        if (orders != " ")
            actor = std::async(std::launch::async, act);
        const auto limit = answers == "..." ? MOMENT : 1200 * MOMENT;
        const bool waits = actor.wait_for(limit) != std::future_status::ready;
        EXPECT_EQ(waits ? "... " : actor.get(), answers + " ") << name << orders;
        if (waits && answers != "...")
            exit(1); // a thread that hangs can't be ended
    }
}

TEST(NamedPipe, CarriesMessagesBetweenProcessesAndThreads)
{
    for (bool has_process : {false, true})
        play(
            "C open error = 0 2; S create = 1; S connect = ...; C open_w error open = 0 5 1; S = 1;"
            "S connect error read 1 error = 1 535 -1 5;"
            // A client reads bytes: it sees no end of a message, and no empty one.
            "S write 01234 write - write abcdef = 5 0 6;"
            "C peek 3 read 5 read 5 read 5 = '012' '01234' 'abcde' 'f'; S write last = 4;"
            "S remove = ...; C read 2 read 9 read 9 close = 'la' 'st' -1 1; S = 1;"
            // A server reads message by message, and never waits.
            "S create_r read 5 error connect connect_r = 1 -1 536 0 0; C open_w = 1;"
            "S connect_r connect read 5 error peek 5 = 1 1 -1 232 '';"
            "C write 01234 write abcdef write - write x = 5 6 0 1;"
            "S peek 3 read 5 error read 5 error = '012' '01234' 232 'abcde' 234;"
            "S read 5 read 5 read 5 = 'f' '' 'x'; C close = 1; S read 5 error remove = -1 109 1;",
            has_process);
}

// The codes with which the system refuses spied calls in turn, 0 for none; and those calls: a letter
// and the arguments, with "!" for a pointer or handle that is none.
std::istringstream codes;
std::string calls;
template <auto *Function> struct Spy;
template <class Result, class... Args, Result (*Function)(Args...)> struct Spy<Function> {
    Spy(const char *name, char letter) : m_patch(name, &call) { s_letter = letter; }
    static std::string shown(const char *text) { return text + 9 * (text == strstr(text, PATH)); }
    static std::string shown(DWORD number) { return "," + std::to_string(number); }
    static std::string shown(const void *p) { return p && p != INVALID_HANDLE_VALUE ? "" : "!"; }
    static Result call(Args... args)
    {
        calls += (std::string(1, s_letter) + ... + shown(args));
        DWORD code = 0;
        if (!(codes >> code) || code == 0)
            return Function(args...);
        SetLastError(code);
        return Result(std::is_pointer_v<Result> ? -intptr_t(1) : 0);
    }
    inline static char s_letter;
    support::ImportPatch m_patch;
};

TEST(NamedPipe, AsksForWhatItNeedsAndForgetsReleasedHandles)
{
    EXPECT_INTERNAL_ERROR(Pipe(nullptr), "name != 0", "thr_named_pipe");
    EXPECT_INTERNAL_ERROR((new RefusedMalloc, Pipe("name")), "m_name", "thr_named_pipe");
    EXPECT_INTERNAL_ERROR((new RefusedMalloc, Pipe().create()), "m_name", "thr_named_pipe");
    Spy<&CreateNamedPipeA> named("CreateNamedPipeA", 'N');
    Spy<&CreateFileA> open("CreateFileA", 'O');
    Spy<&WaitNamedPipeA> wait("WaitNamedPipeA", 'W');
    Spy<&FlushFileBuffers> flush("FlushFileBuffers", 'F');
    Spy<&DisconnectNamedPipe> disconnect("DisconnectNamedPipe", 'D');
    Spy<&CloseHandle> close("CloseHandle", 'C');
    const std::string n = ",524290,6,255,512,512,0!", s = "Npipe" + n,
                      o = "Opipe,2147483648,0!,3,0!", w = "Wpipe,20000", longest(503, 'n');
    std::string all, tried;
    for (int i = 0; i < 255; i++)
        all += "5 ", tried += "Nvpipe" + std::to_string(i) + n;
    // A pipe's name, the refusals it meets, its orders, its answers, the calls until its end. Wine
    // gives a name to a second server too, so that only what is asked for can be seen.
    const std::string cases[][5] = {
        {"", "123", "create error remove", "0 123 0 ", "Nvpipe0" + n + "F!D!F!D!"},
        {"", all, "create error", "0 5 ", tried + "F!D!"},
        {"", "5 5", "create_r error", "1 5 ", tried.substr(0, 3 * (7 + n.size())) + "FDC"},
        {longest + "nn", "206", "create", "0 ", "N" + longest + n + "F!D!"},
        {"in", "", "create_r remove error", "1 0 536 ", "Nin,524289,7,255,512,512,0!FDFDC"},
        {NAME, "", "remove close connect error", "0 0 0 6 ", "F!D!C!"},
        {NAME, "", "create close remove close", "1 1 0 0 ", s + "CF!D!C!F!D!"},
        {NAME, "", "create client connect remove close", "1 1 1 1 0 ", s + o + "FDCC!"},
        {NAME, "0 0 5", "create client remove error", "1 1 1 5 ", s + o + "FDC"},
        {NAME, "0 0 0 5", "create client remove error", "1 1 0 5 ", s + o + "FDFDC"},
        {NAME, "231 121", "open error", "0 231 ", o + w},
        {NAME, "2", "open error", "0 2 ", o + w},
        {NAME, "0 231 0 231 0", "create client", "1 1 ", s + o + w + o + w + o + "FDC"}};
    for (const auto &[name, refusals, orders, answers, expected] : cases) {
        Pipe client(NAME);
        auto pipe = std::make_unique<Pipe>(name.c_str());
        codes = std::istringstream(refusals), calls = "";
        EXPECT_EQ(obey(*pipe, orders, &client), answers);
        EXPECT_EQ(refusals == "5 5" ? "vpipe2" : name, pipe->get_name() ? pipe->get_name() : "");
        pipe.reset();
        EXPECT_EQ(calls, expected);
        client.close();
    }
}

} // namespace
