#include "thr/thr_exception.h"

#include <cstdio>
#include <cstdlib>
#include <new>

#include <boost/assert.hpp>
#include <boost/container/small_vector.hpp>

// --- message ------------------------------------------------------------------------------------

struct VELKORA_ERROR_MESSAGE::LINE_LIST {
    boost::container::small_vector<LINE, 1> m_lines;
};

VELKORA_ERROR_MESSAGE::LINE_LIST &VELKORA_ERROR_MESSAGE::lines()
{
    static_assert(sizeof(LINE_LIST) <= sizeof m_lines && alignof(LINE_LIST) <= alignof(LINE),
                  "the header keeps room for the lines");
    return *std::launder(reinterpret_cast<LINE_LIST *>(m_lines));
}

const VELKORA_ERROR_MESSAGE::LINE_LIST &VELKORA_ERROR_MESSAGE::lines() const
{
    return const_cast<VELKORA_ERROR_MESSAGE *>(this)->lines();
}

VELKORA_ERROR_MESSAGE::VELKORA_ERROR_MESSAGE(const std::string &text, int32_t id,
                                             const std::vector<VELKORA_ERROR_MESSAGE> &sub_messages)
{
    LINE_LIST all;
    all.m_lines.push_back(LINE{text, std::string(), id, 0});
    for (const VELKORA_ERROR_MESSAGE &message : sub_messages) {
        for (LINE line : message) {
            line.m_level++;
            all.m_lines.push_back(std::move(line));
        }
    }
    new (m_lines) LINE_LIST(all);
}

VELKORA_ERROR_MESSAGE::VELKORA_ERROR_MESSAGE(const VELKORA_ERROR_MESSAGE &other)
{
    new (m_lines) LINE_LIST(other.lines());
}

VELKORA_ERROR_MESSAGE &VELKORA_ERROR_MESSAGE::operator=(const VELKORA_ERROR_MESSAGE &other)
{
    if (this != &other)
        lines() = other.lines();
    return *this;
}

VELKORA_ERROR_MESSAGE::~VELKORA_ERROR_MESSAGE()
{
    lines().~LINE_LIST();
}

size_t VELKORA_ERROR_MESSAGE::size() const
{
    return lines().m_lines.size();
}

const VELKORA_ERROR_MESSAGE::LINE &VELKORA_ERROR_MESSAGE::operator[](size_t index) const
{
    return lines().m_lines[index];
}

const VELKORA_ERROR_MESSAGE::LINE *VELKORA_ERROR_MESSAGE::begin() const
{
    return lines().m_lines.data();
}

const VELKORA_ERROR_MESSAGE::LINE *VELKORA_ERROR_MESSAGE::end() const
{
    return begin() + size();
}

// --- conditions ---------------------------------------------------------------------------------

VELKORA_ERRC::~VELKORA_ERRC() = default;

THR_ERRC::~THR_ERRC() = default;

namespace THR
{
namespace ERRC
{

FAILED_TO_CREATE_IP_MUTEX_ERRC::FAILED_TO_CREATE_IP_MUTEX_ERRC(const std::string &file)
    : m_message("Failed to create file lock on \"" + file + "\"")
{
}

FAILED_TO_CREATE_IP_MUTEX_ERRC::~FAILED_TO_CREATE_IP_MUTEX_ERRC() = default;

std::unique_ptr<VELKORA_ERRC> FAILED_TO_CREATE_IP_MUTEX_ERRC::clone() const
{
    return std::make_unique<FAILED_TO_CREATE_IP_MUTEX_ERRC>(*this);
}

VELKORA_ERROR_MESSAGE FAILED_TO_CREATE_IP_MUTEX_ERRC::get_error_message() const
{
    return VELKORA_ERROR_MESSAGE(m_message, -1, {});
}

} // namespace ERRC
} // namespace THR

// --- exception ----------------------------------------------------------------------------------

namespace
{

[[noreturn]] void fail(const char *text)
{
    fprintf(stderr, "%s\n", text);
    exit(-1);
}

std::unique_ptr<VELKORA_ERRC> not_null(std::unique_ptr<VELKORA_ERRC> errc)
{
    if (!errc)
        fail("error");
    return errc;
}

} // namespace

VELKORA_EXCEPTION::VELKORA_EXCEPTION(std::unique_ptr<VELKORA_ERRC> errc)
    : m_errc(not_null(std::move(errc)))
{
}

VELKORA_EXCEPTION::VELKORA_EXCEPTION(const VELKORA_EXCEPTION &other)
    : PASS_THROUGH_CONSTRUCTOR(other),
      m_errc(not_null(other.m_errc ? other.m_errc->clone() : nullptr))
{
}

VELKORA_EXCEPTION::~VELKORA_EXCEPTION() = default;

const VELKORA_ERRC &VELKORA_EXCEPTION::get_errc() const
{
    return *m_errc;
}

// Boost's assertions end here, in place of the runtime's.
namespace boost
{

void assertion_failed(char const *expression, char const *, char const *, long)
{
    fail(expression);
}

void assertion_failed_msg(char const *expression, char const *, char const *, char const *, long)
{
    fail(expression);
}

} // namespace boost
