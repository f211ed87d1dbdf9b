// The exception, its conditions and messages, as a host of thr.dll meets them.
#include "support/recorders.h"

#include "thr/thr_classes.h"

#include <tuple>

#include <gtest/gtest.h>

namespace
{

using Errc = THR::ERRC::FAILED_TO_CREATE_IP_MUTEX_ERRC;
using Line = std::tuple<std::string, std::string, int, int>; // text, second text, id, level

std::vector<Line> lines_of(const VELKORA_ERROR_MESSAGE &message)
{
    std::vector<Line> lines;
    for (const VELKORA_ERROR_MESSAGE::LINE &line : message)
        lines.emplace_back(line.m_text, line.m_aux_text, line.m_id, line.m_level);
    return lines;
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
    VELKORA_ERROR_MESSAGE get_error_message() const override { return {"counted", 7, {}}; }

    const bool m_can_clone;
    inline static int s_alive = 0;
};

TEST(Exception, ConditionSaysWhichFileFailed)
{
    const Errc errc("a \"b\" %s\n");
    const std::vector<Line> lines = {{"Failed to create file lock on \"a \"b\" %s\n\"", "", -1, 0}};
    EXPECT_EQ(lines_of(errc.get_error_message()), lines);
    EXPECT_EQ(lines_of(errc.clone()->get_error_message()), lines);
}

TEST(Exception, MessagesNestInTheOrderTheyAreGiven)
{
    VELKORA_ERROR_MESSAGE m2("M2", 2, {VELKORA_ERROR_MESSAGE("M3", 3, {})});
    VELKORA_ERROR_MESSAGE copy("M4", 4, {});
    copy = VELKORA_ERROR_MESSAGE("M1", 1, {m2, copy});
    EXPECT_EQ(lines_of(copy),
              (std::vector<Line>{
                  {"M1", "", 1, 0}, {"M2", "", 2, 1}, {"M3", "", 3, 2}, {"M4", "", 4, 1}}));
    EXPECT_EQ(lines_of(m2), (std::vector<Line>{{"M2", "", 2, 0}, {"M3", "", 3, 1}}));
}

TEST(Exception, EveryCopyOwnsItsCondition)
{
    auto first = std::make_unique<VELKORA_EXCEPTION>(std::in_place_type<Counted>);
    {
        VELKORA_EXCEPTION copy = *first;
        EXPECT_EQ(Counted::s_alive, 2);
        first.reset();
        EXPECT_EQ(Counted::s_alive, 1);
        EXPECT_EQ(lines_of(copy.get_errc().get_error_message()),
                  (std::vector<Line>{{"counted", "", 7, 0}}));
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
