// The exception, its conditions and messages, as a host of thr.dll meets them.

#include "support/test.h"

#include <cstdio>
#include <list>

namespace
{

using namespace support;
using Message = VELKORA_ERROR_MESSAGE;

// Each line's level, text, second text and id.
std::string lines_of(const Message &message)
{
    std::ostringstream text;
    for (size_t i = 0; i < message.size(); ++i)
        text << message[i].m_level << message[i].m_text << "|" << message[i].m_aux_text << "|"
             << message[i].m_id << ";";
    return text.str();
}

// A condition of the host's own that counts how many of it live, and can refuse to be copied.
struct Counted : THR_ERRC {
    explicit Counted(bool can_clone = true) : m_can_clone(can_clone) { s_alive++; }
    Counted(const Counted &) : Counted() {}
    ~Counted() override { s_alive--; }
    std::unique_ptr<VELKORA_ERRC> clone() const override
    {
        return m_can_clone ? std::make_unique<Counted>(*this) : nullptr;
    }
    Message get_error_message() const override { return {"counted", 7, {}}; }

    const bool m_can_clone;
    inline static int s_alive = 0;
};

TEST(Exception, MessagesNestInTheOrderTheyAreGiven)
{
    const THR::ERRC::FAILED_TO_CREATE_IP_MUTEX_ERRC errc("a \"b\" %s\n");
    const Message m2("M2", 2, {errc.clone()->get_error_message()});
    Message copy("M3", 3, {});
    copy = Message("M1", 1, {m2, copy});
    EXPECT_EQ(lines_of(copy), "0M1||1;1M2||2;2Failed to create file lock on \"a \"b\" %s\n\"||-1;"
                              "1M3||3;");
}

TEST(Exception, MessagesReleaseTheirLines)
{
    std::list<Gate> releases;
    for (const Import &import : imports_of(thr_module())) {
        if (import.function.find("_ZdlPv") == 0)
            releases.emplace_back(import.function);
    }
    Gate blocks("_Znwy");
    {
        const Message message("M1", 1, {Message("M2", 2, {})});
        Message copy = message;
        copy = message;
    }
    LONG released = 0;
    for (const Gate &gate : releases)
        released += gate.calls();
    EXPECT_TRUE(released > 0 && released == blocks.calls());
}

TEST(Exception, EveryCopyOwnsItsCondition)
{
    auto first = std::make_unique<VELKORA_EXCEPTION>(std::in_place_type<Counted>);
    {
        VELKORA_EXCEPTION copy = *first;
        EXPECT_EQ(Counted::s_alive, 2);
        first.reset();
        EXPECT_EQ(Counted::s_alive, 1);
        EXPECT_EQ(lines_of(copy.get_errc().get_error_message()), "0counted||7;");
    }
    EXPECT_EQ(Counted::s_alive, 0);
}

TEST(Exception, WithoutConditionEndsTheProcess)
{
    thr_set_report_func([](auto...) { fputs("reported", stderr); }); // never called
    const auto ended = testing::ExitedWithCode(-1);
    EXPECT_EXIT(VELKORA_EXCEPTION(std::unique_ptr<VELKORA_ERRC>()), ended, "^error\n$");
    VELKORA_EXCEPTION unclonable(std::in_place_type<Counted>, false);
    EXPECT_EXIT(VELKORA_EXCEPTION copy(unclonable), ended, "^error\n$");
    thr_set_report_func(nullptr);
}

} // namespace
