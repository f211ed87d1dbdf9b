// Owners of what the library holds only inside a function. What it hands out stays a plain pointer
// or handle.
#ifndef THR_THR_OWNER_H
#define THR_THR_OWNER_H

#include "thr/thr_report.h"

#include <cstdlib>
#include <memory>
#include <string>

#include <windows.h>

struct THR_FREE {
    void operator()(void *block) const { free(block); }
};

// A text from malloc(); empty: none.
using THR_HEAP_TEXT = std::unique_ptr<char, THR_FREE>;

// Memory of the library's growable texts: from malloc(), and without memory the process ends by a
// report. No exception of theirs ever reaches a caller in C.
template <class CHARACTER> struct THR_TEXT_ALLOCATOR {
    using value_type = CHARACTER;
    THR_TEXT_ALLOCATOR() = default;
    template <class OTHER> THR_TEXT_ALLOCATOR(const THR_TEXT_ALLOCATOR<OTHER> &) {}
    CHARACTER *allocate(size_t count)
    {
        void *text = malloc(count * sizeof(CHARACTER));
        THR_CHECK(text);
        return static_cast<CHARACTER *>(text);
    }
    void deallocate(CHARACTER *text, size_t) { free(text); }
    template <class OTHER> bool operator==(const THR_TEXT_ALLOCATOR<OTHER> &) const { return true; }
    template <class OTHER> bool operator!=(const THR_TEXT_ALLOCATOR<OTHER> &) const
    {
        return false;
    }
};

using THR_TEXT = std::basic_string<char, std::char_traits<char>, THR_TEXT_ALLOCATOR<char>>;
using THR_WIDE_TEXT =
    std::basic_string<wchar_t, std::char_traits<wchar_t>, THR_TEXT_ALLOCATOR<wchar_t>>;

struct THR_CLOSE_HANDLE {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};

// A handle of those calls that return null on failure; empty: none.
using THR_HANDLE = std::unique_ptr<void, THR_CLOSE_HANDLE>;

#endif
