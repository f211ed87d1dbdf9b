// Counts and measures the operations and prints each as a line of a table.
#ifndef THR_BENCH_REPORT_H
#define THR_BENCH_REPORT_H

#include "calls.h"
#include "measure.h"

#include <string>

namespace bench
{

// A time in a unit that suits it.
std::string time_text(double time);

enum class Mode { FULL, QUICK, CALLS };

class Report
{
public:
    // Rows without the text `only` in their names are left out. Mode CALLS measures nothing.
    Report(Mode mode, const std::string &only) : m_mode(mode), m_only(only), m_start(now()) {}

    Mode mode() const { return m_mode; }
    bool is_wanted(const std::string &row);

    // Starts a part of the table.
    void part(const std::string &title) { m_title = title; }

    // Counts an operation, measures it and prints its row.
    void row(const Operation &operation);

    // What of the goals is met, and the time that all of it took. False when a goal is missed or an
    // operation makes other calls.
    bool summary();

private:
    Measurement measured(const Operation &operation) const;
    void print_title();
    void print(const Operation &operation, const Measurement &measurement, int calls);

    Mode m_mode;
    std::string m_only;
    int64_t m_start;
    std::string m_title; // not yet printed
    std::map<std::string, int> m_results;
    bool m_is_any = false; // row was wanted
    int m_rows = 0;
    int m_different = 0;
};

} // namespace bench

#endif
