// What thr.dll offers, read from the loaded module, from its file, from its header and from the
// manual.
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

TEST(Module, ExportsWhatIsPublicAndCarriesItsVersion)
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
    const std::string file = content_of(fixture("../thr.dll"));
    VS_FIXEDFILEINFO info;
    file.copy(reinterpret_cast<char *>(&info), sizeof info, file.find("\xBD\x04\xEF\xFE"));
    std::ostringstream version;
    version << HIWORD(info.dwFileVersionMS) << '.' << LOWORD(info.dwFileVersionMS) << '.'
            << HIWORD(info.dwFileVersionLS);
    EXPECT_EQ(version.str(), THR_VERSION);
}

// --- null arguments -----------------------------------------------------------------------------

// What functions come to when every argument is zero but the given ones: a result or an internal
// error.
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
    {"info != 0", "thr_thread_exit"}, // on a thread that is not the library's
    {"next_wrapper_func_ptr", "thr_thread_set_next_wrapper_func", place},
    {"destination", "thr_drl_construct_library_name", nullptr, 6, "db"},
    {"filepath && *filepath", "thr_ip_mutex_create thr_ip_rw_sem_create", place},
    {"name != 0", "_ZN14THR_NAMED_PIPEC1EPKc", place}};

std::string outcome;

// Calls on a thread of its own, which ends where the process would.
std::string outcome_of(const std::string &name, const Row &row = {})
{
    using Function = int (*)(const void *, uintptr_t, const void *, int, int, int, int);
    auto *address = reinterpret_cast<void *>(GetProcAddress(MODULE, name.c_str()));
    Gate end("exit", [](const Call &) -> intptr_t { ExitThread(0); });
    outcome = "nothing";
    thr_set_report_func([](const char *message, auto...) { outcome = message; });
    std::thread([&] {
        auto function = reinterpret_cast<Function>(address);
        outcome = std::to_string(function(row.first, row.second, row.third, 0, 0, 0, 0));
    }).join();
    return outcome;
}

TEST(NullArguments, GiveTheDocumentedResultOrAnInternalErrorThatNamesTheArgument)
{
    const std::string manual = content_of(fixture("reports.md"));
    auto others = declarations();
    for (auto *hot : {"thr_thread_var_get", "thr_thread_var_set"}) // they check nothing
        others.erase(hot);
    for (const Row &row : ROWS) {
        std::istringstream functions(row.functions);
        for (std::string name; functions >> name; others.erase(row.first || row.third ? "" : name))
            EXPECT_EQ(outcome_of(name, row), row.outcome) << name;
    }
    for (const auto &[name, declaration] : others) {
        const size_t list = declaration.find('(');
        if (list == declaration.npos || declaration.compare(list, 6, "(void)") == 0)
            continue;
        const std::string found = outcome_of(name), argument = found.substr(0, found.find(' '));
        // a function that returns nothing of account may do nothing as well
        if (std::regex_search(declaration, std::regex("^THR_API (void|THR_HANDLER) THR_CALL")) &&
            std::regex_match(found, std::regex("-?\\d+")))
            continue;
        EXPECT_NE(declaration.find(argument, list), declaration.npos) << name << " gives " << found;
        EXPECT_NE(manual.find("`" + found + "`"), manual.npos) << name << " gives " << found;
    }
}

} // namespace
