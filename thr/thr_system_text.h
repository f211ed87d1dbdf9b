// The system's words for its error codes, where no report is made of them.
#ifndef THR_THR_SYSTEM_TEXT_H
#define THR_THR_SYSTEM_TEXT_H

#include <memory>

#include <windows.h>

struct THR_LOCAL_FREE {
    void operator()(char *text) const { LocalFree(text); }
};

using THR_SYSTEM_TEXT = std::unique_ptr<char, THR_LOCAL_FREE>;

// In the user's language, with the line break that ends it; empty when the system has none.
THR_SYSTEM_TEXT thr_system_text(DWORD code);

#endif
