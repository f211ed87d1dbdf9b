#include "support/import_patch.h"

#include <cstdlib>
#include <stdexcept>

namespace support
{

namespace
{

// The part of a loaded module at an offset from its start.
template <class T> T *at(HMODULE module, ULONGLONG offset)
{
    return reinterpret_cast<T *>(reinterpret_cast<char *>(module) + offset);
}

const IMAGE_DATA_DIRECTORY &directory_of(HMODULE module, int number)
{
    auto *dos = at<IMAGE_DOS_HEADER>(module, 0);
    return at<IMAGE_NT_HEADERS64>(module, dos->e_lfanew)->OptionalHeader.DataDirectory[number];
}

void write_slot(void **slot, void *value)
{
    DWORD protection = 0;
    if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection))
        throw std::runtime_error("the import table can't be made writable");
    *slot = value;
    VirtualProtect(slot, sizeof *slot, protection, &protection);
}

void **find_slot(HMODULE module, const std::string &function)
{
    for (const Import &import : imports_of(module)) {
        if (import.function == function)
            return import.slot;
    }
    return nullptr;
}

struct MallocState {
    LONG allocations_left; // until the refused one, which finds 1
    decltype(&malloc) original_malloc;
    decltype(&calloc) original_calloc;
};

MallocState malloc_state;

bool is_allocation_refused()
{
    return InterlockedDecrement(&malloc_state.allocations_left) == 0;
}

void *counted_malloc(size_t size)
{
    return is_allocation_refused() ? nullptr : malloc_state.original_malloc(size);
}

void *counted_calloc(size_t count, size_t size)
{
    return is_allocation_refused() ? nullptr : malloc_state.original_calloc(count, size);
}

} // namespace

HMODULE thr_module()
{
    HMODULE module = GetModuleHandleA("thr.dll");
    if (!module)
        throw std::runtime_error("thr.dll is not loaded");
    return module;
}

std::vector<std::string> exports_of(HMODULE module)
{
    auto *exports = at<IMAGE_EXPORT_DIRECTORY>(
        module, directory_of(module, IMAGE_DIRECTORY_ENTRY_EXPORT).VirtualAddress);
    auto *names = at<DWORD>(module, exports->AddressOfNames);
    std::vector<std::string> result;
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
        result.push_back(at<const char>(module, names[i]));
    return result;
}

std::vector<Import> imports_of(HMODULE module)
{
    auto &directory = directory_of(module, IMAGE_DIRECTORY_ENTRY_IMPORT);
    std::vector<Import> imports;
    auto *descriptor = at<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress);
    for (; directory.VirtualAddress && descriptor->Name; ++descriptor) {
        const char *dll = at<const char>(module, descriptor->Name);
        auto *name = at<IMAGE_THUNK_DATA64>(module, descriptor->OriginalFirstThunk);
        auto *address = at<IMAGE_THUNK_DATA64>(module, descriptor->FirstThunk);
        for (; name->u1.AddressOfData; ++name, ++address) {
            std::string function = IMAGE_SNAP_BY_ORDINAL64(name->u1.Ordinal)
                                       ? "#" + std::to_string(IMAGE_ORDINAL64(name->u1.Ordinal))
                                       : at<const char>(module, name->u1.AddressOfData +
                                                                    sizeof(WORD)); // past the hint
            imports.push_back({dll, function, reinterpret_cast<void **>(&address->u1.Function)});
        }
    }
    return imports;
}

ImportPatch::ImportPatch(HMODULE module, const char *function, void *replacement)
    : m_slot(find_slot(module, function)), m_original(nullptr)
{
    if (!m_slot)
        throw std::runtime_error(std::string("the module does not import ") + function);
    m_original = *m_slot;
    write_slot(m_slot, replacement);
}

ImportPatch::~ImportPatch()
{
    write_slot(m_slot, m_original);
}

RefusedMalloc::RefusedMalloc(int nth, HMODULE module)
{
    void **malloc_slot = find_slot(module, "malloc");
    void **calloc_slot = find_slot(module, "calloc");
    if (!malloc_slot && !calloc_slot)
        throw std::runtime_error("the module allocates nothing");
    // The originals are kept first: another thread may allocate as soon as a patch stands.
    malloc_state.allocations_left = nth;
    if (malloc_slot) {
        malloc_state.original_malloc = reinterpret_cast<decltype(&malloc)>(*malloc_slot);
        m_malloc.emplace("malloc", &counted_malloc, module);
    }
    if (calloc_slot) {
        malloc_state.original_calloc = reinterpret_cast<decltype(&calloc)>(*calloc_slot);
        m_calloc.emplace("calloc", &counted_calloc, module);
    }
}

bool RefusedMalloc::happened() const
{
    return malloc_state.allocations_left <= 0;
}

} // namespace support
