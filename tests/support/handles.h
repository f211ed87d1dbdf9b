// How many OS handles a test left open.
#ifndef THR_TESTS_HANDLES_H
#define THR_TESTS_HANDLES_H

#include <cstddef>

namespace support
{

// The number of live handles of this process, found by asking for each of the first `bound` handle
// values (4, 8, 12, ...), since not every system here counts them itself. Handle values are given
// out from the lowest up. Some 10 microseconds a value: count before and after a series, not
// around each call, and let the code run once before, for what it opens on first use.
size_t live_handle_count(size_t bound = 512);

} // namespace support

#endif
