// What the library costs over the raw calls that it makes, and over what a user might take instead.
#include "rows.h"

#include <cstdio>
#include <stdexcept>

namespace
{

const char USAGE[] =
    "Usage: thr_bench [--quick | --calls] [--only TEXT]\n"
    "\n"
    "  --quick      short measurements: the whole run takes less than a minute\n"
    "  --calls      counts the platform calls and measures nothing\n"
    "  --only TEXT  takes only the rows with this text in their names\n"
    "\n"
    "Ends with 1 when a goal is missed or an operation makes other calls than the\n"
    "raw one, with 2 when a row could not be made.\n";

struct Options {
    bench::Mode mode = bench::Mode::FULL;
    std::string only;
};

Options options_of(const std::vector<std::string> &args)
{
    Options options;
    for (size_t index = 0; index < args.size(); ++index) {
        if (args[index] == "--quick")
            options.mode = bench::Mode::QUICK;
        else if (args[index] == "--calls")
            options.mode = bench::Mode::CALLS;
        else if (args[index] == "--only" && index + 1 < args.size())
            options.only = args[++index];
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

// False when the library is not as it should be.
bool run(const Options &options)
{
    Scratch scratch;
    bench::Report report(options.mode, options.only);
    bench::sync_rows(report);
    bench::thread_rows(report);
    bench::interprocess_rows(report, scratch.path());
    bench::hand_over_rows(report, scratch.path());
    bench::process_rows(report, scratch.path(), own_folder());
    bench::wrapper_rows(report);
    bench::removal_rows(report, scratch.path());
    return report.summary();
}

} // namespace

int main(int argc, char **argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    std::vector<std::string> args(argv + 1, argv + argc);
    try {
        if (!args.empty() && args[0] == "--wait-in-line")
            return bench::wait_in_line({args.begin() + 1, args.end()});
        if (!args.empty() && args[0] == "--help")
            return printf("%s", USAGE) < 0;
        return run(options_of(args)) ? 0 : 1;
    } catch (const std::exception &error) {
        fflush(stdout);
        fprintf(stderr, "thr_bench: %s\n", error.what());
        return 2;
    }
}
