// How an operation is measured: the library, the raw calls and the alternatives take turns in many
// short rounds, so that what disturbs the machine disturbs all of them, and the median of the
// round-by-round ratios counts.
#ifndef THR_BENCH_MEASURE_H
#define THR_BENCH_MEASURE_H

#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

namespace bench
{

std::string own_program(); // its path
int64_t now();             // in ticks
double seconds(int64_t ticks);

// An operation, as it is measured and as it is counted.
struct Batch {
    std::function<int64_t(int count)> run; // does it so many times; the ticks that it took
    std::function<void()> once;            // with calls that no chance changes
};

template <class Op> Batch repeat(Op op)
{
    auto run = [op](int count) {
        int64_t start = now();
        for (int done = 0; done < count; ++done)
            op();
        return now() - start;
    };
    return {run, op};
}

// Threads that are there before the clock starts. The first start makes them, so that a count
// before it meets none.
class Crew
{
public:
    explicit Crew(int size) : m_members(size) {}
    ~Crew();
    Crew(const Crew &) = delete;
    Crew &operator=(const Crew &) = delete;

    int size() const { return static_cast<int>(m_members.size()); }

    // Gives every member its work, which is told the member's number.
    void start(const std::function<void(int member)> &work);
    // Waits until every member has finished.
    void finish();

private:
    struct Member {
        HANDLE m_start = nullptr;
        HANDLE m_done = nullptr;
        std::thread m_thread;
    };
    void gather();
    void serve(int number);

    std::vector<Member> m_members;
    std::function<void(int)> m_work; // empty: go home
};

// Every member does so many operations; `op` is told the member's number.
template <class Op> int64_t run_crew(Crew &crew, Op op, int each)
{
    int64_t start = now();
    crew.start([op, each](int member) {
        for (int done = 0; done < each; ++done)
            op(member);
    });
    crew.finish();
    return now() - start;
}

// The members share the operations evenly, each of which has so many parts: a part is measured.
// Once is one after another, so that none meets another.
template <class Op> Batch together(Crew &crew, Op op, int parts = 1)
{
    auto run = [&crew, op, parts](int count) {
        int each = (count + crew.size() - 1) / crew.size();
        return run_crew(crew, op, each) * count / (each * crew.size() * parts);
    };
    auto once = [&crew, op] {
        for (int member = 0; member < crew.size(); ++member)
            op(member);
    };
    return {run, once};
}

// Each operation takes both members: one of them alone would wait. Once is without the crew, whose
// own calls come at any time.
template <class Op> Batch in_step(Crew &crew, Op op)
{
    auto run = [&crew, op](int count) { return run_crew(crew, op, count); };
    auto once = [op] {
        std::thread other([op] { op(1); });
        op(0);
        other.join();
    };
    return {run, once};
}

const double BATCH = 0.0005;        // seconds
const double THREADS_BATCH = 0.004; // the start of the threads must not count

struct Variant {
    std::string name;
    Batch run;
};

struct Operation {
    std::string name;
    double goal; // the highest ratio to the raw calls that is aimed at; 0: none
    Batch library;
    Batch raw;
    std::vector<Variant> others = {}; // what a user might take instead
    double batch_seconds = BATCH;
    std::string below = ""; // the library is to be below this one of them
};

struct Spread {
    double median;
    double low; // quartiles
    double high;
    double least; // bounds that the true median is between, 19 times of 20
    double most;
};

Spread spread_of(std::vector<double> values);

struct Measurement {
    double library; // seconds, median
    double raw;
    Spread ratio;   // the library to the raw calls
    Spread control; // the raw calls, measured a second time, to the raw calls
    struct Other {
        std::string name;
        double ratio;   // to the raw calls
        double library; // ratio of the library to it
    };
    std::vector<Other> others;
};

// A measurement whose control is further off is not one.
inline bool is_calm(const Measurement &measurement)
{
    return measurement.control.median >= 0.95 && measurement.control.median <= 1.05;
}

// Takes about that long.
Measurement measure(const Operation &operation, double budget_seconds);

} // namespace bench

#endif
