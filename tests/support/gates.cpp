#include "support/gates.h"

#include <cstring>
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

} // namespace

const char *plain_name(const char *import)
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

HMODULE thr_module()
{
    HMODULE module = GetModuleHandleA("thr.dll");
    return module ? module : GetModuleHandleA(nullptr);
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
    auto &directory = directory_of(module, IMAGE_DIRECTORY_ENTRY_IMPORT);
    auto *descriptor = at<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress);
    for (; directory.VirtualAddress && descriptor->Name; ++descriptor) {
        auto *name = at<IMAGE_THUNK_DATA64>(module, descriptor->OriginalFirstThunk);
        auto *address = at<IMAGE_THUNK_DATA64>(module, descriptor->FirstThunk);
        for (; name->u1.AddressOfData; ++name, ++address) {
            const bool is_number = IMAGE_SNAP_BY_ORDINAL64(name->u1.Ordinal);
            auto *by_name = at<IMAGE_IMPORT_BY_NAME>(module, name->u1.AddressOfData);
            imports.push_back({at<const char>(module, descriptor->Name),
                               is_number ? "#" : by_name->Name,
                               reinterpret_cast<void **>(&address->u1.Function)});
        }
    }
    return imports;
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

intptr_t Call::go_on() const
{
    using I = intptr_t;
    return reinterpret_cast<I (*)(I, I, I, I, I, I, I, I, I, I, I, I)>(target)(
        args[0], args[1], args[2], args[3], args[4], args[5], args[6], args[7], args[8], args[9],
        args[10], args[11]);
}

// What gates put into import tables: functions that stand for any with up to 12 arguments, each of
// them for one entry. The arguments that the caller does not give are whatever is on its stack.
template <size_t N> struct Gate::Thunk {
    using I = intptr_t;
    static I call(I a, I b, I c, I d, I e, I f, I g, I h, I i, I j, I k, I l)
    {
        const I args[] = {a, b, c, d, e, f, g, h, i, j, k, l};
        const Entry &entry = *s_entries[N];
        return entry.gate->m_way({InterlockedIncrement(&entry.gate->m_calls), args, entry.target,
                                  __builtin_return_address(0)});
    }
};

template <size_t... N> const void *Gate::new_thunk(const Entry *entry, std::index_sequence<N...>)
{
    static const void *const thunks[] = {reinterpret_cast<void *>(&Thunk<N>::call)...};
    static volatile LONG used = 0; // none is given back
    const LONG number = InterlockedIncrement(&used) - 1;
    if (number >= THUNKS)
        throw std::runtime_error("too many gates");
    s_entries[number] = entry;
    return thunks[number];
}

Gate::Gate(const std::string &name, Way way, HMODULE module) : m_way(std::move(way))
{
    for (const auto &[dll, function, slot] : imports_of(module)) {
        if (function == name || plain_name(function.data()) == name)
            m_entries.push_back({this, slot, *slot, *slot});
    }
    if (m_entries.empty())
        throw std::runtime_error("the module does not import " + name);
    std::vector<const void *> thunks;
    for (const Entry &entry : m_entries)
        thunks.push_back(new_thunk(&entry, std::make_index_sequence<THUNKS>()));
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
