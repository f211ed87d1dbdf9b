// What thr.dll offers and needs, read from the loaded module, from its file, from its header and
// from the manual.

#include "support/test.h"

#include <fstream>
#include <regex>

using namespace support;

namespace
{

// Loaded by name, as its functions are called.
const HMODULE MODULE = LoadLibraryA("thr.dll");

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// What the plain header declares, by name.
std::map<std::string, std::string> declarations()
{
    const std::string header = content_of(fixture("thr.h"));
    const std::regex declaration(R"(THR_API [\w\s*]*?(\w+)(\([^()]*\))?;)");
    std::map<std::string, std::string> found;
    for (std::sregex_iterator it(header.begin(), header.end(), declaration), end; it != end; ++it)
        found[(*it)[1]] = it->str();
    return found;
}

TEST(Module, ExportsWhatIsPublicAndNeedsTheSystemAndTheSharedRuntimeAlone)
{
    auto missing = declarations();
    // The members and tables of the public classes, those in THR::ERRC among them, and the two
    // overloads for plain integers.
    const std::regex cpp_name(
        "_Z.*(THR_|VELKORA_|3THR4ERRC).*|_Z(16thr_process_exit|21thr_process_terminate).*");
    for (const std::string &name : exports_of(MODULE))
        EXPECT_TRUE(missing.erase(name) == 1 || std::regex_match(name, cpp_name)) << name;
    for (const auto &[name, declaration] : missing)
        ADD_FAILURE() << name << " is declared and not exported";
    const std::regex dll("(kernel32|user32|msvcrt|libstdc\\+\\+-6|libgcc_s_seh-1|libwinpthread-1|"
                         "api-ms-win-crt-.*)\\.dll",
                         std::regex::icase);
    for (const Import &import : imports_of(MODULE))
        EXPECT_TRUE(std::regex_match(import.dll, dll)) << import.dll;
}

TEST(Module, IsHardenedCarriesItsVersionAndNamesNoFolder)
{
    auto *start = reinterpret_cast<const char *>(MODULE);
    auto *nt = reinterpret_cast<const IMAGE_NT_HEADERS64 *>(
        start + reinterpret_cast<const IMAGE_DOS_HEADER *>(start)->e_lfanew);
    const WORD wanted = IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                        IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(nt->OptionalHeader.DllCharacteristics & wanted, wanted);
    HRSRC resource = FindResourceA(MODULE, MAKEINTRESOURCEA(1), MAKEINTRESOURCEA(16)); // RT_VERSION
    ASSERT_NE(resource, nullptr);
    auto *bytes_of = static_cast<const char *>(LockResource(LoadResource(MODULE, resource)));
    auto *info = reinterpret_cast<const VS_FIXEDFILEINFO *>(bytes_of + 40); // behind its head
    std::ostringstream version;
    version << HIWORD(info->dwFileVersionMS) << '.' << LOWORD(info->dwFileVersionMS) << '.'
            << HIWORD(info->dwFileVersionLS);
    EXPECT_EQ(version.str(), THR_VERSION);
    const std::string file = content_of(fixture("../thr.dll"));
    auto has = [&](const std::string &text) { return file.find(text) != file.npos; };
    EXPECT_TRUE(has("thr/thr_mutex.cpp"));
    EXPECT_TRUE(!has("/thr/thr_mutex.cpp") || has(".gcda")) << "coverage names its counters so";
}

// --- null arguments -----------------------------------------------------------------------------

// What functions come to when every argument is zero but the given ones: a result, "" for any, or
// an internal error.
struct Row {
    const char *outcome, *functions;
    void *first = nullptr;
    uintptr_t second = 0;
    const void *third = nullptr;
};

char place[256];

const Row ROWS[] = {
    {"1", "thr_rw_sem_read_try_lock thr_rw_sem_write_try_lock thr_system"},
    {"0", "thr_drl_load thr_drl_is_loaded thr_drl_is_loadable thr_drl_find_function "
          "thr_process_close_pipe thr_win32_get_registered_message thr_win32_pump_messages "
          "thr_is_pid_active thr_set_new_handler"},
    {"-1", "thr_process_wait thr_process_terminate"},
    {"6", "thr_process_read thr_process_write thr_process_peek"}, // ERROR_INVALID_HANDLE
    {"", "thr_rw_sem_destroy thr_rw_sem_read_lock thr_rw_sem_read_unlock thr_rw_sem_write_lock "
         "thr_rw_sem_write_unlock thr_process_close_handle thr_process_set_inherit_handles "
         "thr_process_exit thr_sleep thr_msleep thr_rename_thread thr_thread_set_stack_size "
         "thr_sys_func_delete_msg thr_drl_unload thr_win32_output_debug_string "
         "thr_drl_register_funcs thr_set_report_func thr_set_debug_func thr_set_load_symbols_func "
         "thr_set_terminate_handler thr_win32_set_msg_pump_func thr_qt_set_process_event_func"},
    {"info != 0", "thr_thread_exit"}, // on a thread that is not the library's
    {"next_wrapper_func_ptr", "thr_thread_set_next_wrapper_func", place},
    {"destination", "thr_drl_construct_library_name", nullptr, 6, "db"},
    {"filepath && *filepath", "thr_ip_mutex_create thr_ip_rw_sem_create", place},
    {"name != 0", "_ZN14THR_NAMED_PIPEC1EPKc", place}};

std::string error; // the internal error, if any

// Calls on a thread of its own, which ends where the process would.
std::string outcome_of(const std::string &name, const Row &row = {})
{
    using Function = int (*)(const void *, uintptr_t, const void *, int, int, int, int);
    auto address = reinterpret_cast<void *>(GetProcAddress(MODULE, name.c_str()));
    std::string outcome;
    std::function<void()> action = [&] {
        auto function = reinterpret_cast<Function>(address);
        outcome = std::to_string(function(row.first, row.second, row.third, 0, 0, 0, 0));
    };
    Gate end("exit", [&](const Call &call) -> intptr_t {
        outcome = call.arg<int>(0) == -1 ? error : "another status";
        ExitThread(0);
    });
    error = "";
    thr_set_report_func([](const char *message, auto...) { error = message; });
    auto run = [](void *job) -> DWORD { return (*static_cast<decltype(&action)>(job))(), 0; };
    HANDLE thread = CreateThread(nullptr, 0, run, &action, 0, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, PATIENCE_MS), WAIT_OBJECT_0) << name;
    CloseHandle(thread);
    return outcome;
}

TEST(NullArguments, GiveTheDocumentedResultOrAnInternalErrorThatNamesTheArgument)
{
    std::string manual = content_of(fixture("reports.md"));
    manual.resize(manual.find("### The lock directory"));
    auto others = declarations();
    for (auto *hot : {"thr_thread_var_get", "thr_thread_var_set"}) // they check nothing
        others.erase(hot);
    for (const Row &row : ROWS) {
        std::istringstream functions(row.functions);
        for (std::string name; functions >> name;
             others.erase(row.first || row.third ? "" : name)) {
            const std::string found = outcome_of(name, row);
            EXPECT_TRUE(*row.outcome ? found == row.outcome : error.empty()) << name << found;
        }
    }
    for (const auto &[name, declaration] : others) {
        std::smatch list, argument;
        if (!std::regex_search(declaration, list, std::regex("\\((?!void\\))[^]*")))
            continue;
        const std::string found = outcome_of(name);
        EXPECT_TRUE(std::regex_search(found, argument, std::regex("\\w+")) &&
                    list.str().find(argument.str()) != manual.npos &&
                    manual.find("`" + found + "`") != manual.npos)
            << declaration << found;
    }
}

} // namespace
