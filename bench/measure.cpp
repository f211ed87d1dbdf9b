#include "measure.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>

namespace bench
{

namespace
{

const int FEWEST_ROUNDS = 15;
const int MOST_ROUNDS = 4000;

HANDLE make_event()
{
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (!event)
        throw std::runtime_error("an event can't be made");
    return event;
}

void wait_for(HANDLE event)
{
    const DWORD patience_ms = 120000;
    if (WaitForSingleObject(event, patience_ms) != WAIT_OBJECT_0)
        throw std::runtime_error("a thread of the measurement does not come to its end");
}

} // namespace

std::string own_program()
{
    char path[MAX_PATH];
    return {path, GetModuleFileNameA(nullptr, path, MAX_PATH)};
}

int64_t now()
{
    LARGE_INTEGER ticks;
    QueryPerformanceCounter(&ticks);
    return ticks.QuadPart;
}

double seconds(int64_t ticks)
{
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(ticks) / static_cast<double>(frequency.QuadPart);
}

// --- threads ------------------------------------------------------------------------------------

void Crew::gather()
{
    for (int number = 0; number < size(); ++number) {
        Member &member = m_members[number];
        member.m_start = make_event();
        member.m_done = make_event();
        member.m_thread = std::thread(&Crew::serve, this, number);
    }
}

Crew::~Crew()
{
    if (!m_members[0].m_start)
        return;
    start({});
    for (Member &member : m_members) {
        member.m_thread.join();
        CloseHandle(member.m_start);
        CloseHandle(member.m_done);
    }
}

void Crew::serve(int number)
{
    Member &member = m_members[number];
    for (;;) {
        WaitForSingleObject(member.m_start, INFINITE);
        if (!m_work)
            return;
        m_work(number);
        SetEvent(member.m_done);
    }
}

void Crew::start(const std::function<void(int)> &work)
{
    if (!m_members[0].m_start)
        gather();
    m_work = work;
    for (Member &member : m_members)
        SetEvent(member.m_start);
}

void Crew::finish()
{
    for (Member &member : m_members)
        wait_for(member.m_done);
}

// --- rounds -------------------------------------------------------------------------------------

Spread spread_of(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    auto at = [&](double part) {
        double position = part * static_cast<double>(values.size() - 1);
        size_t below = static_cast<size_t>(position);
        size_t above = std::min(below + 1, values.size() - 1);
        return values[below] +
               (position - static_cast<double>(below)) * (values[above] - values[below]);
    };
    // The rounds below the median are as many as heads of so many coins.
    double off = std::min(0.5, 0.98 / std::sqrt(static_cast<double>(values.size())));
    return {at(0.5), at(0.25), at(0.75), at(0.5 - off), at(0.5 + off)};
}

namespace
{

// How many operations take about that long.
int batch_size(const Batch &batch, double batch_seconds)
{
    int count = 1;
    batch.run(count); // what happens once only
    while (count < 1000000 && seconds(batch.run(count)) < batch_seconds)
        count *= 2;
    return count;
}

// Of the round-by-round ratios of two of the measured times.
Spread ratio_of(const std::vector<double> &times, const std::vector<double> &base)
{
    std::vector<double> ratios;
    for (size_t round = 0; round < times.size(); ++round)
        ratios.push_back(times[round] / base[round]);
    return spread_of(ratios);
}

} // namespace

Measurement measure(const Operation &operation, double budget_seconds)
{
    std::vector<Batch> runs = {operation.library, operation.raw, operation.raw};
    for (const Variant &other : operation.others)
        runs.push_back(other.run);
    int count = batch_size(operation.raw, operation.batch_seconds);
    std::vector<size_t> order;
    for (size_t index = 0; index < runs.size(); ++index) {
        order.push_back(index);
        runs[index].run(count); // warm
    }

    std::vector<std::vector<double>> times(runs.size());
    std::mt19937 random; // always the same turns
    int64_t start = now();
    for (int round = 0;
         round < FEWEST_ROUNDS || (round < MOST_ROUNDS && seconds(now() - start) < budget_seconds);
         ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (size_t index : order)
            times[index].push_back(seconds(runs[index].run(count)) / count);
    }

    Measurement result = {spread_of(times[0]).median,
                          spread_of(times[1]).median,
                          ratio_of(times[0], times[1]),
                          ratio_of(times[2], times[1]),
                          {}};
    for (size_t other = 3; other < times.size(); ++other)
        result.others.push_back({operation.others[other - 3].name,
                                 ratio_of(times[other], times[1]).median,
                                 ratio_of(times[0], times[other]).median});
    return result;
}

} // namespace bench
