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

// Of a block: its size, a filling, and the block at the end, as far as its alignment lets it. An
// inaccessible page follows.
struct Pages {
    size_t size;

    char *start() { return reinterpret_cast<char *>(this); }
    char *end() { return start() + round_up(ALIGNMENT + round_up(size, ALIGNMENT), PAGE); }
    char *block() { return end() - round_up(size, ALIGNMENT); }
};

// Null: the block is older.
Pages *pages_of(void *block)
{
    size_t offset = static_cast<char *>(block) - arena;
    return offset < ARENA ? reinterpret_cast<Pages *>(arena + (offset - ALIGNMENT) / PAGE * PAGE)
                          : nullptr;
}

// What the runtimes have their blocks in.
const HANDLE older_heap = reinterpret_cast<HANDLE>(_get_heap_handle());

void *guarded_malloc(size_t size)
{
    Pages pages{size};
    size_t length = pages.end() - pages.start();
    if (size > ARENA)
        return nullptr;
    LONG64 offset = InterlockedExchangeAdd64(&arena_used, length + PAGE);
    void *room = VirtualAlloc(arena + offset, length, MEM_COMMIT, PAGE_READWRITE);
    if (!room)
        return nullptr;
    memset(room, FILLING, length);
    return static_cast<Pages *>(memcpy(room, &size, sizeof size))->block();
}

void *guarded_calloc(size_t count, size_t size)
{
    void *block = size && count > ARENA / size ? nullptr : guarded_malloc(count * size);
    return block ? memset(block, 0, count * size) : nullptr;
}

void guarded_free(void *block)
{
    Pages *pages = pages_of(block);
    if (!pages)
        return static_cast<void>(HeapFree(older_heap, 0, block));
    auto is_filling = [](char byte) { return byte == FILLING; };
    if (block != pages->block() ||
        !std::all_of(pages->start() + sizeof *pages, pages->block(), is_filling) ||
        !std::all_of(pages->block() + pages->size, pages->end(), is_filling)) {
        fprintf(stderr, "a damaged block is freed, or what is none: %p\n", block);
        abort();
    }
    VirtualFree(pages, pages->end() - pages->start(), MEM_DECOMMIT);
}

void *guarded_realloc(void *block, size_t size)
{
    void *other = guarded_malloc(size);
    if (!block || !other)
        return other;
    Pages *pages = pages_of(block);
    size_t old_size = pages ? pages->size : HeapSize(older_heap, 0, block);
    memcpy(other, block, std::min(size, old_size));
    guarded_free(block);
    return other;
}

// Each module's import of this name leads there, for the life of the process.
template <class F> void replace(const char *name, F *guarded)
{
    for (const char *file : {"thr.dll", "libstdc++-6.dll", static_cast<const char *>(nullptr)}) {
        HMODULE module = GetModuleHandleA(file);
        for (const Import &import : module ? imports_of(module) : std::vector<Import>()) {
            if (import.function == name)
                set_slot(import.slot, reinterpret_cast<void *>(guarded));
        }
    }
}

} // namespace

void guard_heap()
{
    arena = static_cast<char *>(VirtualAlloc(nullptr, ARENA, MEM_RESERVE, PAGE_NOACCESS));
    replace("free", &guarded_free); // before there is a block that only this one may free
    replace("realloc", &guarded_realloc);
    replace("malloc", &guarded_malloc);
    replace("calloc", &guarded_calloc);
}

} // namespace support
