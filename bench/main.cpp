// What the library costs over the raw calls that it makes, and over what a user might take instead.
#include "rows.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace
{

const char USAGE[] =
    "Usage: thr_bench [--quick] [--only TEXT] [--json FILE]\n"
    "\n"
    "  --quick      short measurements: the whole run takes less than a minute\n"
    "  --only TEXT  measures only the rows with this text in their names\n"
    "  --json FILE  also writes the results to this file\n"
    "\n"
    "Ends with 1 when a goal is missed or an operation makes other calls than its\n"
    "steps prescribe, with 2 when a measurement could not be made.\n";

struct Options {
    bool is_help = false;
    bool is_quick = false;
    std::string only;
    std::string json;
};

Options options_of(const std::vector<std::string> &args)
{
    Options options;
    for (size_t index = 0; index < args.size(); ++index) {
        if (args[index] == "--help")
            options.is_help = true;
        else if (args[index] == "--quick")
            options.is_quick = true;
        else if (args[index] == "--only" && index + 1 < args.size())
            options.only = args[++index];
        else if (args[index] == "--json" && index + 1 < args.size())
            options.json = args[++index];
        else
            throw std::invalid_argument("unknown argument " + args[index] + "\n" + USAGE);
    }
    return options;
}

// A folder for the lock files, empty and short-lived.
class Scratch
{
public:
    Scratch()
    {
        char temp[MAX_PATH + 1];
        DWORD length = GetTempPathA(sizeof temp, temp);
        m_path = std::string(temp, length) + "thr-bench-" + std::to_string(GetCurrentProcessId());
        if (length == 0 || length > MAX_PATH || !CreateDirectoryA(m_path.c_str(), nullptr))
            throw std::runtime_error("no folder for the lock files");
    }
    ~Scratch() { RemoveDirectoryA(m_path.c_str()); }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    const std::string &path() const { return m_path; }

private:
    std::string m_path;
};

// The folder of this program.
std::string own_folder()
{
    char program[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, program, MAX_PATH);
    std::string path(program, length);
    return path.substr(0, path.rfind('\\'));
}

void count_calls(bench::Report &report, const std::string &directory, const std::string &folder)
{
    bench::CountedScene scene(directory, "\"" + folder + "\\thr_bench_child.exe\"");
    bench::CallCounter counter;
    for (const bench::CountedOperation &operation : scene.operations())
        report.calls(operation, counter.count(operation));
}

// False when the library is not as it should be.
bool run(const Options &options)
{
    Scratch scratch;
    std::string folder = own_folder();
    bench::Report report(options.is_quick, options.only);
    bench::sync_rows(report);
    bench::thread_rows(report);
    bench::interprocess_rows(report, scratch.path());
    bench::process_rows(report, scratch.path(), folder);
    bench::growth_rows(report, scratch.path());
    bench::wrapper_rows(report);
    count_calls(report, scratch.path(), folder);
    bench::removal_rows(report, scratch.path());
    bool is_good = report.summary();
    if (!options.json.empty())
        report.write_json(options.json);
    return is_good;
}

} // namespace

int main(int argc, char **argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    std::vector<std::string> args(argv + 1, argv + argc);
    try {
        if (!args.empty() && args[0] == "--wait-in-line")
            return bench::wait_in_line({args.begin() + 1, args.end()});
        Options options = options_of(args);
        if (!options.is_help)
            return run(options) ? 0 : 1;
        printf("%s", USAGE);
        return 0;
    } catch (const std::exception &error) {
        fflush(stdout);
        fprintf(stderr, "thr_bench: %s\n", error.what());
        return 2;
    }
}
