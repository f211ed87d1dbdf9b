#include "thr/thr_system_text.h"

THR_SYSTEM_TEXT thr_system_text(DWORD code)
{
    char *text = nullptr;
    FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                       FORMAT_MESSAGE_FROM_SYSTEM,
                   nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                   reinterpret_cast<char *>(&text), 0, nullptr);
    return THR_SYSTEM_TEXT(text);
}
