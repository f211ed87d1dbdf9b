// A host of plugins: loads each library named on its command line, lets it judge a text, and
// unloads it again. A library that can't be used does not keep the others from their turn.
#include "plugin.h"
#include "thr/thr.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace
{

const char HELP[] =
    "Usage: plugin_host [--text TEXT] LIBRARY...\n"
    "\n"
    "Loads each library, calls its function plugin_judge with the text and shows what it says.\n"
    "\n"
    "  LIBRARY      base name, with or without directory: \"words\" is the file words.dll.\n"
    "               plugin_words and plugin_palindrome come with this program.\n"
    "  --text TEXT  the text to judge (default: \"Step on no pets\")\n"
    "\n"
    "Without a directory a library is looked for beside this program, in the folder \"bin64\" of\n"
    "the install directory (velkora or ostrevaline) that it runs from, and on the platform's\n"
    "search path. The exit status is 1 when a library could not be used, 2 for a wrong command\n"
    "line, else 0.\n";

struct Unload {
    void operator()(void *library) const { thr_drl_unload(library); }
};

using Library = std::unique_ptr<void, Unload>;

// What the loading service keeps of the last failure; it belongs to the service, so it is shown at
// once. The system's words end with a line break.
void show_failure(const char *name)
{
    const char *reason = thr_drl_get_system_error();
    int length = static_cast<int>(strcspn(reason, "\r\n"));
    printf("%s: failed\n", name);
    printf("    subject: %s\n", thr_drl_get_error_data());
    printf("    reason:  %.*s\n", length, reason);
    printf("    account: %s", thr_drl_get_error());
    if (reason[length] == '\0')
        printf("\n");
}

bool run_plugin(const char *name, const char *text)
{
    Library library(thr_drl_load(name));
    if (!library) {
        show_failure(name);
        return false;
    }
    void *function = thr_drl_find_function(library.get(), PLUGIN_JUDGE);
    if (!function) {
        show_failure(name);
        return false;
    }
    char verdict[256] = "";
    reinterpret_cast<plugin_judge_func *>(function)(text, verdict, sizeof verdict);
    printf("%s: %s\n", name, verdict);
    return true;
}

int wrong_arguments(const char *problem, const char *argument)
{
    fprintf(stderr, "plugin_host: %s%s; --help tells more\n", problem, argument);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    const char *text = "Step on no pets";
    int first = 1;
    for (; first < argc && argv[first][0] == '-'; first++) {
        if (strcmp(argv[first], "--help") == 0) {
            printf("%s", HELP);
            return 0;
        }
        if (strcmp(argv[first], "--text") != 0)
            return wrong_arguments("unknown option ", argv[first]);
        if (++first == argc)
            return wrong_arguments("--text needs a value", "");
        text = argv[first];
    }
    if (first == argc)
        return wrong_arguments("no library is named", "");

    thr_drl_init();
    int failures = 0;
    for (int i = first; i < argc; i++)
        failures += !run_plugin(argv[i], text);
    if (failures != 0)
        printf("%d of %d libraries could not be used\n", failures, argc - first);
    return failures == 0 ? 0 : 1;
}
