// Finds damage to the heap by means that every system has: each block of the library, the C++
// runtime and the test program ends at an inaccessible page, and a freed one is never used again.
#ifndef THR_TESTS_HEAP_H
#define THR_TESTS_HEAP_H

namespace support
{

// From now on a write or read past a block's end or of a freed block crashes the process. What is
// less than 16 bytes off a block ends it when the block is freed. Blocks that are older stay as
// they are, and may be freed.
void guard_heap();

} // namespace support

#endif
