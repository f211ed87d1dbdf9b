#include "report.h"

#include <cmath>
#include <cstdio>
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

} // namespace

std::string time_text(double time)
{
    const char *const units[] = {"s", "ms", "us", "ns"};
    int unit = 0;
    for (; unit < 3 && time < 1.0; ++unit)
        time *= 1000.0;
    char text[32];
    snprintf(text, sizeof text, "%.*f %s",
             time < 10.0    ? 2
             : time < 100.0 ? 1
                            : 0,
             time, units[unit]);
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

Measurement Report::measured(const Operation &operation) const
{
    const bool is_quick = m_mode == Mode::QUICK;
    for (int attempts_left = is_quick ? QUICK_ATTEMPTS : ATTEMPTS;; --attempts_left) {
        Measurement measurement = measure(operation, is_quick ? QUICK_BUDGET : BUDGET);
        if (operation.goal == 0 || result_of(operation, measurement) != "unresolved" ||
            attempts_left == 1)
            return measurement;
    }
}

void Report::row(const Operation &operation)
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
        print(operation, measured(operation), total_of(library));
    if (m_mode != Mode::CALLS && library != raw)
        printf("    calls %s\n", calls.c_str());
    fflush(stdout);
}

void Report::print(const Operation &operation, const Measurement &m, int calls)
{
    const std::string result = result_of(operation, m);
    char goal[32] = "-";
    if (operation.goal != 0)
        snprintf(goal, sizeof goal, "%.2f", operation.goal);
    printf("%-40s %8s %8s  %5.2f  %.2f..%.2f %.2f..%.2f %7.2f %5s  %-10s %5d",
           operation.name.c_str(), time_text(m.library).c_str(), time_text(m.raw).c_str(),
           m.ratio.median, m.ratio.least, m.ratio.most, m.ratio.low, m.ratio.high, m.control.median,
           goal, result.c_str(), calls);
    const char *before = "  ";
    for (const Measurement::Other &other : m.others) {
        printf("%s%s %.2f", before, other.name.c_str(), other.ratio);
        before = ", ";
    }
    printf("\n");
    m_results[result]++;
}

bool Report::is_wanted(const std::string &row)
{
    bool is_found = row.find(m_only) != row.npos;
    m_is_any = m_is_any || is_found;
    return is_found;
}

bool Report::summary()
{
    if (!m_is_any)
        throw std::runtime_error("no row has \"" + m_only + "\" in its name");
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
