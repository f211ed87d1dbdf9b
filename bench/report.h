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
    explicit Report(bool quick);

    bool is_quick() const { return m_quick; }

    // Starts a part of the table.
    void part(const std::string &title);

    // Measures an operation and prints its row.
    void row(const Operation &operation);

    // The same for an operation that grows with `x`, as a point of a series.
    void growth_row(const std::string &series, int x, const Operation &operation);

    // A row that has been measured elsewhere.
    void add(const std::string &series, int x, const Operation &operation,
             const Measurement &measurement);

    // The calls that an operation makes beside those that its steps prescribe.
    void calls(const CountedOperation &operation, const Counts &counted);

    // An unlock while the next holder keeps the lock file for so many milliseconds.
    void removal(int hold_ms, double unlock_seconds, int moves);

    // What of the goals is met, and the time that all of it took.
    void summary();

    void write_json(const std::string &path) const;

private:
    struct Row {
        std::string name;
        std::string series; // of a growth row, else empty
        int x;
        double goal;
        Measurement measurement;
        std::string result; // met, missed, noisy or, without a goal, empty
    };
    struct CallRow {
        std::string name;
        int counted;
        int prescribed;
        bool is_equal; // call by call
    };
    struct Removal {
        int hold_ms;
        double unlock_seconds;
        int moves;
    };

    bool m_quick;
    int64_t m_start;
    std::vector<Row> m_rows;
    std::vector<CallRow> m_calls;
    std::vector<Removal> m_removals;
};

} // namespace bench

#endif
