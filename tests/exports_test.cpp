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
    std::string file = content_of(fixture("../thr.dll"));
    file.erase(std::remove(file.begin(), file.end(), '\0'), file.end()); // of its wide texts
    EXPECT_NE(file.find("ProductVersion" THR_VERSION), file.npos);
}

// --- null arguments -----------------------------------------------------------------------------

char place[256];

// The first argument, when every other is zero, and what functions come to: a result or an internal
// error.
const std::tuple<void *, const char *, const char *> ROWS[] = {
    {nullptr, "1", "thr_rw_sem_read_try_lock thr_rw_sem_write_try_lock thr_system"},
    {nullptr, "0",
     "thr_drl_load thr_drl_is_loaded thr_drl_is_loadable thr_drl_find_function "
     "thr_process_close_pipe thr_win32_get_registered_message thr_win32_pump_messages "
     "thr_is_pid_active thr_set_new_handler"},
    {nullptr, "-1", "thr_process_wait thr_process_terminate"},
    {nullptr, "6", "thr_process_read thr_process_write thr_process_peek"}, // ERROR_INVALID_HANDLE
    {nullptr, "info != 0", "thr_thread_exit"}, // on a thread that is not the library's
    {place, "next_wrapper_func_ptr", "thr_thread_set_next_wrapper_func"},
    {place, "filepath && *filepath", "thr_ip_mutex_create thr_ip_rw_sem_create"}};

std::string outcome;

// Calls on a thread of its own, which ends where the process would.
std::string outcome_of(const std::string &name, void *first = nullptr)
{
    using Function = int (*)(void *, size_t, size_t, size_t, size_t, size_t, size_t);
    auto *address = reinterpret_cast<void *>(GetProcAddress(MODULE, name.c_str()));
    Gate end("exit", [](const Call &) -> intptr_t { ExitThread(0); });
    outcome = "nothing";
    thr_set_report_func([](const char *message, auto...) { outcome = message; });
    std::thread([&] {
        auto function = reinterpret_cast<Function>(address);
        outcome = std::to_string(function(first, 0, 0, 0, 0, 0, 0));
    }).join();
    return outcome;
}

TEST(NullArguments, GiveTheDocumentedResultOrAnInternalErrorThatNamesTheArgument)
{
    const std::string manual = content_of(fixture("reports.md"));
    auto others = declarations();
    for (auto *hot : {"thr_thread_var_get", "thr_thread_var_set"}) // they check nothing
        others.erase(hot);
    for (const auto &[first, result, names] : ROWS) {
        std::istringstream functions(names);
        for (std::string name; functions >> name; others.erase(first ? "" : name))
            EXPECT_EQ(outcome_of(name, first), result) << name;
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
