// Burn-in: the whole test run again and again, each run a process of its
// own (the same binary and command line without the burn-in options), until
// a number of runs or a time is reached. The parent marks each run's lines
// with the run's number, passes them through, and ends with a summary, a
// verdict and an exit status for the whole burn-in.
#ifndef TARNEL_DXTTEST_BURNIN_H
#define TARNEL_DXTTEST_BURNIN_H

#include <string>
#include <string_view>
#include <vector>

#include "dxttest_internal.h"

namespace dxt {

// A run started by a burn-in also writes each failure of its verdict, one
// line each (put_failure_brief), to the descriptor this variable names.
constexpr char burn_in_failures_fd[] = "TARNEL_BURN_IN_FAILURES_FD";

struct burn_in_request {
    long long seconds = 0;  // no run starts after this; 0: no time limit
    long long runs = 0;     // 0: no run limit
    bool keep_going = false;
    display_mode display;
    std::vector<std::string> run_args;  // argv of one run
    std::string_view host;
};
[[noreturn]] void burn_in(const burn_in_request &request);

// From the single run's harness, shared with the burn-in.
void write_output(const text_buffer &text);           // standard output; a loss is noted once
[[noreturn]] void end_with(int status);               // a pass whose output was lost becomes 3
bool progress_wanted(display_mode display);           // -q, text, on a terminal that can redraw a line
bool interrupt_ignored(int sig);                      // ignored when the process started
void put_interrupted_by(text_buffer &text, int sig);  // "interrupted by SIGTERM"

}  // namespace dxt

#endif
