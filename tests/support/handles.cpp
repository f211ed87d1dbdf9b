#include "support/handles.h"

#include <windows.h>

namespace support
{

size_t live_handle_count(size_t bound)
{
    size_t count = 0;
    for (size_t i = 1; i <= bound; ++i) {
        DWORD flags = 0;
        if (GetHandleInformation(reinterpret_cast<HANDLE>(i * 4), &flags))
            ++count;
    }
    return count;
}

} // namespace support
