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

int64_t now(); // in ticks
double seconds(int64_t ticks);

// Does an operation so many times and returns the ticks that it took.
using Batch = std::function<int64_t(int count)>;

template <class Op> Batch repeat(Op op)
{
    return [op](int count) {
        int64_t start = now();
        for (int done = 0; done < count; ++done)
            op();
        return now() - start;
    };
}

// Threads that are there before the clock starts.
class Crew
{
public:
    explicit Crew(int size);
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
        HANDLE m_start;
        HANDLE m_done;
        std::thread m_thread;
    };
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

// The members share the operations evenly.
template <class Op> Batch together(Crew &crew, Op op)
{
    return [&crew, op](int count) {
        int each = (count + crew.size() - 1) / crew.size();
        return run_crew(crew, op, each) * count / (each * crew.size());
    };
}

// Each operation takes all members: one of them alone would wait.
template <class Op> Batch in_step(Crew &crew, Op op)
{
    return [&crew, op](int count) { return run_crew(crew, op, count); };
}

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
    double batch_seconds = 0.0005;
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
    int rounds;
};

// A measurement whose control is further off is not one.
bool is_calm(const Measurement &measurement);

// Takes about that long.
Measurement measure(const Operation &operation, double budget_seconds);

} // namespace bench

#endif
