// What the library costs over the raw calls that it makes, and over what a user might take instead.
#include "rows.h"

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace
{

const char USAGE[] =
    "Usage: thr_bench [--quick | --calls] [--only TEXT]\n"
    "\n"
    "  --quick      short measurements: the whole run takes about a minute\n"
    "  --calls      counts the platform calls and measures nothing\n"
    "  --only TEXT  takes only the rows with this text in their names\n"
    "\n"
    "Ends with 1 when a goal is missed or an operation makes other calls than the\n"
    "raw one, with 2 when a row could not be made.\n";

// A folder for the lock files, short-lived.
class Scratch
{
public:
    Scratch() { std::filesystem::create_directory(m_path); }
    ~Scratch()
    {
        std::error_code code; // what is left lies among temporary files
        std::filesystem::remove_all(m_path, code);
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    std::string path() const { return m_path.string(); }

private:
    std::filesystem::path m_path = std::filesystem::temp_directory_path() /
                                   ("thr-bench-" + std::to_string(GetCurrentProcessId()));
};

// False when the library is not as it should be.
bool run(bench::Mode mode, const std::string &only)
{
    Scratch scratch;
    bench::Report report(mode, only);
    bench::sync_rows(report);
    bench::thread_rows(report);
    bench::interprocess_rows(report, scratch.path());
    bench::hand_over_rows(report, scratch.path());
    bench::process_rows(report, scratch.path());
    bench::wrapper_rows(report);
    bench::removal_rows(report, scratch.path());
    return report.summary();
}

// The exit status.
int run(const std::vector<std::string> &args)
{
    bench::Mode mode = bench::Mode::FULL;
    std::string only;
    for (size_t index = 0; index < args.size(); ++index) {
        if (args[index] == "--help")
            return printf("%s", USAGE) < 0;
        if (args[index] == "--quick")
            mode = bench::Mode::QUICK;
        else if (args[index] == "--calls")
            mode = bench::Mode::CALLS;
        else if (args[index] == "--only" && index + 1 < args.size())
            only = args[++index];
        else
            throw std::invalid_argument("unknown argument " + args[index] + "\n" + USAGE);
    }
    return run(mode, only) ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    std::vector<std::string> args(argv + 1, argv + argc);
    try {
        if (!args.empty() && args[0] == "--wait-in-line")
            return bench::wait_in_line({args.begin() + 1, args.end()});
        return run(args);
    } catch (const std::exception &error) {
        fflush(stdout);
        fprintf(stderr, "thr_bench: %s\n", error.what());
        return 2;
    }
}
