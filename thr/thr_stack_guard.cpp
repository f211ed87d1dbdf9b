#include <cstdint>

#include <windows.h>

// What the compiler's stack protector and the checked functions for texts and memory need. The
// compiler's own library for it would make thr.dll import one DLL more.

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the compiler calls them by these names

// Functions with arrays keep it behind them and compare it before they return.
extern void *__stack_chk_guard;
void *__stack_chk_guard;

// At once, as nothing on this stack can be trusted any more: no handler, no clean-up.
__attribute__((noreturn)) static void fail_fast()
{
    __asm__ __volatile__("int $0x29" : : "c"(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE));
    __builtin_unreachable();
}

__attribute__((noreturn)) void __stack_chk_fail()
{
    fail_fast();
}

__attribute__((noreturn)) void __chk_fail()
{
    fail_fast();
}

// NOLINTEND(bugprone-reserved-identifier)
} // extern "C"

// Another value in each process. Its lowest byte is that of a text's end: a text that runs over
// can't have it right.
__attribute__((constructor)) static void set_guard()
{
    uint64_t value = __builtin_ia32_rdtsc();
    value ^= reinterpret_cast<uintptr_t>(&value) ^ reinterpret_cast<uintptr_t>(&set_guard) << 32;
    value *= 0x9E3779B97F4A7C15;
    value ^= value >> 32;
    __stack_chk_guard = reinterpret_cast<void *>(value & ~uint64_t{0xFF});
}
