// What thr.dll offers and needs, read from the loaded module and from its file.
#include "support/import_patch.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

using namespace support;

namespace
{

// Every name with C linkage, sorted: functions, and four variables.
const std::set<std::string> PLAIN_EXPORTS = {
    "THR_THREAD_MAIN_ID",
    "is_thr_loaded",
    "thr_debug_break",
    "thr_disable_interprocess_mode",
    "thr_drl_construct_library_name",
    "thr_drl_find_function",
    "thr_drl_fini",
    "thr_drl_get_error",
    "thr_drl_get_error_data",
    "thr_drl_get_system_error",
    "thr_drl_init",
    "thr_drl_is_loadable",
    "thr_drl_is_loaded",
    "thr_drl_load",
    "thr_drl_register_funcs",
    "thr_drl_unload",
    "thr_enable_interprocess_mode",
    "thr_event_create",
    "thr_event_destroy",
    "thr_event_is_posted",
    "thr_event_post",
    "thr_event_pulse",
    "thr_event_reset",
    "thr_event_wait",
    "thr_get_cpu_affinity_mask",
    "thr_get_interprocess_file_extension",
    "thr_get_tick_count",
    "thr_getpid",
    "thr_ip_mutex_create",
    "thr_ip_mutex_destroy",
    "thr_ip_mutex_is_good",
    "thr_ip_mutex_lock",
    "thr_ip_mutex_try_lock",
    "thr_ip_mutex_unlock",
    "thr_ip_rw_sem_create",
    "thr_ip_rw_sem_destroy",
    "thr_ip_rw_sem_read_lock",
    "thr_ip_rw_sem_read_try_lock",
    "thr_ip_rw_sem_read_unlock",
    "thr_ip_rw_sem_write_lock",
    "thr_ip_rw_sem_write_try_lock",
    "thr_ip_rw_sem_write_unlock",
    "thr_is_interprocess_mode",
    "thr_is_pid_active",
    "thr_msleep",
    "thr_mutex_create",
    "thr_mutex_destroy",
    "thr_mutex_lock",
    "thr_mutex_try_lock",
    "thr_mutex_unlock",
    "thr_prepend_env",
    "thr_process_close_handle",
    "thr_process_close_pipe",
    "thr_process_create",
    "thr_process_create_and_save_job",
    "thr_process_exit",
    "thr_process_get_stdin",
    "thr_process_lower_priority",
    "thr_process_peek",
    "thr_process_read",
    "thr_process_set_inherit_handles",
    "thr_process_terminate",
    "thr_process_wait",
    "thr_process_write",
    "thr_qt_exit_event",
    "thr_qt_post_exit_event",
    "thr_qt_process_events",
    "thr_qt_set_process_event_func",
    "thr_rename_thread",
    "thr_run",
    "thr_rw_sem_create",
    "thr_rw_sem_destroy",
    "thr_rw_sem_read_lock",
    "thr_rw_sem_read_try_lock",
    "thr_rw_sem_read_unlock",
    "thr_rw_sem_write_lock",
    "thr_rw_sem_write_try_lock",
    "thr_rw_sem_write_unlock",
    "thr_set_debug_func",
    "thr_set_load_symbols_func",
    "thr_set_new_handler",
    "thr_set_report_func",
    "thr_set_terminate_handler",
    "thr_set_thread_affinity_mask",
    "thr_setenv",
    "thr_sleep",
    "thr_sys_func_create_msg",
    "thr_sys_func_delete_msg",
    "thr_sys_func_get_errno",
    "thr_sys_func_get_name",
    "thr_sys_func_get_wstat",
    "thr_sys_func_init",
    "thr_sys_func_waitpid_init",
    "thr_system",
    "thr_thread_create",
    "thr_thread_detach",
    "thr_thread_exit",
    "thr_thread_is_running",
    "thr_thread_self",
    "thr_thread_set_next_wrapper_func",
    "thr_thread_set_stack_size",
    "thr_thread_terminate_and_possibly_crash",
    "thr_thread_var_destroy",
    "thr_thread_var_get",
    "thr_thread_var_init",
    "thr_thread_var_set",
    "thr_thread_wait",
    "thr_thread_wrapper",
    "thr_win32_get_registered_message",
    "thr_win32_is",
    "thr_win32_output_debug_string",
    "thr_win32_post_pump_exit_event",
    "thr_win32_pump_exit_event",
    "thr_win32_pump_exit_retcode",
    "thr_win32_pump_messages",
    "thr_win32_set_msg_pump_func",
};

// Loaded by name: this program calls nothing of it.
HMODULE module()
{
    static const HMODULE loaded = LoadLibraryA("thr.dll");
    return loaded ? loaded : thr_module();
}

const IMAGE_OPTIONAL_HEADER64 &optional_header()
{
    auto *base = reinterpret_cast<char *>(module());
    auto *dos = reinterpret_cast<IMAGE_DOS_HEADER *>(base);
    return reinterpret_cast<IMAGE_NT_HEADERS64 *>(base + dos->e_lfanew)->OptionalHeader;
}

std::vector<std::string> exported_names()
{
    auto *base = reinterpret_cast<char *>(module());
    DWORD offset = optional_header().DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
    auto *directory = reinterpret_cast<IMAGE_EXPORT_DIRECTORY *>(base + offset);
    auto *names = reinterpret_cast<DWORD *>(base + directory->AddressOfNames);
    std::vector<std::string> exported;
    for (DWORD i = 0; i < directory->NumberOfNames; ++i)
        exported.push_back(base + names[i]);
    // Nothing may hide behind an ordinal either; a linker may leave ordinals unused.
    auto *addresses = reinterpret_cast<DWORD *>(base + directory->AddressOfFunctions);
    auto unused = std::count(addresses, addresses + directory->NumberOfFunctions, 0u);
    EXPECT_EQ(directory->NumberOfFunctions - unused, directory->NumberOfNames);
    return exported;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

bool is_cpp_name(const std::string &name)
{
    return name.compare(0, 2, "_Z") == 0;
}

// The members and tables of the public classes, those in THR::ERRC among them, and the two
// overloads for plain integers.
bool is_public_cpp_name(const std::string &name)
{
    return contains(name, "THR_") || contains(name, "VELKORA_") || contains(name, "3THR4ERRC") ||
           contains(name, "_Z16thr_process_exit") || contains(name, "_Z21thr_process_terminate");
}

TEST(Module, ExportsWhatIsPublicAndNothingElse)
{
    std::set<std::string> plain;
    for (const std::string &name : exported_names()) {
        if (!is_cpp_name(name))
            plain.insert(name);
        else
            EXPECT_TRUE(is_public_cpp_name(name)) << name;
    }
    std::vector<std::string> missing, surplus;
    std::set_difference(PLAIN_EXPORTS.begin(), PLAIN_EXPORTS.end(), plain.begin(), plain.end(),
                        std::back_inserter(missing));
    std::set_difference(plain.begin(), plain.end(), PLAIN_EXPORTS.begin(), PLAIN_EXPORTS.end(),
                        std::back_inserter(surplus));
    EXPECT_EQ(missing, std::vector<std::string>());
    EXPECT_EQ(surplus, std::vector<std::string>());
}

TEST(Module, NeedsTheSystemAndTheSharedRuntimeAlone)
{
    const std::set<std::string> allowed = {"kernel32.dll",       "user32.dll",
                                           "msvcrt.dll",         "libstdc++-6.dll",
                                           "libgcc_s_seh-1.dll", "libwinpthread-1.dll"};
    std::set<std::string> dlls;
    for (const Import &import : imports_of(module())) {
        std::string dll = import.dll;
        CharLowerA(dll.data());
        dlls.insert(dll);
    }
    EXPECT_EQ(dlls.count("kernel32.dll"), 1u);
    for (const std::string &dll : dlls)
        EXPECT_EQ(allowed.count(dll), 1u) << dll;
}

TEST(Module, IsHardened)
{
    const WORD wanted = IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                        IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(optional_header().DllCharacteristics & wanted, wanted);
}

TEST(Module, CarriesItsVersion)
{
    HRSRC resource = FindResourceA(module(), MAKEINTRESOURCEA(1), MAKEINTRESOURCEA(16));
    ASSERT_NE(resource, nullptr); // of type RT_VERSION
    auto *bytes = static_cast<const char *>(LockResource(LoadResource(module(), resource)));
    const std::string data(bytes, SizeofResource(module(), resource));
    const DWORD signature = 0xFEEF04BD;
    size_t start = data.find(std::string(reinterpret_cast<const char *>(&signature), 4));
    ASSERT_NE(start, std::string::npos);
    VS_FIXEDFILEINFO info;
    ASSERT_LE(start + sizeof info, data.size());
    memcpy(&info, data.data() + start, sizeof info);
    EXPECT_NE(info.dwFileVersionMS, 0u);
    EXPECT_EQ(info.dwFileType, static_cast<DWORD>(VFT_DLL));
}

TEST(Module, NamesItsSourcesRelativeToTheTree)
{
    std::string path(32768, '\0');
    path.resize(GetModuleFileNameA(module(), path.data(), 32768));
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (contains(bytes, ".gcda"))
        GTEST_SKIP() << "a coverage build names its counter files by their whole path";
    std::string folder = THR_SOURCE_DIR;
    ASSERT_TRUE(contains(bytes, "thr/thr_mutex.cpp")) << "of " << path;
    EXPECT_FALSE(contains(bytes, folder));
    std::replace(folder.begin(), folder.end(), '/', '\\');
    EXPECT_FALSE(contains(bytes, folder));
}

} // namespace
