// The named pipes of thr.dll, among processes and call by call.

#include "support/test.h"

#include <array>
#include <set>

namespace
{

using support::Call;
using support::Gate;
using Pipe = THR_NAMED_PIPE;

const std::pair<const char *, bool (Pipe::*)()> FUNCTIONS[] = {
    {"create", &Pipe::create},       {"create_r", &Pipe::create_r}, {"connect", &Pipe::connect},
    {"connect_r", &Pipe::connect_r}, {"open", &Pipe::open},         {"open_w", &Pipe::open_w},
    {"close", &Pipe::close},         {"remove", &Pipe::remove}};

// Obeys with a pipe, which reads 5 bytes, peeks at 3, and writes the next word; "-" is no byte.
std::string obey(Pipe &pipe, const std::string &line)
{
    auto text_of = [](int count, const char *text) {
        return count < 0 ? "-1" : "'" + std::string(text, count) + "'";
    };
    char bytes[8];
    support::Orders orders = {
        {"read", [&](auto &) { return text_of(pipe.read(bytes, 5), bytes); }},
        {"peek", [&](auto &) { return text_of(pipe.peek(bytes, 3), bytes); }},
        {"write",
         [&](auto &words) {
             words >> bytes;
             return pipe.write(bytes, *bytes == '-' ? 0 : strlen(bytes));
         }},
        {"error", [&](auto &) { return pipe.get_error(); }},
        {"name", [&](auto &) { return std::string(pipe.get_name() ? pipe.get_name() : "-"); }}};
    for (const auto &[name, function] : FUNCTIONS)
        orders[name] = [&, f = function](auto &) { return (pipe.*f)(); };
    return support::obey(orders, line);
}

ROLE(obeys)
{
    Pipe pipe("pipe");
    while (auto line = support::hear())
        support::say(obey(pipe, *line));
    return 0;
}

TEST(NamedPipe, CarriesMessagesBetweenProcesses)
{
    support::Scene scene([](const std::string &) { return new support::Child("obeys"); });
    scene.play("client open error = 0 2; server create = 1; server connect;"
               "client open_w error open = 0 5 1; server = 1;"
               "server connect error read error write 01234 = 1 535 -1 5 5;"
               "client peek read = '012' '01234'; server write abcdef remove;"
               "client read read read close = 'abcde' 'f' -1 1; server = 6 1;"
               // A server reads message by message, and never waits.
               "server create_r read error connect connect_r = 1 -1 536 0 0;"
               "client open_w write 01234 write abcdef write - = 1 5 6 0;"
               "server connect_r connect peek read error = 1 1 '012' '01234' 535;"
               "server read error read read read error peek = 'abcde' 234 'f' '' -1 232 '';"
               "client close = 1; server read error remove = -1 109 1");
}

// --- call by call -------------------------------------------------------------------------------

// The outcomes of the spied calls in turn: "+" for a result that is pretended, a code for a
// refusal, else the system's. And those calls, with "!" for a pointer or handle that is none: each
// as a letter with its first argument, and the manners in which they were made.
std::istringstream outcomes;
std::string calls;
std::set<std::string> manners;

struct Argument {
    static std::string shown(DWORD number) { return "," + std::to_string(number); }
    static std::string shown(const void *p) { return p && p != INVALID_HANDLE_VALUE ? "" : "!"; }
    static std::string shown(const char *path) { return strrchr(path, '\\') + 1; } // of a pipe
};

template <char LETTER, auto FUNCTION, class Result, class First, class... Rest>
Gate spy(const char *name, Result (*)(First, Rest...))
{
    auto *call = +[](First first, Rest... rest) {
        calls += LETTER + Argument::shown(first) + " ";
        manners.insert((std::string(1, LETTER) + ... + Argument::shown(rest)));
        std::string outcome = "-";
        outcomes >> outcome;
        if (outcome == "-")
            return FUNCTION(first, rest...);
        if (outcome == "+")
            return Result(intptr_t(1));
        SetLastError(std::stoi(outcome));
        return Result(std::is_pointer_v<Result> ? -intptr_t(1) : 0);
    };
    return {name, call};
}

#define SPY(letter, function) spy<letter, function>(#function, function)

TEST(NamedPipe, AsksForWhatItNeedsAndForgetsReleasedHandles)
{
    EXPECT_INTERNAL_ERROR(Pipe(nullptr), "name != 0", "thr_named_pipe");
    int blocks = 0; // of memory that the library has
    Gate take("malloc", [&](const Call &call) { return ++blocks, call.go_on(); });
    Gate give("free", [&](const Call &call) { return blocks -= !!call.args[0], call.go_on(); });
    Gate patches[] = {SPY('m', CreateNamedPipeA), SPY('o', CreateFileA),
                      SPY('w', WaitNamedPipeA),   SPY('c', ConnectNamedPipe),
                      SPY('f', FlushFileBuffers), SPY('d', DisconnectNamedPipe),
                      SPY('x', CloseHandle)};
    const std::string longest(503, 'n');
    std::string all_refused, all_tried;
    for (int i = 0; i < 255; i++) {
        all_refused += "5 ";
        all_tried += "mvpipe" + std::to_string(i) + " ";
    }
    // The name, the outcomes, the orders, the answers, and the calls until the pipe's end. Wine
    // gives a name to a second server too, so that only what is asked for can be seen.
    const std::array<std::string, 5> cases[] = {
        {"", "", "open error write x error open_w peek error", "0 2 -1 6 0 -1 6", ""},
        {"", "", "open connect error open remove error name", "0 0 6 0 0 6 -", "c! f! d! "},
        {"", "123", "create error remove", "0 123 0", "mvpipe0 f! d! f! d! "},
        {"", all_refused, "create error name", "0 5 -", all_tried + "f! d! "},
        {"", "5 5", "create_r error name close create name", "1 5 vpipe2 1 1 vpipe0",
         "mvpipe0 mvpipe1 mvpipe2 x mvpipe0 f d x "},
        {longest + "nn", "206", "create_r", "0", "m" + longest + " f! d! "},
        {"N", "", "create_r remove error", "1 0 536", "mN f d f d x "},
        {"N", "- 0", "create connect", "1 1", "mN c f d x "},
        {"N", "", "create close remove close", "1 1 0 0", "mN x f! d! x! f! d! "},
        {"N", "- 5 +", "create remove error remove close", "1 1 5 0 0", "mN f d x f! d! x! "},
        {"N", "- + 5", "create remove error", "1 0 5", "mN f d f d x "},
        {"N", "+ + + 5", "create remove error", "1 1 5", "mN f d x "},
        {"N", "231 121", "open error", "0 231", "oN wN "},
        {"N", "5 +", "open_w", "0", "oN wN "},
        {"N", "231 + 0 + +", "open", "1", "oN wN oN wN oN "}};
    for (const auto &[name, script, orders, answers, expected] : cases) {
        auto pipe = std::make_unique<Pipe>(name.c_str());
        outcomes = std::istringstream(script), calls = "";
        EXPECT_EQ(obey(*pipe, orders), answers);
        pipe.reset();
        EXPECT_EQ(calls, expected);
    }
    EXPECT_EQ(blocks, 0);
    EXPECT_EQ(manners, (std::set<std::string>{"c!", "d", "f", "m,524289,7,255,512,512,0!",
                                              "m,524290,6,255,512,512,0!", "o,1073741824,0!,3,0!",
                                              "o,2147483648,0!,3,0!", "w,20000", "x"}));
}

} // namespace
