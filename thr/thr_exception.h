/**
 * @file thr/thr_exception.h
 * The exception that the library throws, the tree of error conditions that it carries, and the
 * message that a condition renders itself as. C++17.
 *
 * Only the constructor of THR_IP_READ_WRITE_SEMAPHORE throws it. All of these are values without
 * shared state; they may be copied and read on any thread.
 */
#ifndef THR_THR_EXCEPTION_H
#define THR_THR_EXCEPTION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "thr/thr.h"

/** @defgroup exceptions Exception and error message
 *  @{ */

/** A message of one or more lines, each with the depth at which it is nested. The first line is the
 *  head line; the others belong to nested messages, in the order in which they were given. */
class THR_API VELKORA_ERROR_MESSAGE
{
public:
    /** One line. */
    struct LINE {
        std::string m_text;     /**< the line */
        std::string m_aux_text; /**< a second text; empty in every message of this library */
        int32_t m_id;           /**< the head line's number; -1 in every message of this library */
        int32_t m_level;        /**< 0 for the head line of the outermost message, one more for each
                                     level of nesting */
    };

    /** Builds a message: a head line, then copies of all lines of the sub-messages, one level down.
     *  @param text         the head line
     *  @param id           its number
     *  @param sub_messages read only */
    VELKORA_ERROR_MESSAGE(const std::string &text, int32_t id,
                          const std::vector<VELKORA_ERROR_MESSAGE> &sub_messages);
    /** Copies the lines. */
    VELKORA_ERROR_MESSAGE(const VELKORA_ERROR_MESSAGE &other);
    /** Copies the lines. */
    VELKORA_ERROR_MESSAGE &operator=(const VELKORA_ERROR_MESSAGE &other);
    ~VELKORA_ERROR_MESSAGE();

    /** @return how many lines there are, at least 1 */
    size_t size() const;
    /** @param index below size(): past it an assertion ends the process, without a report
     *  @return the line at `index`, counted from 0; it lives as long as the message */
    const LINE &operator[](size_t index) const;
    /** @return the first line; with end(), for a range-based for */
    const LINE *begin() const;
    /** @return behind the last line */
    const LINE *end() const;

private:
    // Holds a small vector with room for one line in itself. Its type stays out of this header, so
    // that a host needs no headers but these.
    struct LINE_LIST;
    LINE_LIST &lines();
    const LINE_LIST &lines() const;
    alignas(LINE) unsigned char m_lines[3 * sizeof(void *) + sizeof(LINE)];
};

/** Root of the suite's error conditions. */
class THR_API VELKORA_ERRC
{
public:
    /** @return a new copy, of the same most-derived class */
    virtual std::unique_ptr<VELKORA_ERRC> clone() const = 0;
    virtual ~VELKORA_ERRC();
    /** @return the condition in words */
    virtual VELKORA_ERROR_MESSAGE get_error_message() const = 0;
};

/** This library's branch of the conditions. */
struct THR_API THR_ERRC : public VELKORA_ERRC {
    ~THR_ERRC() override;
};

namespace THR
{
namespace ERRC
{

/** The lock files of an interprocess semaphore can't be set up.
 *  @ingroup exceptions */
class THR_API FAILED_TO_CREATE_IP_MUTEX_ERRC : public THR_ERRC
{
public:
    /** @param file the path as the caller gave it; it stands in the message unchanged */
    explicit FAILED_TO_CREATE_IP_MUTEX_ERRC(const std::string &file);
    std::unique_ptr<VELKORA_ERRC> clone() const override;
    ~FAILED_TO_CREATE_IP_MUTEX_ERRC() override;
    /** @return one line: Failed to create file lock on "<file>" */
    VELKORA_ERROR_MESSAGE get_error_message() const override;

private:
    std::string m_message;
};

} // namespace ERRC
} // namespace THR

namespace VELKORA_EXCEPTION_DETAIL
{

/** The base by which every exception of the suite can be caught. */
struct PASS_THROUGH_CONSTRUCTOR {
};

} // namespace VELKORA_EXCEPTION_DETAIL

/** The exception: a value that owns an error condition. Not a std::exception. An exception without
 *  a condition ends the process: "error" on standard error, exit status -1. */
class THR_API VELKORA_EXCEPTION : public VELKORA_EXCEPTION_DETAIL::PASS_THROUGH_CONSTRUCTOR
{
public:
    /** Makes the condition, of class CONDITION, from `arguments`. */
    template <class CONDITION, class... ARGUMENTS>
    explicit VELKORA_EXCEPTION(std::in_place_type_t<CONDITION>, ARGUMENTS &&...arguments)
        : VELKORA_EXCEPTION(std::make_unique<CONDITION>(std::forward<ARGUMENTS>(arguments)...))
    {
    }
    /** Takes over a condition. */
    explicit VELKORA_EXCEPTION(std::unique_ptr<VELKORA_ERRC> errc);
    /** Owns a copy of the other's condition. */
    VELKORA_EXCEPTION(const VELKORA_EXCEPTION &other);
    VELKORA_EXCEPTION &operator=(const VELKORA_EXCEPTION &) = delete;
    ~VELKORA_EXCEPTION();

    /** @return the condition; it lives as long as the exception */
    const VELKORA_ERRC &get_errc() const;

private:
    std::unique_ptr<VELKORA_ERRC> m_errc;
};

/** @} */

#endif
