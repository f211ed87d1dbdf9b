#include "report.h"

#include <cmath>
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

// What the rounds say of the goal. The bounds of the median are widened by what the control is off.
std::string result_of(const Operation &operation, const Measurement &measurement)
{
    const double off = 1.0 + std::abs(measurement.control.median - 1.0);
    const bool is_resolved = measurement.ratio.least > operation.goal * off ||
                             measurement.ratio.most * off <= operation.goal;
    if (operation.goal == 0)
        return is_calm(measurement) ? "" : "noisy";
    if (!is_calm(measurement) || !is_resolved)
        return "unresolved";
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

// printf into a text.
template <class... Values> std::string text_of(const char *format, Values... values)
{
    std::string text(snprintf(nullptr, 0, format, values...), '\0');
    snprintf(text.data(), text.size() + 1, format, values...);
    return text;
}

} // namespace

Report::Report(bool quick, const std::string &only) : m_quick(quick), m_only(only), m_start(now())
{
}

void Report::part(const std::string &title)
{
    printf("\n%-40s %8s %8s  %5s  %-10s %-10s %7s %5s  %-10s  %s\n", title.c_str(), "thr", "raw",
           "ratio", "median", "quartiles", "control", "goal", "result", "instead, to raw");
}

void Report::row(const Operation &operation, const std::string &series, int x)
{
    if (!is_wanted(operation.name))
        return;
    Measurement measurement;
    int attempts_left = m_quick ? QUICK_ATTEMPTS : ATTEMPTS;
    do {
        measurement = measure(operation, m_quick ? QUICK_BUDGET : BUDGET);
    } while (--attempts_left > 0 &&
             (!is_calm(measurement) || result_of(operation, measurement) == "unresolved"));
    add(operation, measurement, series, x);
}

void Report::add(const Operation &operation, const Measurement &m, const std::string &series, int x)
{
    std::string result = result_of(operation, m), instead, json;
    for (const Measurement::Other &other : m.others) {
        instead +=
            (instead.empty() ? "" : ", ") + text_of("%s %.2f", other.name.c_str(), other.ratio);
        json += text_of(", \"%s\": %.3f", other.name.c_str(), other.ratio);
    }
    printf("%-40s %8s %8s  %5.2f  %.2f..%.2f %.2f..%.2f %7.2f %5s  %-10s  %s\n",
           operation.name.c_str(), time_text(m.library).c_str(), time_text(m.raw).c_str(),
           m.ratio.median, m.ratio.least, m.ratio.most, m.ratio.low, m.ratio.high, m.control.median,
           goal_text(operation.goal).c_str(), result.c_str(), instead.c_str());
    fflush(stdout);
    m_results[result]++;
    m_rows.push_back(text_of("{\"name\": \"%s\", \"series\": \"%s\", \"x\": %d, \"thr\": %.4g, "
                             "\"raw\": %.4g, \"ratio\": %.3f, \"least\": %.3f, \"most\": %.3f, "
                             "\"low\": %.3f, \"high\": %.3f, \"control\": %.3f, \"rounds\": %d, "
                             "\"goal\": %.2f, \"result\": \"%s\"%s}",
                             operation.name.c_str(), series.c_str(), x, m.library, m.raw,
                             m.ratio.median, m.ratio.least, m.ratio.most, m.ratio.low, m.ratio.high,
                             m.control.median, m.rounds, operation.goal, result.c_str(),
                             json.c_str()));
}

void Report::calls(const CountedOperation &operation, const Counts &counted)
{
    if (m_calls.empty())
        printf("\n%-46s %6s %10s\n", "platform and heap calls per operation", "thr", "prescribed");
    bool is_equal = counted == operation.prescribed; // call by call
    m_different += !is_equal;
    int made = total_of(counted), prescribed = total_of(operation.prescribed);
    printf("%-46s %6d %10d  %s\n", operation.name.c_str(), made, prescribed,
           is_equal ? "equal" : ("DIFFERENT:" + difference(counted, operation.prescribed)).c_str());
    fflush(stdout);
    m_calls.push_back(text_of("{\"name\": \"%s\", \"thr\": %d, \"prescribed\": %d, \"equal\": %s}",
                              operation.name.c_str(), made, prescribed,
                              is_equal ? "true" : "false"));
}

void Report::removal(int hold_ms, double unlock_seconds, int moves)
{
    if (m_removals.empty())
        printf("\n%-46s %9s %14s\n", "interprocess unlock that meets the next holder", "takes",
               "renames tried");
    std::string name = hold_ms == 0 ? "nobody" : text_of("one that holds for %d ms", hold_ms);
    printf("%-46s %9s %14d\n", name.c_str(), time_text(unlock_seconds).c_str(), moves);
    fflush(stdout);
    m_removals.push_back(text_of("{\"hold_ms\": %d, \"unlock\": %.4g, \"moves\": %d}", hold_ms,
                                 unlock_seconds, moves));
}

bool Report::summary()
{
    printf("\n%d goals met, %d missed, %d unresolved (the median's bounds or the control too far "
           "off)\n",
           m_results["met"], m_results["missed"], m_results["unresolved"]);
    printf("%d of %d operations make just the calls that their steps prescribe\n",
           static_cast<int>(m_calls.size()) - m_different, static_cast<int>(m_calls.size()));
    printf("%.0f s in all\n", seconds(now() - m_start));
    return m_results["missed"] == 0 && m_different == 0;
}

// --- JSON ---------------------------------------------------------------------------------------

void Report::write_json(const std::string &path) const
{
    FILE *file = fopen(path.c_str(), "wb");
    if (!file)
        throw std::runtime_error("can't write " + path + ": " + strerror(errno));
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    using VersionFunc = const char *(*)();
    auto version = reinterpret_cast<VersionFunc>(reinterpret_cast<void *>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version")));
    fprintf(file, "{\n  \"machine\": {\"processors\": %lu, \"system\": \"%s%s\"},\n",
            system.dwNumberOfProcessors, version ? "Wine " : "Windows", version ? version() : "");
    fprintf(file, "  \"quick\": %s", m_quick ? "true" : "false");
    auto array = [&](const char *name, const std::vector<std::string> &entries) {
        fprintf(file, ",\n  \"%s\": [", name);
        for (const std::string &entry : entries)
            fprintf(file, "%s\n    %s", &entry == entries.data() ? "" : ",", entry.c_str());
        fprintf(file, "\n  ]");
    };
    array("rows", m_rows);
    array("calls", m_calls);
    array("removal", m_removals);
    fprintf(file, "\n}\n");
    bool is_written = !ferror(file);
    if (fclose(file) != 0 || !is_written)
        throw std::runtime_error("can't write " + path);
}

} // namespace bench
