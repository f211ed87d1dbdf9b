// Checks of the process's heaps. The system finds a write past a block's end or into a freed block
// when its tail and free checks are on, as scripts/test.sh has them; without these only damage to
// its own lists shows.
#ifndef THR_TESTS_HEAP_H
#define THR_TESTS_HEAP_H

namespace support
{

// Whether all heaps of the process are as they should be.
bool are_heaps_sound();

// free() that ends the process when the block is none, or something was written past its end.
void checked_free(void *block);

// From now on the library, the C++ runtime and this program free with checked_free().
void check_freed_blocks();

} // namespace support

#endif
