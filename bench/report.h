// Runs the measurements, prints each as a line of a table and keeps it for the JSON file.
#ifndef THR_BENCH_REPORT_H
#define THR_BENCH_REPORT_H

#include "call_count.h"
#include "measure.h"

#include <string>
#include <vector>

namespace bench
{

class Report
{
public:
    // Rows without the text `only` in their names are left out.
    Report(bool quick, const std::string &only);

    bool is_quick() const { return m_quick; }
    bool is_wanted(const std::string &row) const { return row.find(m_only) != row.npos; }

    // Starts a part of the table.
    void part(const std::string &title);

    // Measures an operation and prints its row, which may be the point of a series at `x`.
    void row(const Operation &operation, const std::string &series = "", int x = 0);

    // A row that has been measured elsewhere.
    void add(const Operation &operation, const Measurement &measurement, const std::string &series,
             int x);

    // The calls that an operation makes beside those that its steps prescribe.
    void calls(const CountedOperation &operation, const Counts &counted);

    // An unlock while the next holder keeps the lock file for so many milliseconds.
    void removal(int hold_ms, double unlock_seconds, int moves);

    // What of the goals is met, and the time that all of it took. False when a goal is missed or an
    // operation makes other calls.
    bool summary();

    void write_json(const std::string &path) const;

private:
    bool m_quick;
    std::string m_only;
    int64_t m_start;
    std::map<std::string, int> m_results;
    int m_different = 0;
    std::vector<std::string> m_rows; // in JSON
    std::vector<std::string> m_calls;
    std::vector<std::string> m_removals;
};

} // namespace bench

#endif
