// What thr.dll offers and needs, read from the loaded module and from its file.
#include "support/import_patch.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

// Every name with C linkage, functions and four variables, by what they begin with.
const std::pair<const char *, const char *> PLAIN_EXPORTS[] = {
    {"", "THR_THREAD_MAIN_ID is_thr_loaded"},
    {"thr_", "debug_break disable_interprocess_mode enable_interprocess_mode get_cpu_affinity_mask "
             "get_interprocess_file_extension get_tick_count getpid is_interprocess_mode "
             "is_pid_active msleep prepend_env rename_thread run setenv sleep system"},
    {"thr_drl_", "construct_library_name find_function fini get_error get_error_data "
                 "get_system_error init is_loadable is_loaded load register_funcs unload"},
    {"thr_event_", "create destroy is_posted post pulse reset wait"},
    {"thr_ip_mutex_", "create destroy is_good lock try_lock unlock"},
    {"thr_ip_rw_sem_",
     "create destroy read_lock read_try_lock read_unlock write_lock write_try_lock write_unlock"},
    {"thr_mutex_", "create destroy lock try_lock unlock"},
    {"thr_process_", "close_handle close_pipe create create_and_save_job exit get_stdin "
                     "lower_priority peek read set_inherit_handles terminate wait write"},
    {"thr_qt_", "exit_event post_exit_event process_events set_process_event_func"},
    {"thr_rw_sem_",
     "create destroy read_lock read_try_lock read_unlock write_lock write_try_lock write_unlock"},
    {"thr_set_",
     "debug_func load_symbols_func new_handler report_func terminate_handler thread_affinity_mask"},
    {"thr_sys_func_", "create_msg delete_msg get_errno get_name get_wstat init waitpid_init"},
    {"thr_thread_", "create detach exit is_running self set_next_wrapper_func set_stack_size "
                    "terminate_and_possibly_crash wait wrapper"},
    {"thr_thread_var_", "destroy get init set"},
    {"thr_win32_", "get_registered_message is output_debug_string post_pump_exit_event "
                   "pump_exit_event pump_exit_retcode pump_messages set_msg_pump_func"},
};

// Loaded by name: this program calls nothing of it.
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

TEST(Module, ExportsWhatIsPublicAndNothingElse)
{
    std::set<std::string> missing;
    for (const auto &[prefix, names] : PLAIN_EXPORTS) {
        std::istringstream words(names);
        for (std::string word; words >> word;)
            missing.insert(prefix + word);
    }
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
    EXPECT_EQ(missing, std::set<std::string>());
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
    std::vector<Import> imports = imports_of(MODULE);
    EXPECT_FALSE(imports.empty());
    for (Import &import : imports)
        EXPECT_EQ(allowed.count(CharLowerA(import.dll.data())), 1u) << import.dll;
}

TEST(Module, IsHardened)
{
    const WORD wanted = IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                        IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(optional_header().DllCharacteristics & wanted, wanted);
}

TEST(Module, CarriesItsVersion)
{
    HRSRC resource = FindResourceA(MODULE, MAKEINTRESOURCEA(1), MAKEINTRESOURCEA(16)); // RT_VERSION
    ASSERT_NE(resource, nullptr);
    auto *bytes = static_cast<const char *>(LockResource(LoadResource(MODULE, resource)));
    auto *info = reinterpret_cast<const VS_FIXEDFILEINFO *>(bytes + 40); // behind its head
    EXPECT_EQ(info->dwSignature, 0xFEEF04BD);
    EXPECT_NE(info->dwFileVersionMS, 0u);
    EXPECT_EQ(info->dwFileType, DWORD{VFT_DLL});
}

TEST(Module, NamesItsSourcesRelativeToTheTree)
{
    char path[MAX_PATH];
    GetModuleFileNameA(MODULE, path, MAX_PATH);
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    auto has = [&](const std::string &text) { return bytes.find(text) != bytes.npos; };
    if (has(".gcda"))
        GTEST_SKIP() << "a coverage build names its counter files by their whole path";
    std::string folder = THR_SOURCE_DIR;
    ASSERT_TRUE(has("thr/thr_mutex.cpp")) << "of " << path;
    EXPECT_FALSE(has(folder));
    std::replace(folder.begin(), folder.end(), '/', '\\');
    EXPECT_FALSE(has(folder));
}

} // namespace
