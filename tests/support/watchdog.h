// Ends a test that hangs.
#ifndef THR_TESTS_WATCHDOG_H
#define THR_TESTS_WATCHDOG_H

namespace support
{

// For main(): a test that takes more than a minute ends the program, by name.
void watch_tests();

// In a test that needs longer, for other reasons than its waits: the seconds it has from now on.
void allow_seconds(unsigned seconds);

} // namespace support

#endif
