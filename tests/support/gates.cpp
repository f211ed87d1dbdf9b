#include "support/gates.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>

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

// Calls `use` with the DLL, the function and the slot of each import. It allocates nothing: there
// are many, and an allocation may cost.
template <class Use> void for_each_import(HMODULE module, Use use)
{
    auto &directory = directory_of(module, IMAGE_DIRECTORY_ENTRY_IMPORT);
    auto *descriptor = at<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress);
    for (; directory.VirtualAddress && descriptor->Name; ++descriptor) {
        auto *name = at<IMAGE_THUNK_DATA64>(module, descriptor->OriginalFirstThunk);
        auto *address = at<IMAGE_THUNK_DATA64>(module, descriptor->FirstThunk);
        for (; name->u1.AddressOfData; ++name, ++address) {
            use(at<const char>(module, descriptor->Name),
                IMAGE_SNAP_BY_ORDINAL64(name->u1.Ordinal)
                    ? "#"
                    : at<const char>(module,
                                     name->u1.AddressOfData + sizeof(WORD)), // past the hint
                reinterpret_cast<void **>(&address->u1.Function));
        }
    }
}

const char *plain_name_of(const char *import)
{
    static const std::string_view STRING = "_ZNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEE";
    const std::string_view name = import;
    if (name == "calloc" || name == "_strdup")
        return "malloc";
    bool throws = name == "_Znwy";
    for (std::string_view member :
         {"7reserveE", "9_M_appendE", "9_M_assignE", "9_M_createE", "9_M_mutateE", "10_M_replaceE"})
        throws = throws || (name.substr(0, STRING.size()) == STRING &&
                            name.substr(STRING.size(), member.size()) == member);
    return throws ? "operator new" : import;
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
    std::vector<Import> imports;
    for_each_import(module, [&](const char *dll, const char *function, void **slot) {
        imports.push_back({dll, function, slot});
    });
    return imports;
}

std::string plain_name(const std::string &import)
{
    return plain_name_of(import.c_str());
}

void set_slot(void **slot, const void *target)
{
    DWORD protection = 0;
    if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection))
        throw std::runtime_error("the import table can't be made writable");
    *slot = const_cast<void *>(target);
    VirtualProtect(slot, sizeof *slot, protection, &protection);
}

// --- gates --------------------------------------------------------------------------------------

namespace
{

// The code that a gate puts into an import table, for a function of any arguments: it stores those
// that are in registers at the place that the caller keeps for them, below those on the stack, and
// asks `pass` for the answer. Its unwind information lets exceptions through.
const size_t THUNK_SIZE = 64;
const size_t THUNKS = 1023;

uint8_t *new_thunk_place()
{
    static RUNTIME_FUNCTION functions[THUNKS];
    static uint8_t *room = nullptr; // the unwind information, then the thunks; never given back
    static volatile LONG used = 0;
    if (!room) {
        room = static_cast<uint8_t *>(VirtualAlloc(
            nullptr, (THUNKS + 1) * THUNK_SIZE, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
        const uint8_t unwind[] = {1, 4, 1, 0, 4, 0x42, 0, 0}; // one step, of 40 bytes
        memcpy(room, unwind, sizeof unwind);
        for (DWORD i = 0; i < THUNKS; ++i)
            functions[i].BeginAddress = (i + 1) * THUNK_SIZE,
            functions[i].EndAddress = (i + 2) * THUNK_SIZE;
        RtlAddFunctionTable(functions, THUNKS, reinterpret_cast<DWORD64>(room));
    }
    LONG number = InterlockedIncrement(&used);
    if (number > LONG(THUNKS))
        throw std::runtime_error("too many gates");
    return room + number * THUNK_SIZE;
}

void *make_thunk(const void *entry, const void *pass)
{
    uint8_t code[] = {0x48, 0x83, 0xec, 0x28,                           // sub rsp, 40
                      0x48, 0x89, 0x4c, 0x24, 0x30,                     // mov [rsp + 48], rcx
                      0x48, 0x89, 0x54, 0x24, 0x38,                     // mov [rsp + 56], rdx
                      0x4c, 0x89, 0x44, 0x24, 0x40,                     // mov [rsp + 64], r8
                      0x4c, 0x89, 0x4c, 0x24, 0x48,                     // mov [rsp + 72], r9
                      0x48, 0xb9, 0,    0,    0,    0,    0,   0, 0, 0, // mov rcx, entry
                      0x48, 0x8d, 0x54, 0x24, 0x30,                     // lea rdx, [rsp + 48]
                      0x48, 0xb8, 0,    0,    0,    0,    0,   0, 0, 0, // mov rax, pass
                      0xff, 0xd0, 0x48, 0x83, 0xc4, 0x28, 0xc3}; // call rax; add rsp, 40; ret
    memcpy(code + 26, &entry, sizeof entry);
    memcpy(code + 41, &pass, sizeof pass);
    return memcpy(new_thunk_place(), code, sizeof code);
}

} // namespace

intptr_t Call::go_on() const
{
    using I = intptr_t;
    return reinterpret_cast<I (*)(I, I, I, I, I, I, I, I, I, I, I, I)>(target)(
        args[0], args[1], args[2], args[3], args[4], args[5], args[6], args[7], args[8], args[9],
        args[10], args[11]);
}

intptr_t Gate::pass(Entry *entry, const intptr_t *args)
{
    return entry->gate->m_way({InterlockedIncrement(&entry->gate->m_calls), args, entry->target,
                               reinterpret_cast<const void *>(args[-1])});
}

Gate::Gate(const std::string &name, Way way, HMODULE module) : m_way(std::move(way))
{
    for_each_import(module, [&](const char *, const char *import, void **slot) {
        if (import == name || plain_name_of(import) == name)
            m_entries.push_back({this, slot, *slot, *slot});
    });
    if (m_entries.empty())
        throw std::runtime_error("the module does not import " + name);
    std::vector<void *> thunks;
    for (Entry &entry : m_entries)
        thunks.push_back(make_thunk(&entry, reinterpret_cast<void *>(&pass)));
    for (size_t i = 0; i < thunks.size(); ++i) // no allocation from the first one on
        set_slot(m_entries[i].slot, thunks[i]);
}

Gate::Gate(const Refusal &refusal, HMODULE module)
    : Gate(
          refusal.import,
          [refusal](const Call &call) {
              if (refusal.nth != EVERY && refusal.nth != call.nth)
                  return call.go_on();
              SetLastError(refusal.error);
              return refusal.answer;
          },
          module)
{
}

Gate::~Gate()
{
    for (Entry &entry : m_entries)
        set_slot(entry.slot, entry.original);
}

} // namespace support
