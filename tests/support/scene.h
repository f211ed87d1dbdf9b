// Scenes of several processes or threads, as a table of who is ordered what, and the answers.
#ifndef THR_TESTS_SCENE_H
#define THR_TESTS_SCENE_H

#include "support/child.h"

#include <functional>
#include <istream>
#include <map>
#include <string>

namespace support
{

// What an order gave: a number, or a text.
struct Answer : std::string {
    Answer(int number) : std::string(std::to_string(number)) {}
    Answer(const std::string &text) : std::string(text) {}
};

// What can be ordered. An order may take words that follow it.
using Orders = std::map<std::string, std::function<Answer(std::istream &words)>>;

// Obeys the orders of a line one after the other, and returns their answers.
std::string obey(const Orders &orders, const std::string &line);

// Obeys a line of orders at a time, and may say in between that it waits.
struct Actor {
    std::function<void(const std::string &line)> tell;
    std::function<std::string()> answer;
};

// A process in a role. The order "kill" ends it; one that has ended answers "ended STATUS".
Actor new_process(const std::string &role, const RoleArgs &args = {});

// A thread, which is there until the process ends: one that waits for good holds up nobody.
Actor new_thread(const Orders &orders);

// Says a line as such a thread, and as no other one.
void say_as_thread(const std::string &line);

class Scene
{
public:
    explicit Scene(std::function<Actor(const std::string &who)> new_actor) : m_new(new_actor) {}

    // Plays steps, "WHO ORDERS = ANSWERS;", one after the other. Without orders it is the next
    // answer to those before; without "=" the answers come later. Throws at another answer.
    void play(const std::string &steps);

private:
    std::function<Actor(const std::string &who)> m_new;
    std::map<std::string, Actor> m_actors;
};

} // namespace support

#endif
