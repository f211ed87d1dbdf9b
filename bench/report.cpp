#include "report.h"

#include <cmath>
#include <cstdio>

namespace bench
{

namespace
{

const double QUICK_BUDGET = 0.5; // seconds for a row
const double BUDGET = 3.0;
// Attempts at a measurement whose control is calm.
const int QUICK_ATTEMPTS = 2;
const int ATTEMPTS = 4;

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

} // namespace

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

// With the first row of a part.
void Report::print_title()
{
    if (m_title.empty())
        return;
    if (m_mode == Mode::CALLS)
        printf("\n%-40s %5s %5s  calls\n", m_title.c_str(), "thr", "raw");
    else
        printf("\n%-40s %8s %8s  %5s  %-10s %-10s %7s %5s  %-10s %5s  %s\n", m_title.c_str(), "thr",
               "raw", "ratio", "median", "quartiles", "control", "goal", "result", "calls",
               "instead, to raw");
    m_title.clear();
}

void Report::row(const Operation &operation)
{
    row(operation, [&] {
        Measurement measurement;
        int attempts_left = m_mode == Mode::QUICK ? QUICK_ATTEMPTS : ATTEMPTS;
        do {
            measurement = measure(operation, m_mode == Mode::QUICK ? QUICK_BUDGET : BUDGET);
        } while (--attempts_left > 0 &&
                 (!is_calm(measurement) || result_of(operation, measurement) == "unresolved"));
        return measurement;
    });
}

void Report::row(const Operation &operation, const std::function<Measurement()> &measured)
{
    if (!is_wanted(operation.name))
        return;
    const Calls library = calls_of(operation.library.once), raw = calls_of(operation.raw.once);
    const std::string calls = library == raw ? "equal" : "DIFFERENT:" + difference(library, raw);
    m_rows++;
    m_different += library != raw;
    print_title();
    if (m_mode == Mode::CALLS)
        printf("%-40s %5d %5d  %s\n", operation.name.c_str(), total_of(library), total_of(raw),
               calls.c_str());
    else
        print(operation, measured(), total_of(library));
    if (m_mode != Mode::CALLS && library != raw)
        printf("    calls %s\n", calls.c_str());
    fflush(stdout);
}

void Report::print(const Operation &operation, const Measurement &m, int calls)
{
    const std::string result = result_of(operation, m);
    printf("%-40s %8s %8s  %5.2f  %.2f..%.2f %.2f..%.2f %7.2f %5s  %-10s %5d",
           operation.name.c_str(), time_text(m.library).c_str(), time_text(m.raw).c_str(),
           m.ratio.median, m.ratio.least, m.ratio.most, m.ratio.low, m.ratio.high, m.control.median,
           goal_text(operation.goal).c_str(), result.c_str(), calls);
    const char *before = "  ";
    for (const Measurement::Other &other : m.others) {
        printf("%s%s %.2f", before, other.name.c_str(), other.ratio);
        before = ", ";
    }
    printf("\n");
    m_results[result]++;
}

bool Report::summary()
{
    printf("\n");
    if (m_mode != Mode::CALLS)
        printf("%d goals met, %d missed, %d unresolved (the median's bounds or the control too far "
               "off)\n",
               m_results["met"], m_results["missed"], m_results["unresolved"]);
    printf("%d of %d operations make just the calls of the raw ones\n", m_rows - m_different,
           m_rows);
    printf("%.0f s in all\n", seconds(now() - m_start));
    return m_results["missed"] == 0 && m_different == 0;
}

} // namespace bench
