// What the library tells, and the texts that are expected of it.
#ifndef THR_TESTS_RECORDERS_H
#define THR_TESTS_RECORDERS_H

#include "thr/thr.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

namespace support
{

// What the system says to an error code, without its line break.
std::string system_words(DWORD code);

// The regular expression, for EXPECT_EXIT, of an internal error printed without a hook.
// `file` is a source file of the library: "thr_mutex" for thr/thr_mutex.cpp.
std::string internal_error_regex(const std::string &message, const std::string &file);

// The regular expression of a text that is meant literally.
std::string literal_regex(const std::string &text);

// Expects `statement` to end the process with the internal error `message` of thr/`file`.cpp.
#define EXPECT_INTERNAL_ERROR(statement, message, file)                                            \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(-1),                                          \
                ::support::internal_error_regex(message, file))

// Keeps the reports of OS failures and the debug messages of all threads, from its construction to
// its destruction; one at a time. It is inline, so that a program with the library's objects inside
// records those.
class Recorder
{
public:
    Recorder()
    {
        thr_set_report_func([](const char *message, auto...) { add(message); });
        thr_set_debug_func(&record_debug, 0);
    }
    ~Recorder()
    {
        thr_set_report_func(nullptr);
        thr_set_debug_func(nullptr, 0);
        take();
    }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // Returns the texts and forgets them.
    static std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        return std::exchange(s_texts, {});
    }

private:
    static void add(std::string text)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_texts.push_back(std::move(text));
    }
    static void record_debug(const char *, const char *format, va_list args)
    {
        char text[65536];
        vsnprintf(text, sizeof text, format, args);
        add(text);
    }

    inline static std::mutex s_mutex;
    inline static std::vector<std::string> s_texts;
};

} // namespace support

#endif
