// Owners of what the library holds only inside a function. What it hands out stays a plain pointer
// or handle.
#ifndef THR_THR_OWNER_H
#define THR_THR_OWNER_H

#include <cstdlib>
#include <memory>

#include <windows.h>

struct THR_FREE {
    void operator()(void *block) const { free(block); }
};

// A text from malloc(); empty: none.
using THR_HEAP_TEXT = std::unique_ptr<char, THR_FREE>;

struct THR_CLOSE_HANDLE {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};

// A handle of those calls that return null on failure; empty: none.
using THR_HANDLE = std::unique_ptr<void, THR_CLOSE_HANDLE>;

#endif
