// Finds damage to the heap by means that every system has: each block ends at an inaccessible page,
// and a freed one is never used again.
#include "support/test.h"

#include <cstdio>
#include <cstdlib>

#include <malloc.h>

namespace support
{

namespace
{

const size_t ALIGNMENT = 16; // of a block, which no type may need more of
const size_t PAGE = 4096;
const size_t ARENA = size_t(1) << 36; // bytes of addresses, each used once
const char FILLING = '\xcd';

char *arena;
volatile LONG64 arena_used;

size_t round_up(size_t size, size_t unit)
{
    return (size + unit - 1) / unit * unit;
}

// In front of a block is its size, behind it a filling where its alignment keeps it off the
// inaccessible page that follows.
void *guarded_malloc(size_t size)
{
    const size_t room = round_up(size, ALIGNMENT), length = round_up(sizeof size + room, PAGE);
    if (size > ARENA)
        return nullptr;
    char *pages = arena + InterlockedExchangeAdd64(&arena_used, length + PAGE);
    if (!VirtualAlloc(pages, length, MEM_COMMIT, PAGE_READWRITE))
        return nullptr;
    char *block = pages + length - room;
    memcpy(block - sizeof size, &size, sizeof size);
    return memset(block, FILLING, room);
}

void *guarded_calloc(size_t count, size_t size)
{
    void *block = size && count > ARENA / size ? nullptr : guarded_malloc(count * size);
    return block ? memset(block, 0, count * size) : nullptr;
}

void guarded_free(void *pointer)
{
    char *block = static_cast<char *>(pointer);
    if (block < arena || block >= arena + ARENA) // it is older
        return static_cast<void>(
            HeapFree(reinterpret_cast<HANDLE>(_get_heap_handle()), 0, pointer));
    size_t size; // one that was overwritten leads to where nothing may be read
    memcpy(&size, block - sizeof size, sizeof size);
    const size_t room = round_up(size, ALIGNMENT);
    if (!std::all_of(block + size, block + room, [](char byte) { return byte == FILLING; })) {
        fprintf(stderr, "a damaged block is freed: %p\n", pointer);
        _exit(3);
    }
    VirtualFree(block - sizeof size, sizeof size + room, MEM_DECOMMIT); // each page of it
}

} // namespace

// No block is reallocated: neither the library does that, nor the tests.
void guard_heap()
{
    arena = static_cast<char *>(VirtualAlloc(nullptr, ARENA, MEM_RESERVE, PAGE_NOACCESS));
    const std::pair<std::string, void *> guards[] = {
        {"free", reinterpret_cast<void *>(&guarded_free)}, // first: it releases older ones, too
        {"malloc", reinterpret_cast<void *>(&guarded_malloc)},
        {"calloc", reinterpret_cast<void *>(&guarded_calloc)}};
    for (auto &[name, guarded] : guards) {
        for (HMODULE module :
             {thr_module(), GetModuleHandleA("libstdc++-6.dll"), GetModuleHandleA(nullptr)}) {
            for (const Import &import : imports_of(module)) {
                if (import.function == name)
                    set_slot(import.slot, guarded);
            }
        }
    }
}

} // namespace support
