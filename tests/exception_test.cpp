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

// A condition of the host's own; what it shares tells how many of it live. It can be copied only
// with that.
struct Counted : THR_ERRC {
    explicit Counted(std::shared_ptr<int> count) : m_count(count) {}
    std::unique_ptr<VELKORA_ERRC> clone() const override
    {
        return m_count ? std::make_unique<Counted>(m_count) : nullptr;
    }
    Message get_error_message() const override { return {"counted", 7, {}}; }

    const std::shared_ptr<int> m_count;
};

TEST(Exception, AndItsMessagesAreCopiedWholeAndReleased)
{
    const HMODULE runtime = GetModuleHandleA("libstdc++-6.dll");
    Gate blocks("malloc", &Call::go_on, runtime), releases("free", &Call::go_on, runtime);
    const LONG before = blocks.calls() - releases.calls();
    {
        const THR::ERRC::FAILED_TO_CREATE_IP_MUTEX_ERRC errc("a \"b\" %s\n");
        const Message m2("M2", 2, {errc.clone()->get_error_message()});
        Message copy = m2;
        copy = Message("M1", 1, {m2, Message("M3", 3, {})});
        EXPECT_EQ(lines_of(copy),
                  "0M1||1;1M2||2;2Failed to create file lock on \"a \"b\" %s\n\"||-1;1M3||3;");
        auto count = std::make_shared<int>();
        auto first = std::make_unique<VELKORA_EXCEPTION>(std::in_place_type<Counted>, count);
        VELKORA_EXCEPTION second = *first;
        EXPECT_EQ(count.use_count(), 3);
        first.reset();
        EXPECT_EQ(lines_of(second.get_errc().get_error_message()), "0counted||7;");
    }
    EXPECT_EQ(blocks.calls() - releases.calls(), before);
}

TEST(ExceptionDeathTest, WithoutConditionAndALineThatIsNotThereEndTheProcess)
{
    const auto ended = testing::ExitedWithCode(-1);
    EXPECT_EXIT(VELKORA_EXCEPTION(std::unique_ptr<VELKORA_ERRC>()), ended, "^error\n$");
    VELKORA_EXCEPTION unclonable(std::in_place_type<Counted>, nullptr);
    EXPECT_EXIT(VELKORA_EXCEPTION copy(unclonable), ended, "^error\n$");
    EXPECT_EXIT((void)Message("one line", 1, {})[1], ended, "^this->.+\n$");
}

} // namespace
