// The named pipes of thr.dll, among processes and call by call.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include "thr/thr_classes.h"

#include <cstring>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

using Pipe = THR_NAMED_PIPE;

const std::map<std::string, bool (Pipe::*)()> ORDERS = {
    {"create", &Pipe::create},       {"create_r", &Pipe::create_r}, {"connect", &Pipe::connect},
    {"connect_r", &Pipe::connect_r}, {"open", &Pipe::open},         {"open_w", &Pipe::open_w},
    {"close", &Pipe::close},         {"remove", &Pipe::remove}};

// Obeys orders one after the other, and answers with each result, or the bytes that came. An order
// is a function; "error" asks for the last code, "write -" writes nothing, and "client" opens the
// other pipe.
std::string obey(Pipe &pipe, const std::string &orders, Pipe *client = nullptr)
{
    std::string answers, order, text;
    for (std::istringstream words(orders); words >> order; answers += " ") {
        if (order == "write") {
            words >> text;
            answers += std::to_string(pipe.write(text.data(), text == "-" ? 0 : text.size()));
        } else if (order == "read" || order == "peek") {
            size_t size = 0;
            words >> size;
            text.resize(size);
            const auto function = order == "read" ? &Pipe::read : &Pipe::peek;
            const int count = (pipe.*function)(text.data(), size);
            answers += count < 0 ? "-1" : "'" + text.substr(0, count) + "'";
        } else if (order == "error") {
            answers += std::to_string(pipe.get_error());
        } else {
            answers +=
                (order == "client" ? client->open() : (pipe.*ORDERS.at(order))()) ? "1" : "0";
        }
    }
    return answers.substr(0, answers.size() - 1);
}

ROLE(obeys)
{
    Pipe pipe("pipe");
    while (auto orders = support::hear())
        support::say(obey(pipe, *orders));
    return 0;
}

TEST(NamedPipe, CarriesMessagesBetweenProcesses)
{
    const char WAITS[] = "...";
    support::Child server("obeys"), client("obeys");
    const struct {
        support::Child &who;
        std::string orders, answers; // no orders: hears the answers to the last ones
    } steps[] = {{client, "open error", "0 2"},
                 {server, "create", "1"},
                 {server, "connect", WAITS},
                 {client, "open_w error open", "0 5 1"},
                 {server, "", "1"},
                 {server, "connect error read 1 error", "1 535 -1 5"},
                 // A client reads bytes: it sees no end of a message, and no empty one.
                 {server, "write 01234 write - write abcdef", "5 0 6"},
                 {client, "peek 3 read 5 read 5 read 5", "'012' '01234' 'abcde' 'f'"},
                 {server, "write last", "4"},
                 {server, "remove", WAITS},
                 {client, "read 2 read 9 read 9 close", "'la' 'st' -1 1"},
                 {server, "", "1"},
                 // A server reads message by message, and never waits.
                 {server, "create_r read 5 error connect connect_r", "1 -1 536 0 0"},
                 {client, "open_w", "1"},
                 {server, "connect_r connect read 5 error peek 5", "1 1 -1 232 ''"},
                 {client, "write 01234 write abcdef write - write x", "5 6 0 1"},
                 {server, "peek 3 read 5 error read 5 error", "'012' '01234' 232 'abcde' 234"},
                 {server, "read 5 read 5 read 5", "'f' '' 'x'"},
                 {client, "close", "1"},
                 {server, "read 5 error remove", "-1 109 1"}};
    for (const auto &[who, orders, answers] : steps) {
        if (!orders.empty())
            who.write_line(orders);
        const DWORD patience = answers == WAITS ? 50 : support::PATIENCE_MS;
        ASSERT_EQ(who.read_line(patience).value_or(WAITS), answers) << orders;
    }
}

// --- call by call -------------------------------------------------------------------------------

// The codes with which the system refuses spied calls in turn, 0 for none; and those calls: a word
// and the arguments, with "!" for a pointer or handle that is none.
std::istringstream refusals;
std::string calls;

template <auto *Function> struct Spy;
template <class Result, class... Args, Result (*Function)(Args...)> struct Spy<Function> {
    Spy(const char *name, const char *word) : m_patch(name, &call) { s_word = word; }
    static std::string shown(DWORD number) { return "," + std::to_string(number); }
    static std::string shown(const void *p) { return p && p != INVALID_HANDLE_VALUE ? "" : "!"; }
    static std::string shown(const char *path) { return strrchr(path, '\\') + 1; } // of a pipe
    static Result call(Args... args)
    {
        calls += (s_word + ... + shown(args)) + " ";
        DWORD code = 0;
        if (!(refusals >> code) || code == 0)
            return Function(args...);
        SetLastError(code);
        return Result(std::is_pointer_v<Result> ? -intptr_t(1) : 0);
    }
    inline static std::string s_word;
    support::ImportPatch m_patch;
};

TEST(NamedPipe, AsksForWhatItNeedsAndForgetsReleasedHandles)
{
    EXPECT_INTERNAL_ERROR(Pipe(nullptr), "name != 0", "thr_named_pipe");
    {
        auto refuse_without_code = +[](HANDLE, OVERLAPPED *) { return SetLastError(0), FALSE; };
        support::ImportPatch patch("ConnectNamedPipe", refuse_without_code);
        EXPECT_TRUE(Pipe("pipe").connect());
    }
    Spy<&CreateNamedPipeA> named("CreateNamedPipeA", "create:");
    Spy<&CreateFileA> open("CreateFileA", "open:");
    Spy<&WaitNamedPipeA> wait("WaitNamedPipeA", "wait:");
    Spy<&FlushFileBuffers> flush("FlushFileBuffers", "flush");
    Spy<&DisconnectNamedPipe> disconnect("DisconnectNamedPipe", "disconnect");
    Spy<&CloseHandle> close("CloseHandle", "close");
    auto create = [](const std::string &name) {
        return "create:" + name + ",524290,6,255,512,512,0! ";
    };
    const std::string made = create("pipe"), opened = "open:pipe,2147483648,0!,3,0! ",
                      waited = "wait:pipe,20000 ", removed = "flush disconnect close ",
                      not_removed = "flush! disconnect! ", longest(503, 'n');
    std::string all_refused, all_tried;
    for (int i = 0; i < 255; i++) {
        all_refused += "5 ";
        all_tried += create("vpipe" + std::to_string(i));
    }
    // Wine gives a name to a second server too, so that only what is asked for can be seen.
    const struct {
        std::string name, refused, orders, answers, calls; // until its end
    } cases[] = {
        {"", "123", "create error remove", "0 123 0", create("vpipe0") + not_removed + not_removed},
        {"", all_refused, "create error", "0 5", all_tried + not_removed},
        {"", "5 5", "create_r error", "1 5",
         create("vpipe0") + create("vpipe1") + create("vpipe2") + removed},
        {longest + "nn", "206", "create", "0", create(longest) + not_removed},
        {"in", "", "create_r remove error", "1 0 536",
         "create:in,524289,7,255,512,512,0! flush disconnect " + removed},
        {"pipe", "", "remove close connect error", "0 0 0 6", not_removed + "close! "},
        {"pipe", "", "create close remove close", "1 1 0 0",
         made + "close " + not_removed + "close! " + not_removed},
        {"pipe", "", "create client connect remove close", "1 1 1 1 0",
         made + opened + removed + "close! "},
        {"pipe", "0 0 5", "create client remove error", "1 1 1 5", made + opened + removed},
        {"pipe", "0 0 0 5", "create client remove error", "1 1 0 5",
         made + opened + "flush disconnect " + removed},
        {"pipe", "231 121", "open error", "0 231", opened + waited},
        {"pipe", "0 5", "create client", "1 0", made + opened + waited + removed},
        {"pipe", "0 231 0 231 0", "create client", "1 1",
         made + opened + waited + opened + waited + opened + removed}};
    for (const auto &[name, refused, orders, answers, expected] : cases) {
        Pipe client("pipe");
        auto pipe = std::make_unique<Pipe>(name.c_str());
        refusals = std::istringstream(refused), calls = "";
        EXPECT_EQ(obey(*pipe, orders, &client), answers);
        EXPECT_EQ(refused == "5 5" ? "vpipe2" : name, pipe->get_name() ? pipe->get_name() : "");
        pipe.reset();
        EXPECT_EQ(calls, expected);
        client.close();
    }
}

} // namespace
