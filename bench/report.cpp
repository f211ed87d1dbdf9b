#include "report.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace bench
{

namespace
{

const double QUICK_BUDGET = 0.5; // seconds for a row
const double BUDGET = 3.0;
// Attempts at a measurement whose control is calm.
const int QUICK_ATTEMPTS = 2;
const int ATTEMPTS = 4;

// A time in a unit that suits it.
std::string time_text(double time)
{
    const char *unit = "s";
    double value = time;
    for (const char *smaller : {"ms", "us", "ns"}) {
        if (value >= 1.0)
            break;
        value *= 1000.0;
        unit = smaller;
    }
    char text[32];
    snprintf(text, sizeof text, "%.*f %s", value < 10.0 ? 2 : value < 100.0 ? 1 : 0, value, unit);
    return text;
}

std::string result_of(const Operation &operation, const Measurement &measurement)
{
    if (!is_calm(measurement))
        return "noisy";
    if (operation.goal == 0)
        return "";
    bool is_met = measurement.ratio.median <= operation.goal;
    for (const Measurement::Other &other : measurement.others)
        is_met = is_met && (other.name != operation.below || other.library < 1.0);
    return is_met ? "met" : "missed";
}

std::string goal_text(double goal)
{
    char text[32] = "-";
    if (goal != 0)
        snprintf(text, sizeof text, "%.2f", goal);
    return text;
}

// The calls of which there are more or fewer than prescribed: "name counted (prescribed)".
std::string difference(const Counts &counted, const Counts &prescribed)
{
    Counts all = counted;
    all.insert(prescribed.begin(), prescribed.end());
    std::string text;
    for (const auto &entry : all) {
        auto made = counted.find(entry.first), wanted = prescribed.find(entry.first);
        int made_count = made == counted.end() ? 0 : made->second;
        int wanted_count = wanted == prescribed.end() ? 0 : wanted->second;
        if (made_count != wanted_count)
            text += " " + entry.first + " " + std::to_string(made_count) + " (" +
                    std::to_string(wanted_count) + ")";
    }
    return text;
}

int total_of(const Counts &counts)
{
    int total = 0;
    for (const auto &entry : counts)
        total += entry.second;
    return total;
}

} // namespace

Report::Report(bool quick) : m_quick(quick), m_start(now()) {}

void Report::part(const std::string &title)
{
    printf("\n%-38s %9s %9s  %5s  %-11s %7s %5s  %-6s  %s\n", title.c_str(), "thr", "raw", "ratio",
           "quartiles", "control", "goal", "result", "instead, to raw");
}

void Report::row(const Operation &operation)
{
    growth_row("", 0, operation);
}

void Report::growth_row(const std::string &series, int x, const Operation &operation)
{
    Measurement measurement;
    int attempts_left = m_quick ? QUICK_ATTEMPTS : ATTEMPTS;
    do {
        measurement = measure(operation, m_quick ? QUICK_BUDGET : BUDGET);
    } while (!is_calm(measurement) && --attempts_left > 0);
    add(series, x, operation, measurement);
}

void Report::add(const std::string &series, int x, const Operation &operation,
                 const Measurement &measurement)
{
    Row row = {operation.name, series,      x,
               operation.goal, measurement, result_of(operation, measurement)};
    char quartiles[32];
    snprintf(quartiles, sizeof quartiles, "%.2f..%.2f", measurement.ratio.low,
             measurement.ratio.high);
    printf("%-38s %9s %9s  %5.2f  %-11s %7.2f %5s  %-6s", row.name.c_str(),
           time_text(measurement.library).c_str(), time_text(measurement.raw).c_str(),
           measurement.ratio.median, quartiles, measurement.control.median,
           goal_text(row.goal).c_str(), row.result.c_str());
    const char *separator = "  ";
    for (const Measurement::Other &other : measurement.others) {
        printf("%s%s %.2f", separator, other.name.c_str(), other.ratio);
        separator = ", ";
    }
    printf("\n");
    fflush(stdout);
    m_rows.push_back(row);
}

void Report::calls(const CountedOperation &operation, const Counts &counted)
{
    if (m_calls.empty())
        printf("\n%-46s %6s %10s\n", "platform and heap calls per operation", "thr", "prescribed");
    CallRow row = {operation.name, total_of(counted), total_of(operation.prescribed),
                   counted == operation.prescribed};
    printf("%-46s %6d %10d  %s\n", row.name.c_str(), row.counted, row.prescribed,
           row.is_equal ? "equal"
                        : ("DIFFERENT:" + difference(counted, operation.prescribed)).c_str());
    fflush(stdout);
    m_calls.push_back(row);
}

void Report::removal(int hold_ms, double unlock_seconds, int moves)
{
    if (m_removals.empty())
        printf("\n%-46s %9s %14s\n", "interprocess unlock that meets the next holder", "takes",
               "renames tried");
    std::string name =
        hold_ms == 0 ? "nobody" : "one that holds for " + std::to_string(hold_ms) + " ms";
    printf("%-46s %9s %14d\n", name.c_str(), time_text(unlock_seconds).c_str(), moves);
    fflush(stdout);
    m_removals.push_back({hold_ms, unlock_seconds, moves});
}

void Report::summary()
{
    int met = 0, missed = 0, noisy = 0, different = 0;
    for (const Row &row : m_rows) {
        met += row.result == "met";
        missed += row.result == "missed";
        noisy += row.result == "noisy";
    }
    for (const CallRow &row : m_calls)
        different += !row.is_equal;
    printf("\n%d goals met, %d missed, %d rows too noisy to count (control outside 0.95..1.05)\n",
           met, missed, noisy);
    printf("%d of %d operations make just the calls that their steps prescribe\n",
           static_cast<int>(m_calls.size()) - different, static_cast<int>(m_calls.size()));
    printf("%.0f s in all\n", seconds(now() - m_start));
}

// --- JSON ---------------------------------------------------------------------------------------

namespace
{

// Writes the entries of an array, each on a line of its own.
class JsonLines
{
public:
    JsonLines(FILE *file, const char *name) : m_file(file), m_separator("\n    ")
    {
        fprintf(m_file, ",\n  \"%s\": [", name);
    }
    ~JsonLines() { fprintf(m_file, "\n  ]"); }
    void next()
    {
        fprintf(m_file, "%s", m_separator);
        m_separator = ",\n    ";
    }

private:
    FILE *m_file;
    const char *m_separator;
};

void write_machine(FILE *file, bool quick)
{
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    using VersionFunc = const char *(*)();
    auto version = reinterpret_cast<VersionFunc>(reinterpret_cast<void *>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version")));
    fprintf(file, "{\n  \"machine\": {\"processors\": %lu, \"system\": \"%s%s\"},\n",
            system.dwNumberOfProcessors, version ? "Wine " : "Windows", version ? version() : "");
    fprintf(file, "  \"quick\": %s", quick ? "true" : "false");
}

} // namespace

void Report::write_json(const std::string &path) const
{
    FILE *file = fopen(path.c_str(), "wb");
    if (!file)
        throw std::runtime_error("can't write " + path + ": " + strerror(errno));
    write_machine(file, m_quick);
    {
        JsonLines lines(file, "rows");
        for (const Row &row : m_rows) {
            const Measurement &m = row.measurement;
            lines.next();
            fprintf(file,
                    "{\"name\": \"%s\", \"series\": \"%s\", \"x\": %d, \"thr\": %.4g, "
                    "\"raw\": %.4g, \"ratio\": %.3f, \"low\": %.3f, \"high\": %.3f, "
                    "\"control\": %.3f, \"rounds\": %d, \"goal\": %.2f, \"result\": \"%s\"",
                    row.name.c_str(), row.series.c_str(), row.x, m.library, m.raw, m.ratio.median,
                    m.ratio.low, m.ratio.high, m.control.median, m.rounds, row.goal,
                    row.result.c_str());
            for (const Measurement::Other &other : m.others)
                fprintf(file, ", \"%s\": %.3f", other.name.c_str(), other.ratio);
            fprintf(file, "}");
        }
    }
    {
        JsonLines lines(file, "calls");
        for (const CallRow &row : m_calls) {
            lines.next();
            fprintf(file, "{\"name\": \"%s\", \"thr\": %d, \"prescribed\": %d, \"equal\": %s}",
                    row.name.c_str(), row.counted, row.prescribed, row.is_equal ? "true" : "false");
        }
    }
    {
        JsonLines lines(file, "removal");
        for (const Removal &removal : m_removals) {
            lines.next();
            fprintf(file, "{\"hold_ms\": %d, \"unlock\": %.4g, \"moves\": %d}", removal.hold_ms,
                    removal.unlock_seconds, removal.moves);
        }
    }
    fprintf(file, "\n}\n");
    bool is_written = !ferror(file);
    if (fclose(file) != 0 || !is_written)
        throw std::runtime_error("can't write " + path);
}

} // namespace bench
