// What thr.dll offers and needs, read from the loaded module and from its file.
#include "support/import_patch.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
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

// The members and tables of the public classes, those in THR::ERRC among them, and the two
// overloads for plain integers.
bool is_public_cpp_name(const std::string &name)
{
    const char *parts[] = {"THR_", "VELKORA_", "3THR4ERRC", "_Z16thr_process_exit",
                           "_Z21thr_process_terminate"};
    return name.compare(0, 2, "_Z") == 0 &&
           std::any_of(std::begin(parts), std::end(parts),
                       [&](const char *part) { return contains(name, part); });
}

TEST(Module, ExportsWhatIsPublicAndNothingElse)
{
    std::set<std::string> missing;
    for (const auto &[prefix, names] : PLAIN_EXPORTS) {
        std::istringstream words(names);
        for (std::string word; words >> word;)
            missing.insert(prefix + word);
    }
    for (const std::string &name : exported_names())
        EXPECT_TRUE(missing.erase(name) == 1 || is_public_cpp_name(name)) << name;
    EXPECT_EQ(missing, std::set<std::string>());
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
