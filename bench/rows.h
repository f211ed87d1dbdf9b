// The groups of rows, in the order in which they are measured.
#ifndef THR_BENCH_ROWS_H
#define THR_BENCH_ROWS_H

#include "report.h"

#include <string>
#include <vector>

namespace bench
{

void sync_rows(Report &report);
void thread_rows(Report &report);
// Work in `directory`, which is empty but for what each of them makes and removes.
void interprocess_rows(Report &report, const std::string &directory);
void hand_over_rows(Report &report, const std::string &directory);
void process_rows(Report &report, const std::string &directory);
// Registers thread wrappers, which nothing takes back: no thread is measured after it.
void wrapper_rows(Report &report);
// An interprocess unlock that meets the next holder's file.
void removal_rows(Report &report, const std::string &directory);

// The process that waits in the hand-overs: what it has to know is in `args`.
int wait_in_line(const std::vector<std::string> &args);

} // namespace bench

#endif
