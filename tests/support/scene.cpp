#include "support/test.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <queue>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace support
{

namespace
{

// Lines from one thread to another.
struct Lines {
    std::mutex mutex;
    std::condition_variable more;
    std::queue<std::string> lines;

    void put(const std::string &line)
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push(line);
        more.notify_one();
    }
    std::string take(std::chrono::milliseconds patience)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!more.wait_for(lock, patience, [&] { return !lines.empty(); }))
            return "nothing";
        std::string line = lines.front();
        lines.pop();
        return line;
    }
};

thread_local Lines *answers_of_thread;

} // namespace

std::string obey(const Orders &orders, const std::string &line)
{
    std::istringstream words(line);
    std::string answers;
    for (std::string order; words >> order;)
        answers += (answers.empty() ? "" : " ") + orders.at(order)(words);
    return answers;
}

Actor new_process(const std::string &role, const RoleArgs &args)
{
    auto child = std::make_shared<Child>(role, args);
    auto tell = [child](const std::string &line) {
        line == "kill" ? child->kill() : static_cast<void>(child->write_line(line));
    };
    auto answer = [child] {
        const std::optional<std::string> line = child->read_line();
        return line ? *line : "ended " + std::to_string(child->wait(5000).value_or(STILL_ACTIVE));
    };
    return {tell, answer};
}

Actor new_thread(const Orders &orders)
{
    auto told = std::make_shared<Lines>(), answers = std::make_shared<Lines>();
    std::thread([=] {
        answers_of_thread = answers.get();
        for (;;)
            answers->put(obey(orders, told->take(std::chrono::hours(1))));
    }).detach();
    auto tell = [told](const std::string &line) { told->put(line); };
    return {tell, [answers] { return answers->take(std::chrono::milliseconds(PATIENCE_MS)); }};
}

void say_as_thread(const std::string &line)
{
    if (answers_of_thread)
        answers_of_thread->put(line);
}

void Scene::play(const std::string &steps)
{
    std::istringstream all(steps);
    for (std::string step, who, orders; std::getline(all >> std::ws, step, ';');) {
        const size_t equals = step.find(" = ");
        const std::string expected = equals == step.npos ? "" : step.substr(equals + 3);
        std::istringstream words(step.substr(0, equals));
        words >> who >> std::ws;
        if (!m_actors.count(who))
            m_actors[who] = m_new(who);
        if (std::getline(words, orders))
            m_actors[who].tell(orders);
        const std::string answer = expected.empty() ? "" : m_actors[who].answer();
        if (answer != expected)
            throw std::runtime_error(step + ", not: " + answer);
    }
}

} // namespace support
