// What no noise of the machine touches: the calls that an operation makes.
#ifndef THR_BENCH_CALLS_H
#define THR_BENCH_CALLS_H

#include <functional>
#include <map>
#include <string>

namespace bench
{

// Calls by name. A function that was not called is not there.
using Calls = std::map<std::string, int>;

// What thr.dll, this program and each DLL that is loaded meanwhile call in KERNEL32 and USER32 and,
// as "malloc" and "free", in the runtime's heap while `run` runs, on every thread.
Calls calls_of(const std::function<void()> &run);

// The calls of which there are more or fewer than raw ones: "name counted (raw)".
std::string difference(Calls counted, Calls raw);

int total_of(const Calls &calls);

} // namespace bench

#endif
