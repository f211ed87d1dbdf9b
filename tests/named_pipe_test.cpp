// The named pipes of thr.dll, among processes and call by call.
#include "support/test.h"

#include <set>

using namespace support;
using Pipe = THR_NAMED_PIPE;

namespace
{

std::unique_ptr<Pipe> pipe;
char bytes[8];

std::string text(int count)
{
    return count < 0 ? "-1" : "'" + std::string(bytes, count) + "'";
}

const Orders ORDERS = {
    {"create", [](auto &) { return pipe->create(); }},
    {"create_r", [](auto &) { return pipe->create_r(); }},
    {"connect", [](auto &) { return pipe->connect(); }},
    {"connect_r", [](auto &) { return pipe->connect_r(); }},
    {"open", [](auto &) { return pipe->open(); }},
    {"open_w", [](auto &) { return pipe->open_w(); }},
    {"close", [](auto &) { return pipe->close(); }},
    {"remove", [](auto &) { return pipe->remove(); }},
    {"error", [](auto &) { return pipe->get_error(); }},
    {"name", [](auto &) { return std::string(pipe->get_name() ? pipe->get_name() : "-"); }},
    {"read", [](auto &) { return text(pipe->read(bytes, 5)); }},
    {"peek", [](auto &) { return text(pipe->peek(bytes, 3)); }},
    {"write", [](auto &word) { // "-" is no byte
         return pipe->write(bytes, word >> bytes && *bytes == '-' ? 0 : strlen(bytes));
     }}};

ROLE(obeys)
{
    pipe = std::make_unique<Pipe>("pipe");
    while (auto line = hear())
        say(obey(ORDERS, *line));
    return 0;
}

TEST(NamedPipe, CarriesMessagesBetweenProcesses)
{
    Scene scene([](const std::string &) { return new Child("obeys"); });
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

// The calls of a pipe, each as a letter with the pipe's name, or "!" for a handle that is none; and
// the other arguments of those that take the name.
const std::tuple<char, const char *, int> SPIED[] = {
    {'m', "CreateNamedPipeA", 8}, {'o', "CreateFileA", 7},      {'w', "WaitNamedPipeA", 2},
    {'c', "ConnectNamedPipe", 0}, {'f', "FlushFileBuffers", 0}, {'d', "DisconnectNamedPipe", 0},
    {'p', "PeekNamedPipe", 0},    {'x', "CloseHandle", 0}};
std::string calls;
std::set<std::string> manners;

// Their outcomes in turn: "+" for a result that is pretended, a code for a refusal, else the
// system's.
std::istringstream outcomes;

intptr_t spy(char letter, int arguments, const Call &call)
{
    const char *none = call.args[0] && call.args[0] != -1 ? "" : "!";
    calls += letter + std::string(arguments ? strrchr(call.arg<char *>(0), '\\') + 1 : none) + " ";
    std::string manner(1, letter), outcome = "-";
    for (int i = 1; i < arguments; i++)
        manner += "," + std::to_string(call.arg<DWORD>(i));
    if (arguments)
        manners.insert(manner);
    outcomes >> outcome;
    if (outcome == "-")
        return call.go_on();
    SetLastError(atoi(outcome.c_str()));
    return outcome == "+" ? 1 : strchr("mo", letter) ? -1 : 0;
}

TEST(NamedPipe, AsksForWhatItNeedsAndForgetsReleasedHandles)
{
    std::map<char, Gate> gates;
    for (const auto &[letter, function, arguments] : SPIED)
        gates.try_emplace(letter, function, [l = letter, n = arguments](const Call &call) {
            return spy(l, n, call);
        });
    const std::string longest(503, 'n');
    // The name, the outcomes, the orders, the answers, and the calls until the pipe's end. Wine
    // gives a name to a second server too, so that only what is asked for can be seen.
    const std::string cases[][5] = {
        {"", "", "open error write x error open_w connect error open remove error name",
         "0 2 -1 6 0 0 6 0 0 6 -", "c! f! d! "},
        {"", "123", "create error remove", "0 123 0", "mvpipe0 f! d! f! d! "},
        {"", "5 5", "create_r error name close create name", "1 5 vpipe2 1 1 vpipe0",
         "mvpipe0 mvpipe1 mvpipe2 x mvpipe0 f d x "},
        {longest + "nn", "206", "create_r", "0", "m" + longest + " f! d! "},
        {"N", "", "create_r remove error", "1 0 536", "mN f d f d x "},
        {"N", "- 0", "create connect", "1 1", "mN c f d x "},
        {"N", "", "create close remove close", "1 1 0 0", "mN x f! d! x! f! d! "},
        {"N", "- 5 +", "create remove error remove close", "1 1 5 0 0", "mN f d x f! d! x! "},
        {"N", "- + 5", "create remove error", "1 0 5", "mN f d f d x "},
        {"N", "+ + + 5", "create remove error", "1 1 5", "mN f d x "},
        {"N", "- 234", "create_r peek error", "1 '' 234", "mN p f d x "}, // a part
        {"N", "231 121", "open error", "0 231", "oN wN "},
        {"N", "5 +", "open_w", "0", "oN wN "},
        {"N", "231 + 0 + +", "open", "1", "oN wN oN wN oN "}};
    for (const auto &[name, script, orders, answers, expected] : cases) {
        pipe = std::make_unique<Pipe>(name.c_str());
        outcomes = std::istringstream(script), calls = "";
        EXPECT_EQ(obey(ORDERS, orders), answers);
        pipe.reset();
        EXPECT_EQ(calls, expected);
    }
    EXPECT_EQ(manners, (std::set<std::string>{
                           "m,524289,7,255,512,512,0,0", "m,524290,6,255,512,512,0,0",
                           "o,1073741824,0,0,3,0,0", "o,2147483648,0,0,3,0,0", "w,20000"}));
    Gate refused(Refusal{"CreateNamedPipeA", EVERY, -1, ERROR_ACCESS_DENIED});
    EXPECT_FALSE(Pipe("").create());
    EXPECT_EQ(refused.calls(), 255);
}

} // namespace
