// What thr.dll offers and needs, read from the loaded module, from its file and from its header.
#include "support/child.h"
#include "support/import_patch.h"
#include "support/recorders.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace support;

namespace
{

// Loaded by name, as its functions are called.
const HMODULE MODULE = LoadLibraryA("thr.dll");

// The part of the module at an offset from its start.
template <class T> const T *at(DWORD offset)
{
    return reinterpret_cast<const T *>(reinterpret_cast<const char *>(MODULE) + offset);
}

const IMAGE_OPTIONAL_HEADER64 &optional_header()
{
    return at<IMAGE_NT_HEADERS64>(at<IMAGE_DOS_HEADER>(0)->e_lfanew)->OptionalHeader;
}

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The names that the plain header declares, with a function's parameters.
std::map<std::string, std::string> declarations()
{
    const std::string header = content_of(fixture("thr.h"));
    const std::regex declaration(R"(THR_API [\w *]*?(\w+)(\(([^()]*)\))?;)");
    std::map<std::string, std::string> found;
    for (std::sregex_iterator it(header.begin(), header.end(), declaration), end; it != end; ++it)
        found[(*it)[1]] = (*it)[3];
    return found;
}

TEST(Module, ExportsWhatIsPublicAndNothingElse)
{
    auto missing = declarations();
    // The members and tables of the public classes, those in THR::ERRC among them, and the two
    // overloads for plain integers.
    const std::regex cpp_name(
        "_Z.*(THR_|VELKORA_|3THR4ERRC).*|_Z(16thr_process_exit|21thr_process_terminate).*");
    const auto *exports = at<IMAGE_EXPORT_DIRECTORY>(
        optional_header().DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
        std::string name = at<char>(at<DWORD>(exports->AddressOfNames)[i]);
        EXPECT_TRUE(missing.erase(name) == 1 || std::regex_match(name, cpp_name)) << name;
    }
    for (const auto &[name, parameters] : missing)
        ADD_FAILURE() << name << " is declared and not exported";
    // Nothing may hide behind an ordinal either; a linker may leave ordinals unused.
    const DWORD *addresses = at<DWORD>(exports->AddressOfFunctions),
                count = exports->NumberOfFunctions;
    EXPECT_EQ(count - std::count(addresses, addresses + count, 0u), exports->NumberOfNames);
}

TEST(Module, NeedsTheSystemAndTheSharedRuntimeAlone)
{
    const std::set<std::string> allowed = {"kernel32.dll",       "user32.dll",
                                           "msvcrt.dll",         "libstdc++-6.dll",
                                           "libgcc_s_seh-1.dll", "libwinpthread-1.dll"};
    for (Import &import : imports_of(MODULE))
        EXPECT_EQ(allowed.count(CharLowerA(import.dll.data())), 1u) << import.dll;
}

TEST(Module, IsHardenedAndCarriesItsVersion)
{
    const WORD wanted = IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                        IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(optional_header().DllCharacteristics & wanted, wanted);
    HRSRC resource = FindResourceA(MODULE, MAKEINTRESOURCEA(1), MAKEINTRESOURCEA(16)); // RT_VERSION
    ASSERT_NE(resource, nullptr);
    auto *bytes = static_cast<const char *>(LockResource(LoadResource(MODULE, resource)));
    auto *info = reinterpret_cast<const VS_FIXEDFILEINFO *>(bytes + 40); // behind its head
    std::ostringstream version;
    version << HIWORD(info->dwFileVersionMS) << '.' << LOWORD(info->dwFileVersionMS) << '.'
            << HIWORD(info->dwFileVersionLS);
    EXPECT_EQ(version.str(), THR_VERSION);
}

TEST(Module, NamesItsSourcesRelativeToTheTree)
{
    const std::string bytes = content_of(fixture("../thr.dll"));
    auto has = [&](const std::string &text) { return bytes.find(text) != bytes.npos; };
    if (has(".gcda"))
        GTEST_SKIP() << "a coverage build names its counter files by their whole path";
    ASSERT_TRUE(has("thr/thr_mutex.cpp"));
    EXPECT_FALSE(has("/thr/thr_mutex.cpp") || has("\\thr/thr_mutex.cpp"));
}

// --- null arguments -----------------------------------------------------------------------------

// Functions, what they do when every argument is zero but the given ones, and, if that is an
// internal error, in which file. A result of "" is not looked at.
struct Row {
    const char *prefix, *names, *outcome, *file = nullptr;
    const void *first = nullptr;
    uintptr_t second = 0;
    const void *third = nullptr;
};

char place[256];

const Row ROWS[] = {
    {"thr_mutex_", "destroy lock try_lock unlock", "mutex != 0", "thr_mutex"},
    {"thr_event_", "destroy is_posted post pulse reset wait", "event != 0", "thr_event"},
    {"thr_thread_", "create wrapper", "func", "thr_thread"},
    {"thr_thread_", "wait detach is_running terminate_and_possibly_crash", "thread_id",
     "thr_thread"},
    {"thr_thread_", "set_next_wrapper_func", "wrapper_func", "thr_thread"},
    {"thr_thread_", "set_next_wrapper_func", "next_wrapper_func_ptr", "thr_thread", place},
    {"thr_thread_", "exit", "mutex != 0", "thr_mutex"}, // the main thread's, which has none
    {"thr_thread_var_", "init destroy", "var", "thr_thread"},
    {"thr_set_thread_", "affinity_mask", "affinity_mask != 0", "thr_thread"},
    {"thr_", "process_create process_create_and_save_job run", "command", "thr_process"},
    {"thr_sys_func_", "init waitpid_init get_name get_wstat get_errno", "record", "thr_process"},
    {"thr_", "setenv prepend_env", "name != 0", "thr_objects"},
    {"thr_drl_", "construct_library_name", "name", "thr_drl"},
    {"thr_drl_", "construct_library_name", "destination", "thr_drl", nullptr, 6, "db"},
    {"thr_ip_mutex_", "create", "filepath && *filepath", "thr_interprocess_mutex"},
    {"thr_ip_mutex_", "create", "filepath && *filepath", "thr_interprocess_mutex", ""},
    {"thr_ip_mutex_", "destroy is_good lock try_lock unlock", "mutex != 0",
     "thr_interprocess_mutex"},
    {"thr_ip_rw_sem_", "create", "filepath && *filepath", "thr_interprocess_rw_sem"},
    {"thr_ip_rw_sem_", "create", "filepath && *filepath", "thr_interprocess_rw_sem", ""},
    {"thr_ip_rw_sem_",
     "destroy read_lock read_try_lock read_unlock write_lock write_try_lock write_unlock", "sem",
     "thr_interprocess_rw_sem"},
    {"_ZN14THR_NAMED_PIPE", "C1EPKc", "name != 0", "thr_named_pipe", place},
    {"thr_rw_sem_", "destroy read_lock read_unlock write_lock write_unlock", ""},
    {"thr_", "rw_sem_read_try_lock rw_sem_write_try_lock system", "1"},
    {"thr_drl_", "load is_loaded is_loadable find_function", "0"},
    {"thr_drl_", "construct_library_name", "", nullptr, nullptr, 5, "db"}, // does not fit
    {"thr_", "setenv", "0", nullptr, "db"},
    {"thr_", "prepend_env", "-1", nullptr, "db"},
    {"thr_process_", "wait terminate", "-1"},
    {"thr_process_", "read write peek", "6"}, // ERROR_INVALID_HANDLE
    {"thr_", "process_close_pipe win32_get_registered_message win32_pump_messages is_pid_active",
     "0"},
    {"thr_",
     "process_close_handle process_set_inherit_handles process_exit sleep msleep rename_thread "
     "thread_set_stack_size sys_func_delete_msg drl_unload win32_output_debug_string "
     "drl_register_funcs set_report_func set_debug_func set_load_symbols_func set_new_handler "
     "set_terminate_handler win32_set_msg_pump_func qt_set_process_event_func",
     ""},
};

int call(const std::string &name, const Row &row)
{
    using Function = int (*)(const void *, uintptr_t, const void *, int, int, int, int);
    auto address = reinterpret_cast<void *>(GetProcAddress(MODULE, name.c_str()));
    return reinterpret_cast<Function>(address)(row.first, row.second, row.third, 0, 0, 0, 0);
}

TEST(NullArguments, GiveAnInternalErrorOrTheDocumentedResult)
{
    // These two are without a check: the threads' hot path.
    std::set<std::string> tried = {"thr_thread_var_get", "thr_thread_var_set"};
    for (const Row &row : ROWS) {
        std::istringstream names(row.names);
        for (std::string name; names >> name;) {
            tried.insert(name = row.prefix + name);
            SCOPED_TRACE(name);
            if (row.file) {
                EXPECT_INTERNAL_ERROR(call(name, row), row.outcome, row.file);
            } else {
                const std::string result = std::to_string(call(name, row));
                EXPECT_TRUE(!*row.outcome || result == row.outcome) << result;
            }
        }
    }
    for (const auto &[name, parameters] : declarations())
        EXPECT_TRUE(tried.count(name) || parameters.empty() || parameters == "void") << name;
}

} // namespace
