// Hooks that keep what the library reports, and the texts that are expected of it. The recorders
// are inline, so that a program with the library's objects inside records those.
#ifndef THR_TESTS_RECORDERS_H
#define THR_TESTS_RECORDERS_H

#include "thr/thr.h"

#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

namespace support
{

// What the system says to an error code, without its line break.
std::string system_words(DWORD code);

// The whole text of an OS failure report of a Win32 call, with the system's words for `code`.
std::string os_failure_text(const std::string &action, const std::string &api_text, DWORD code);

// The regular expression, for EXPECT_EXIT, of an internal error printed without a hook.
// `file` is a source file of the library: "thr_mutex" for thr/thr_mutex.cpp.
std::string internal_error_regex(const std::string &message, const std::string &file);

// The regular expression of a text that is meant literally.
std::string literal_regex(const std::string &text);

// Expects `statement` to end the process with the internal error `message` of thr/`file`.cpp.
#define EXPECT_INTERNAL_ERROR(statement, message, file)                                            \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(-1),                                          \
                ::support::internal_error_regex(message, file))

// A list of `Entry` that threads add to at the same time. The hooks are plain functions, so only
// one recorder of a kind can be installed at a time.
template <class Self, class Entry> class Recorder
{
public:
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // Returns the entries and forgets them.
    std::vector<Entry> take()
    {
        std::vector<Entry> taken;
        std::lock_guard<std::mutex> lock(m_mutex);
        taken.swap(m_entries);
        return taken;
    }

protected:
    Recorder()
    {
        if (s_active)
            throw std::logic_error("a recorder of this kind is installed already");
        s_active = this;
    }
    ~Recorder() { s_active = nullptr; }

    void add(Entry entry)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.push_back(std::move(entry));
    }
    static Self &active() { return static_cast<Self &>(*s_active); }

private:
    std::mutex m_mutex;
    std::vector<Entry> m_entries;
    inline static Recorder *s_active = nullptr;
};

struct Report {
    std::string message;
    std::string sub_system;
    std::string file;
    int line;
};

// The report hook, from construction to destruction. After an internal error the process ends
// whatever the hook does, so this records OS failures.
class ReportRecorder : public Recorder<ReportRecorder, Report>
{
public:
    ReportRecorder() { thr_set_report_func(&record); }
    ~ReportRecorder() { thr_set_report_func(nullptr); }

    // The texts alone, taken.
    std::vector<std::string> take_messages()
    {
        std::vector<std::string> messages;
        for (Report &report : take())
            messages.push_back(std::move(report.message));
        return messages;
    }

private:
    static void record(const char *message, const char *sub_system, const char *file, int line)
    {
        active().add({message, sub_system, file, line});
    }
};

// The debug hook, from construction to destruction; an entry is a formatted message.
class DebugRecorder : public Recorder<DebugRecorder, std::string>
{
public:
    DebugRecorder() { thr_set_debug_func(&record, 0); }
    ~DebugRecorder() { thr_set_debug_func(nullptr, 0); }

private:
    static void record(const char *sub_system, const char *format, va_list args)
    {
        std::string text(65536, '\0');
        int length = vsnprintf(text.data(), text.size(), format, args);
        if (length < 0 || std::string(sub_system) != "THR")
            throw std::runtime_error("a debug message that can't be recorded");
        text.resize(length);
        active().add(std::move(text));
    }
};

} // namespace support

#endif
