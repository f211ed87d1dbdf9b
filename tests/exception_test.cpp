// The exception, its conditions and messages, as a host of thr.dll meets them.
#include "support/test.h"

using namespace support;

namespace
{

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

// A condition of a host's own that can't be copied.
struct Unique : THR_ERRC {
    std::unique_ptr<VELKORA_ERRC> clone() const override { return nullptr; }
    Message get_error_message() const override { return {"unique", 7, {}}; }
};

TEST(Exception, AndItsMessagesAreCopiedWholeAndReleased)
{
    const HMODULE runtime = GetModuleHandleA("libstdc++-6.dll");
    Gate blocks("malloc", &Call::go_on, runtime), releases("free", &Call::go_on, runtime);
    const LONG before = blocks.calls() - releases.calls();
    {
        using Failed = THR::ERRC::FAILED_TO_CREATE_IP_MUTEX_ERRC;
        auto first = std::make_unique<VELKORA_EXCEPTION>(std::in_place_type<Failed>, "a\n\"b\" %s");
        const VELKORA_EXCEPTION second = *first;
        first.reset();
        const Message m2("M2", 2, {second.get_errc().get_error_message()});
        Message copy = m2;
        copy = Message("M1", 1, {m2, Message("M3", 3, {})});
        EXPECT_EQ(lines_of(copy),
                  "0M1||1;1M2||2;2Failed to create file lock on \"a\n\"b\" %s\"||-1;1M3||3;");
    }
    EXPECT_EQ(blocks.calls() - releases.calls(), before);
}

TEST(ExceptionDeathTest, WithoutConditionAndALineThatIsNotThereEndTheProcess)
{
    const auto ended = testing::ExitedWithCode(-1);
    EXPECT_EXIT(VELKORA_EXCEPTION(std::unique_ptr<VELKORA_ERRC>()), ended, "^error\n$");
    const VELKORA_EXCEPTION unique{std::in_place_type<Unique>};
    EXPECT_EXIT(VELKORA_EXCEPTION copy(unique), ended, "^error\n$");
    EXPECT_EXIT((void)Message("one line", 1, {})[1], ended, "^this->.+\n$");
}

} // namespace
