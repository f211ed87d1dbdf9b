#include "thr/thr_drl.h"

#include "thr/thr.h"
#include "thr/thr_lock.h"
#include "thr/thr_osi_sys.h"
#include "thr/thr_owner.h"
#include "thr/thr_report.h"
#include "thr/thr_system_text.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <windows.h>

namespace
{

struct DrlState {
    int m_initialised;
    THR_DRL_LOAD_FUNC m_load;
    THR_DRL_UNLOAD_FUNC m_unload;
    THR_LOAD_SYMBOLS_FUNC m_load_symbols;
    THR_LOCK m_error_lock; // failures on several threads replace the three texts one after another
    char *m_error;
    char *m_error_data;
    char *m_system_error;
    char *m_debug_setting;
};

DrlState state;

const char SUFFIX[] = ".dll";

// --- names --------------------------------------------------------------------------------------

char *thr_drl_alloc(size_t size)
{
    char *ret = static_cast<char *>(calloc(size, 1));
    THR_CHECK(ret);
    return ret;
}

// A new text of the first `length` characters.
THR_HEAP_TEXT copy_of(const char *text, size_t length)
{
    THR_HEAP_TEXT copy(thr_drl_alloc(length + 1));
    memcpy(copy.get(), text, length);
    return copy;
}

THR_HEAP_TEXT copy_of(const char *text)
{
    return copy_of(text, strlen(text));
}

THR_HEAP_TEXT join(const char *first, const char *second, const char *third)
{
    size_t size = strlen(first) + strlen(second) + strlen(third) + 1;
    THR_HEAP_TEXT joined(thr_drl_alloc(size));
    snprintf(joined.get(), size, "%s%s%s", first, second, third);
    return joined;
}

const char *text_or_empty(const char *text)
{
    return text ? text : "";
}

THR_HEAP_TEXT thr_drl_normalize_name(const char *name)
{
    THR_HEAP_TEXT normal = copy_of(name);
    for (char *character = normal.get(); *character; character++) {
        if (*character == '/')
            *character = '\\';
    }
    return normal;
}

const char *last_backslash(const char *name)
{
    return thr_osi_last_backslash(name, name + strlen(name));
}

// Everything up to and including the last backslash; none without a backslash.
THR_HEAP_TEXT thr_drl_dir_part(const char *name)
{
    const char *separator = last_backslash(name);
    if (!separator)
        return nullptr;
    return copy_of(name, separator + 1 - name);
}

// What follows the last backslash, without the suffix.
THR_HEAP_TEXT thr_drl_base_name(const char *name)
{
    const char *separator = last_backslash(name);
    THR_HEAP_TEXT base = copy_of(separator ? separator + 1 : name);
    size_t length = strlen(base.get());
    size_t suffix_length = sizeof SUFFIX - 1;
    if (length > suffix_length) {
        char *end = base.get() + length - suffix_length;
        if (strcmp(end, SUFFIX) == 0)
            *end = '\0';
    }
    return base;
}

THR_HEAP_TEXT thr_drl_file_name(const char *name)
{
    THR_HEAP_TEXT directory = thr_drl_dir_part(name);
    THR_HEAP_TEXT base = thr_drl_base_name(name);
    return join(text_or_empty(directory.get()), base.get(), SUFFIX);
}

// --- the account of the last error --------------------------------------------------------------

// The variable never names a freed text: the process may end this thread at any point, and the
// shutdown then frees what it finds.
void swap(char *&kept, THR_HEAP_TEXT &text)
{
    char *old = kept;
    kept = text.release();
    text.reset(old);
}

// Records an error; `system_error` may be null. Only the change of the three texts needs the lock.
void thr_drl_set_error(const char *prefix, const char *data, const char *system_error)
{
    THR_HEAP_TEXT system_copy = system_error ? copy_of(system_error) : nullptr;
    THR_HEAP_TEXT data_copy = data ? copy_of(data) : nullptr;
    THR_HEAP_TEXT subject = join(prefix ? prefix : "Error ", text_or_empty(data), ": ");
    THR_HEAP_TEXT message = join(subject.get(), text_or_empty(system_error), "");
    THR_LOCK_GUARD guard(state.m_error_lock);
    swap(state.m_system_error, system_copy);
    swap(state.m_error_data, data_copy);
    swap(state.m_error, message);
} // NOLINT(clang-analyzer-unix.Malloc): the state has the new texts, their owners the old ones

// The setting counts from '2' on; a byte with the top bit set is below every digit.
bool is_debug_on()
{
    return state.m_debug_setting && static_cast<signed char>(state.m_debug_setting[0]) > '1';
}

// Records the calling thread's last OS error as the failure of what `prefix` says, on `data`.
void fail(const char *prefix, const char *data)
{
    THR_SYSTEM_TEXT system_error = thr_system_text(GetLastError());
    thr_drl_set_error(prefix, data, system_error.get());
    if (is_debug_on())
        printf("THR_DRL: %s\n", text_or_empty(system_error.get()));
}

// --- loading ------------------------------------------------------------------------------------

void *thr_drl_load_file(const char *file_name)
{
    THR_DRL_LOAD_FUNC load = state.m_load;
    if (load)
        return load(file_name);
    HMODULE library = LoadLibraryA(file_name);
    THR_LOAD_SYMBOLS_FUNC load_symbols = state.m_load_symbols;
    if (load_symbols)
        load_symbols(library, file_name);
    return library;
}

bool is_on_search_path(const char *file_name)
{
    char found[1024];
    return SearchPathA(nullptr, file_name, nullptr, sizeof found, found, nullptr) != 0;
}

} // namespace

int is_thr_loaded()
{
    return state.m_initialised;
}

int thr_drl_init()
{
    state.m_initialised = 1;
    return 0;
}

void thr_drl_fini() {}

void thr_drl_construct_library_name(char *destination, size_t maximum_length, const char *name)
{
    THR_CHECK(name);
    THR_HEAP_TEXT file_name = thr_drl_file_name(name);
    size_t length = strlen(file_name.get());
    if (length <= maximum_length) {
        THR_CHECK(destination);
        memcpy(destination, file_name.get(), length + 1);
    }
}

void *thr_drl_load(const char *name)
{
    if (!name)
        return nullptr;
    THR_HEAP_TEXT normal = thr_drl_normalize_name(name);
    THR_HEAP_TEXT file_name = thr_drl_file_name(normal.get());
    void *library = thr_drl_load_file(file_name.get());
    if (!library)
        fail("Cannot load library ", file_name.get());
    return library;
}

void thr_drl_unload(void *library)
{
    if (!library || reinterpret_cast<intptr_t>(library) == -3)
        return;
    THR_DRL_UNLOAD_FUNC unload = state.m_unload;
    if (unload)
        unload(library);
    else
        FreeLibrary(static_cast<HMODULE>(library));
}

int thr_drl_is_loaded(const char *name)
{
    if (!name)
        return 0;
    THR_HEAP_TEXT normal = thr_drl_normalize_name(name);
    THR_HEAP_TEXT file_name = thr_drl_file_name(normal.get());
    return GetModuleHandleA(file_name.get()) != nullptr;
}

int thr_drl_is_loadable(const char *name)
{
    if (!name)
        return 0;
    THR_HEAP_TEXT normal = thr_drl_normalize_name(name);
    THR_HEAP_TEXT directory = thr_drl_dir_part(normal.get());
    THR_HEAP_TEXT base = thr_drl_base_name(normal.get());
    THR_HEAP_TEXT file_name = join(base.get(), SUFFIX, "");
    if (!directory)
        return is_on_search_path(file_name.get());
    return thr_osi_path_exists(join(directory.get(), file_name.get(), "").get());
}

void *thr_drl_find_function(void *library, const char *name)
{
    if (!name)
        return nullptr;
    HMODULE module = library ? static_cast<HMODULE>(library) : GetModuleHandleA(nullptr);
    FARPROC function = GetProcAddress(module, name);
    if (!function)
        fail("Cannot find function ", name);
    return reinterpret_cast<void *>(function);
}

void thr_drl_register_funcs(THR_DRL_LOAD_FUNC load, THR_DRL_UNLOAD_FUNC unload)
{
    state.m_load = load;
    state.m_unload = unload;
}

void thr_set_load_symbols_func(THR_LOAD_SYMBOLS_FUNC func)
{
    state.m_load_symbols = func;
}

const char *thr_drl_get_error()
{
    return text_or_empty(state.m_error);
}

const char *thr_drl_get_error_data()
{
    return text_or_empty(state.m_error_data);
}

const char *thr_drl_get_system_error()
{
    return text_or_empty(state.m_system_error);
}

// --- start-up and shutdown ----------------------------------------------------------------------

void thr_drl_keep_debug_setting()
{
    if (const char *setting = getenv("THR_DRL_DEBUG"))
        state.m_debug_setting = copy_of(setting).release();
}

void thr_drl_cleanup()
{
    state.m_initialised = 0;
    // No lock: the process may have ended the thread that holds it.
    for (char **text :
         {&state.m_error_data, &state.m_system_error, &state.m_error, &state.m_debug_setting}) {
        THR_HEAP_TEXT freed;
        swap(*text, freed);
    }
}
